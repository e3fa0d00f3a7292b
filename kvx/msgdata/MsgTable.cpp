#include "kvx/msgdata/MsgTable.h"

#include "kvx/msgdata/MsgDataSet.h"
#include "kvx/msgdata/RowNumbers.h"
#include "kvx/transport/MsgStream.h"

#include <memory>

CMsgTable::CMsgTable(LPCTSTR name) : m_strName(name) {}

CMsgTable::CMsgTable(CMsgTable const & other) : CRefObject(other), CAutoDelete(other)
{
    CopyRows(other);
}

CMsgTable::~CMsgTable()
{
    RemoveAll();
}

/// A column with the next ordinal.
CMsgTableColumn & CMsgTable::AddColumn(CString const & key, LPCTSTR name)
{
    return m_columns.Add(key, std::make_unique<CMsgTableColumn>(this, m_columns.GetOrdinalCount(), name));
}

CMsgTableColumn * CMsgTable::GetDataSet(LPCTSTR name)
{
    CMsgTableColumn * const known = m_columns.Find(name);
    return known ? known : &AddColumn(name, name);
}

int CMsgTable::GetColumnOrdinal(LPCTSTR name) const
{
    CMsgTableColumn const * const column = m_columns.Find(name);
    return column ? column->GetOrdinal() : -1;
}

int CMsgTable::AddColumn(LPCTSTR name)
{
    GetDataSet(name);
    return GetColumnCount();
}

int CMsgTable::RemoveColumn(LPCTSTR name)
{
    std::unique_ptr<CMsgTableColumn> const column = m_columns.Remove(name);
    if (!column)
    {
        return 0;
    }
    int const ordinal = column->GetOrdinal();
    for (INT_PTR i = 0; i < m_rows.GetSize(); ++i)
    {
        auto * const row = static_cast<CPtrArray *>(m_rows.GetAt(i));
        if (row && ordinal < row->GetSize())
        {
            delete static_cast<CStringValue *>(row->GetAt(ordinal));
            row->RemoveAt(ordinal);
        }
    }
    return 1;
}

int CMsgTable::RenameColumn(LPCTSTR oldName, LPCTSTR newName)
{
    return m_columns.Rename(oldName, newName);
}

void CMsgTable::DeleteRows()
{
    for (INT_PTR i = 0; i < m_rows.GetSize(); ++i)
    {
        std::unique_ptr<CPtrArray> const row(static_cast<CPtrArray *>(m_rows.GetAt(i)));
        for (INT_PTR cell = 0; row && cell < row->GetSize(); ++cell)
        {
            delete static_cast<CStringValue *>(row->GetAt(cell));
        }
    }
    m_rows.RemoveAll();
    m_nRows = 0;
}

void CMsgTable::RemoveAll()
{
    m_columns.RemoveColumns();
    DeleteRows();
}

POSITION CMsgTable::AppendRow()
{
    return kvx::RowPosition(static_cast<INT_PTR>(++m_nRows));
}

POSITION CMsgTable::GetFirstRowPosition() const
{
    return m_nRows > 0 ? kvx::RowPosition(1) : nullptr;
}

void CMsgTable::GetNextRowPosition(POSITION & pos) const
{
    pos = kvx::NextRow(pos, static_cast<INT_PTR>(m_nRows));
}

int CMsgTable::IsValidRowPosition(POSITION pos) const
{
    return kvx::IsRow(pos, static_cast<INT_PTR>(m_nRows));
}

/// The row's index.
INT_PTR CMsgTable::CheckedRow(POSITION pos) const
{
    if (!IsValidRowPosition(pos))
    {
        AfxThrowInvalidArgException();
    }
    return reinterpret_cast<INT_PTR>(pos) - 1;
}

void CMsgTable::CheckOrdinal(int ordinal) const
{
    if (ordinal < 0 || ordinal >= m_columns.GetOrdinalCount())
    {
        AfxThrowInvalidArgException();
    }
}

CStringValue * CMsgTable::FindCell(INT_PTR row, int ordinal) const
{
    CheckOrdinal(ordinal);
    auto const * const cells = row < m_rows.GetSize() ? static_cast<CPtrArray *>(m_rows.GetAt(row)) : nullptr;
    return cells && ordinal < cells->GetSize() ? static_cast<CStringValue *>(cells->GetAt(ordinal)) : nullptr;
}

CPtrArray & CMsgTable::RowAt(INT_PTR row)
{
    if (row >= m_rows.GetSize())
    {
        m_rows.SetSize(row + 1, -1);
    }
    auto * cells = static_cast<CPtrArray *>(m_rows.GetAt(row));
    if (!cells)
    {
        cells = new CPtrArray;
        m_rows.SetAt(row, cells);
    }
    if (cells->GetSize() < m_columns.GetOrdinalCount())
    {
        cells->SetSize(m_columns.GetOrdinalCount());
    }
    return *cells;
}

