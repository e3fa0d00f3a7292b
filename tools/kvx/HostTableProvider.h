#pragma once

#include "kvx/messaging/MsgProvider.h"
#include "kvx/msgdata/MsgRowSet.h"

#include <array>
#include <vector>

/// `host.table.get`: a table of `rows` x `columns` short texts, as real data has them: the first column is a key,
/// different in each row, the others take their texts from vocabularies of some hundred. The same numbers give the same
/// table. At most CELL_LIMIT cells and 10,000 columns.
///
/// Tables are made once and never changed: the last few are kept, and answers share them by reference.
class CHostTableProvider : public CMsgProvider
{
public:
    CHostTableProvider();
    void RegisterProviderMap() override;

private:
    using Vocabulary = std::vector<CString>;
    struct Table
    {
        LONGLONG nRows;
        LONGLONG nColumns;
        kvx::RefPtr<CMsgRowSet> rows;
    };

    std::array<Vocabulary, 4> m_vocabularies; // never change, so that threads may share them
    CCriticalSection m_lock;                  // the list below
    std::vector<Table> m_kept;                // the one that was made last is at the end

    void OnGet(CMsgRequest & request);
    kvx::RefPtr<CMsgRowSet> GetTable(LONGLONG rows, LONGLONG columns);
    kvx::RefPtr<CMsgRowSet> MakeTable(LONGLONG rows, LONGLONG columns) const;
};
