#pragma once

/// One column of a row set: a sparse sequence of text cells, sorted by row number.

#include "kvx/msgdata/CellBlocks.h"
#include "kvx/msgdata/RowNumbers.h"

class CMsgStream;

namespace kvx
{
class MessageTexts;
}

/// Rows are numbered from 1, and a cell comes into being when it is first asked for. The address of a cell stays as it
/// is until the column goes.
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

    CString const & GetName() const { return m_strName; }
    void SetName(CString const & name) { m_strName = name; }
    int GetOrdinal() const { return m_nOrdinal; }
    void SetOrdinal(int ordinal) { m_nOrdinal = ordinal; }

    /// The cell, created if it is missing. A null position becomes row 1. A row beyond the row set's end raises its row
    /// count. Errors: CInvalidArgException * for a position that is no row number.
    CStringValue & GetData(POSITION & pos)
    {
        if (!pos)
        {
            pos = kvx::RowPosition(1);
        }
        int const index = kvx::RowIndex(pos);
        CStringValue & cell = m_cells.At(index);
        if (index >= m_rowCount)
        {
            m_rowCount = index + 1;
        }
        return cell;
    }
    /// A copy, empty for a missing cell.
    CStringValue GetData(POSITION pos) const;

    /// The wire form: docs/wire-protocol.md. Empty cells that are read don't come into being.
    int Read(CMsgStream & stream);
    /// The same with memory for short texts that other columns use too.
    int Read(CMsgStream & stream, kvx::MessageTexts & texts);
    int Write(CMsgStream & stream) const;

private:
    CString m_strName;
    kvx::CellBlocks m_cells;
    int m_nOrdinal;
    LONG & m_rowCount;
};