CStringValue & CMsgTable::CellAt(INT_PTR row, int ordinal)
{
    CheckOrdinal(ordinal);
    CPtrArray & cells = RowAt(row);
    auto * cell = static_cast<CStringValue *>(cells.GetAt(ordinal));
    if (!cell)
    {
        cell = new CStringValue;
        cells.SetAt(ordinal, cell);
    }
    return *cell;
}

CStringValue & CMsgTable::GetData(POSITION & pos, int ordinal)
{
    if (!pos)
    {
        pos = GetFirstRowPosition();
    }
    return CellAt(CheckedRow(pos), ordinal);
}

CStringValue & CMsgTable::GetData(POSITION & pos, CString const & column)
{
    return GetData(pos, GetDataSet(column)->GetOrdinal());
}

CStringValue const & CMsgTable::GetData(POSITION pos, int ordinal) const
{
    CStringValue const * const cell = FindCell(CheckedRow(pos ? pos : GetFirstRowPosition()), ordinal);
    return cell ? *cell : CMsgDataSet::EMPTY_DATA;
}

int CMsgTable::HasData(POSITION pos, int ordinal) const
{
    return FindCell(CheckedRow(pos), ordinal) != nullptr;
}

int CMsgTable::HasData(POSITION pos, LPCTSTR column) const
{
    CMsgTableColumn const * const known = m_columns.Find(column);
    return known && HasData(pos, known->GetOrdinal());
}

void CMsgTable::GetRow(POSITION & pos, CValueAccessor & target) const
{
    if (!pos)
    {
        pos = GetFirstRowPosition();
    }
    for (auto const & [name, column] : m_columns)
    {
        target.CreateValue(name) = GetData(pos, column->GetOrdinal());
    }
}

void CMsgTable::SetRow(POSITION & pos, CValueAccessor const & source)
{
    CString name;
    CString value;
    for (POSITION next = source.GetStartValuePosition(); next;)
    {
        source.GetNextValue(next, name, value);
        GetData(pos, name) = value;
    }
}

CPtrArray & CMsgTable::GetRowData(POSITION pos)
{
    return RowAt(CheckedRow(pos));
}

int CMsgTable::CopyRows(CMsgTable const & source)
{
    if (&source == this)
    {
        return GetColumnCount();
    }
    RemoveAll();
    m_columns.RemoveAll();
    m_nRows = source.m_nRows;
    m_strName = source.m_strName;
    for (auto const & [name, column] : source.m_columns)
    {
        AddColumn(name, nullptr);
    }
    int const columns = GetColumnCount();
    for (INT_PTR row = 0; row < source.m_rows.GetSize(); ++row)
    {
        for (int ordinal = 0; ordinal < columns; ++ordinal)
        {
            if (CStringValue const * const cell = source.FindCell(row, ordinal))
            {
                CellAt(row, ordinal) = *cell;
            }
        }
    }
    return columns;
}

int CMsgTable::Read(CMsgStream & stream)
{
    RemoveAll();
    DWORD rows = 0;
    DWORD columns = 0;
    if (!stream.Read(m_strName) || !stream.Read(rows) || !stream.Read(columns))
    {
        return 0;
    }
    m_nRows = rows;
    CString name;
    CString text;
    for (; columns > 0; --columns)
    {
        DWORD count = 0;
        if (!stream.Read(name) || !stream.Read(count))
        {
            return 0;
        }
        int const ordinal = AddColumn(name, name).GetOrdinal();
        for (DWORD row = 0; row < count; ++row)
        {
            if (!stream.Read(text))
            {
                RemoveColumn(name); // whole columns alone stay
                return 0;
            }
            if (row >= m_nRows)
            {
                AfxThrowInvalidArgException();
            }
            if (!text.IsEmpty())
            {
                CellAt(static_cast<INT_PTR>(row), ordinal) = std::move(text);
            }
        }
    }
    return 1;
}

int CMsgTable::Write(CMsgStream & stream) const
{
    if (!stream.Write(m_strName) || !stream.Write(m_nRows) || !stream.Write(static_cast<DWORD>(m_columns.GetCount())))
    {
        return 0;
    }
    for (auto const & [name, column] : m_columns)
    {
        if (!stream.Write(name) || !stream.Write(m_nRows))
        {
            return 0;
        }
        for (DWORD row = 0; row < m_nRows; ++row)
        {
            CStringValue const * const cell = FindCell(static_cast<INT_PTR>(row), column->GetOrdinal());
            if (!stream.Write(static_cast<CString const &>(cell ? *cell : CMsgDataSet::EMPTY_DATA)))
            {
                return 0;
            }
        }
    }
    return 1;
}
