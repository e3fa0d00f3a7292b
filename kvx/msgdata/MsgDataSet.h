#pragma once

/// One column of a row set: a sparse sequence of text cells, sorted by row number.

#include "kvx/foundation/SortedTree.h"
#include "kvx/foundation/StringValue.h"

class CMsgStream;

/// Rows are numbered from 1, and a cell comes into being when it is first asked for. Cells lie in blocks of
/// neighbouring rows, which a tree finds by their first row: a missing block costs nothing, a filled column is dense.
/// The address of a cell stays as it is until the column goes.
///
/// Threads: one at a time; several may use the const operations at once.
class KVX_API CMsgDataSet : public CObject
{
public:
    /// The value of every cell that doesn't exist.
    static CStringValue const EMPTY_DATA;

    /// `rowCount` is the row set's, and must outlive the column.
    CMsgDataSet(LONG & rowCount, int ordinal, LPCTSTR name);
    /// Copies name and cells.
    CMsgDataSet(LONG & rowCount, int ordinal, CMsgDataSet const & other);
    CMsgDataSet(CMsgDataSet const &) = delete;
    CMsgDataSet & operator=(CMsgDataSet const &) = delete;
    ~CMsgDataSet() override;

    CString const & GetName() const { return m_strName; }
    void SetName(CString const & name) { m_strName = name; }
    int GetOrdinal() const { return m_nOrdinal; }
    void SetOrdinal(int ordinal) { m_nOrdinal = ordinal; }

    /// The cell, created if it is missing. A null position becomes row 1. A row beyond the row set's end raises its row
    /// count. Errors: CInvalidArgException * for a position that is no row number.
    CStringValue & GetData(POSITION & pos);
    /// A copy, empty for a missing cell.
    CStringValue GetData(POSITION pos) const;

    /// The wire form: docs/wire-protocol.md. Empty cells that are read don't come into being.
    int Read(CMsgStream & stream);
    int Write(CMsgStream & stream) const;

private:
    class CDataBlock;

    CString m_strName;
    CSortedTree m_blocks;
    int m_nOrdinal;
    LONG & m_rowCount;
    int m_nHighest = -1;            // of the blocks' numbers
    CDataBlock * m_pLast = nullptr; // the block that was used last: most access is to neighbours

    CDataBlock * FindBlock(int number) const;
    CDataBlock & FindOrAddBlock(int number);
    void AddBlock(CDataBlock * block);
};
