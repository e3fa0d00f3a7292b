#include "kvx/msgdata/MsgRowSet.h"

#include "kvx/msgdata/RowNumbers.h"
#include "kvx/transport/MsgStream.h"

#include <limits>
#include <memory>

CMsgRowSet::CMsgRowSet(LPCTSTR name) : m_strName(name)
{
    RegisterAutoDelete(m_columns);
    RegisterAutoDelete(m_displaced);
}

CMsgRowSet::CMsgRowSet(CMsgRowSet const & other) : CRefObject(other), CAutoDelete(other)
{
    RegisterAutoDelete(m_columns);
    RegisterAutoDelete(m_displaced);
    CopyRows(other);
}

CMsgRowSet::~CMsgRowSet()
{
    PerformAutoDelete(nullptr, 0);
}

CMsgDataSet & CMsgRowSet::ColumnAt(int ordinal) const
{
    auto * const column = static_cast<CMsgDataSet *>(m_ordinals.GetAt(ordinal));
    if (!column)
    {
        AfxThrowInvalidArgException();
    }
    return *column;
}

CMsgDataSet * CMsgRowSet::FindColumn(CString const & name) const
{
    CObject * column = nullptr;
    return m_columns.Lookup(name, column) ? static_cast<CMsgDataSet *>(column) : nullptr;
}

void CMsgRowSet::AddDataSet(CMsgDataSet * column)
{
    CObject *& slot = m_columns[column->GetName()];
    if (slot)
    {
        m_displaced.Add(slot);
    }
    slot = column;
    m_ordinals.Add(column);
}

CMsgDataSet * CMsgRowSet::GetDataSet(CString const & name)
{
    if (CMsgDataSet * const known = FindColumn(name))
    {
        return known;
    }
    auto column = std::make_unique<CMsgDataSet>(m_nRows, static_cast<int>(m_ordinals.GetSize()), nullptr);
    column->SetName(name); // shares the caller's characters
    AddDataSet(column.get());
    return column.release();
}

int CMsgRowSet::AddColumn(LPCTSTR name)
{
    GetDataSet(name);
    return GetColumnCount();
}

int CMsgRowSet::RemoveColumn(LPCTSTR name)
{
    std::unique_ptr<CMsgDataSet> const column(FindColumn(name));
    if (!column)
    {
        return 0;
    }
    m_columns.RemoveKey(name);
    m_ordinals.RemoveAt(column->GetOrdinal());
    for (INT_PTR i = column->GetOrdinal(); i < m_ordinals.GetSize(); ++i)
    {
        if (auto * const later = static_cast<CMsgDataSet *>(m_ordinals.GetAt(i)))
        {
            later->SetOrdinal(static_cast<int>(i));
        }
    }
    return 1;
}

int CMsgRowSet::RenameColumn(LPCTSTR oldName, LPCTSTR newName)
{
    CMsgDataSet * const column = FindColumn(oldName);
    if (!column)
    {
        return 0;
    }
    m_columns.RemoveKey(oldName);
    column->SetName(newName);
    CObject *& slot = m_columns[column->GetName()];
    if (slot)
    {
        m_displaced.Add(slot);
    }
    slot = column;
    return 1;
}

void CMsgRowSet::RemoveAll()
{
    m_nRows = 0;
    PerformAutoDelete(nullptr, 0);
    m_ordinals.RemoveAll();
}

void CMsgRowSet::RemoveAllColumns()
{
    PerformAutoDelete(nullptr, 0);
    for (INT_PTR i = 0; i < m_ordinals.GetSize(); ++i)
    {
        m_ordinals.SetAt(i, nullptr);
    }
}

POSITION CMsgRowSet::AppendRow()
{
    if (m_nRows == std::numeric_limits<LONG>::max())
    {
        AfxThrowInvalidArgException();
    }
    return kvx::RowPosition(++m_nRows);
}

POSITION CMsgRowSet::GetFirstRowPosition() const
{
    return m_nRows != 0 ? kvx::RowPosition(1) : nullptr;
}

void CMsgRowSet::GetNextRowPosition(POSITION & pos) const
{
    pos = kvx::NextRow(pos, m_nRows);
}

int CMsgRowSet::IsValidRowPosition(POSITION pos) const
{
    return kvx::IsRow(pos, m_nRows);
}

CStringValue & CMsgRowSet::GetData(POSITION & pos, int ordinal)
{
    CMsgDataSet & column = ColumnAt(ordinal);
    if (!pos)
    {
        pos = GetFirstRowPosition();
    }
    return column.GetData(pos);
}

CStringValue & CMsgRowSet::GetData(POSITION & pos, CString const & name)
{
    if (!pos)
    {
        pos = GetFirstRowPosition();
    }
    return GetDataSet(name)->GetData(pos);
}

int CMsgRowSet::HasData(LPCTSTR column) const
{
    return FindColumn(column) != nullptr;
}

void CMsgRowSet::GetRow(POSITION & pos, CValueAccessor & target) const
{
    if (!pos)
    {
        pos = GetFirstRowPosition();
    }
    CString name;
    CObject * column = nullptr;
    for (POSITION next = m_columns.GetStartPosition(); next;)
    {
        m_columns.GetNextAssoc(next, name, column);
        target.CreateValue(name) = static_cast<CMsgDataSet *>(column)->GetData(pos);
    }
}

void CMsgRowSet::SetRow(POSITION & pos, CValueAccessor const & source)
{
    CString name;
    CString value;
    for (POSITION next = source.GetStartValuePosition(); next;)
    {
        source.GetNextValue(next, name, value);
        GetData(pos, name) = value;
    }
}

int CMsgRowSet::CopyRows(CMsgRowSet const & source)
{
    if (&source == this)
    {
        return GetColumnCount();
    }
    RemoveAll();
    m_nRows = source.m_nRows;
    m_strName = source.m_strName;
    CString name;
    CObject * column = nullptr;
    for (POSITION next = source.m_columns.GetStartPosition(); next;)
    {
        source.m_columns.GetNextAssoc(next, name, column);
        auto const ordinal = static_cast<int>(m_ordinals.GetSize());
        AddDataSet(new CMsgDataSet(m_nRows, ordinal, *static_cast<CMsgDataSet *>(column)));
    }
    return GetColumnCount();
}

int CMsgRowSet::Read(CMsgStream & stream)
{
    RemoveAll();
    DWORD rows = 0;
    DWORD columns = 0;
    if (!stream.Read(m_strName) || !stream.Read(rows) || !stream.Read(columns))
    {
        return 0;
    }
    if (rows > static_cast<DWORD>(std::numeric_limits<LONG>::max()))
    {
        SetLastError(ERROR_INVALID_DATA);
        return 0;
    }
    m_nRows = static_cast<LONG>(rows);
    for (; columns > 0; --columns)
    {
        auto column = std::make_unique<CMsgDataSet>(m_nRows, static_cast<int>(m_ordinals.GetSize()), nullptr);
        if (!column->Read(stream))
        {
            return 0;
        }
        AddDataSet(column.release());
    }
    return 1;
}

int CMsgRowSet::Write(CMsgStream & stream) const
{
    if (!stream.Write(m_strName) || !stream.Write(static_cast<DWORD>(m_nRows)) ||
        !stream.Write(static_cast<DWORD>(m_columns.GetCount())))
    {
        return 0;
    }
    for (auto const * pair = m_columns.PGetFirstAssoc(); pair; pair = m_columns.PGetNextAssoc(pair))
    {
        if (!static_cast<CMsgDataSet *>(pair->value)->Write(stream))
        {
            return 0;
        }
    }
    return 1;
}
