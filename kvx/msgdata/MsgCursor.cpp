#include "kvx/msgdata/MsgCursor.h"

#include "kvx/messaging/MsgRequest.h"

#include <utility>

CMsgCursor::CMsgCursor() : CMsgCursor(new CMsgMultipleRowSets) {}

CMsgCursor::CMsgCursor(CMsgMultipleRowSets * rowSets) : m_pRowSets(rowSets)
{
    if (m_pRowSets)
    {
        m_pRowSets->AddRef();
    }
}

CMsgCursor::CMsgCursor(CMsgResponse & response) : CMsgCursor(&response.GetRowSets()) {}

CMsgCursor::CMsgCursor(CMsgRowSet * rowSet) : CMsgCursor()
{
    CMsgCursor::AssignRowSet(rowSet);
}

CMsgCursor::CMsgCursor(CString const & name) : CMsgCursor()
{
    m_pRowSets->Append(name.GetString());
}

CMsgCursor::CMsgCursor(CMsgCursor const & other) : CObject(), CValueAccessor(other)
{
    m_pRowSets = other.GetRowSets();
    if (m_pRowSets)
    {
        m_pRowSets->AddRef();
    }
    m_row = other.m_row;
    m_rowSet = other.m_rowSet;
}

CMsgCursor::~CMsgCursor()
{
    ReleaseRowSets();
}

void CMsgCursor::ReleaseRowSets()
{
    if (CMsgMultipleRowSets * const rowSets = std::exchange(m_pRowSets, nullptr))
    {
        rowSets->Release(1);
    }
}

CMsgCursor & CMsgCursor::operator=(CMsgCursor const & other)
{
    AssignRowSets(other.GetRowSets());
    return *this;
}

CMsgCursor & CMsgCursor::operator=(CMsgMultipleRowSets * rowSets)
{
    AssignRowSets(rowSets);
    return *this;
}

CMsgCursor & CMsgCursor::operator=(CMsgRequest * request)
{
    AssignRowSets(&request->GetResponse().GetRowSets());
    return *this;
}

CMsgCursor & CMsgCursor::operator=(CMsgResponse * response)
{
    AssignRowSets(&response->GetRowSets());
    return *this;
}

CMsgCursor & CMsgCursor::operator=(CMsgRowSet * rowSet)
{
    AssignRowSet(rowSet);
    return *this;
}

void CMsgCursor::AssignRowSet(CMsgRowSet * rowSet)
{
    kvx::RefPtr<CMsgRowSet> const keep(rowSet); // it may be one of those that go
    RestartCurrentRowSet();
    if (CMsgMultipleRowSets * const rowSets = GetRowSets(); rowSets && rowSets->GetRef() == 1)
    {
        rowSets->RemoveAll();
    }
    else
    {
        AssignRowSets(new CMsgMultipleRowSets);
    }
    GetRowSets()->Append(rowSet);
}

void CMsgCursor::AssignRowSets(CMsgMultipleRowSets * rowSets)
{
    RestartCurrentRowSet();
    if (rowSets != m_pRowSets)
    {
        rowSets->AddRef();
        ReleaseRowSets();
        m_pRowSets = rowSets;
    }
}

void CMsgCursor::RemoveAllRowSets()
{
    GetRowSets()->RemoveAll();
}

CMsgRowSet * CMsgCursor::CurrentRowSet() const
{
    return GetRowSets()->GetAt(m_rowSet);
}

void CMsgCursor::RestartCurrentRowSet()
{
    m_row = nullptr;
    m_rowSet = nullptr;
}

CMsgRowSet * CMsgCursor::FirstRowSet()
{
    RestartCurrentRowSet();
    return CurrentRowSet();
}

CMsgRowSet * CMsgCursor::NextRowSet()
{
    m_row = nullptr;
    GetRowSets()->GetNextPosition(m_rowSet);
    return m_rowSet ? CurrentRowSet() : nullptr;
}

CMsgRowSet * CMsgCursor::SelectRowSet(POSITION pos)
{
    m_row = nullptr;
    m_rowSet = pos;
    return CurrentRowSet();
}

CMsgRowSet * CMsgCursor::SelectRowSet(LPCTSTR name)
{
    m_row = nullptr;
    m_rowSet = GetRowSets()->Find(name);
    return m_rowSet ? CurrentRowSet() : nullptr;
}

int CMsgCursor::SelectRowSet(CMsgRowSet * rowSet)
{
    CMsgMultipleRowSets const & rowSets = *GetRowSets();
    if (rowSets.IsEmpty())
    {
        return 0;
    }
    for (POSITION pos = rowSets.GetFirstPosition(); pos; rowSets.GetNextPosition(pos))
    {
        if (rowSets.GetAt(pos) == rowSet)
        {
            m_row = nullptr;
            m_rowSet = pos;
            return 1;
        }
    }
    return 0;
}

CMsgRowSet * CMsgCursor::AppendRowSet(LPCTSTR name)
{
    m_row = nullptr;
    m_rowSet = GetRowSets()->Append(name);
    return CurrentRowSet();
}

int CMsgCursor::AppendRowSet(CMsgRowSet * rowSet)
{
    m_row = nullptr;
    m_rowSet = GetRowSets()->Append(rowSet);
    return m_rowSet != nullptr;
}

void CMsgCursor::AppendRowSets(CMsgMultipleRowSets * rowSets)
{
    m_row = nullptr;
    GetRowSets()->Append(rowSets);
}

int CMsgCursor::RemoveRowSet(CMsgRowSet * rowSet)
{
    m_row = nullptr;
    POSITION removed = nullptr;
    int const bFound = GetRowSets()->Remove(rowSet, &removed);
    if (bFound && removed == m_rowSet)
    {
        m_rowSet = nullptr;
    }
    return bFound;
}

int CMsgCursor::RemoveRowSet(LPCTSTR name)
{
    m_row = nullptr;
    POSITION removed = nullptr;
    int const bFound = GetRowSets()->Remove(name, &removed);
    if (bFound && removed == m_rowSet)
    {
        m_rowSet = nullptr;
    }
    return bFound;
}

int CMsgCursor::FirstRow()
{
    m_row = CurrentRowSet()->GetFirstRowPosition();
    return m_row != nullptr;
}

int CMsgCursor::NextRow()
{
    CurrentRowSet()->GetNextRowPosition(m_row);
    return m_row != nullptr;
}

int CMsgCursor::SelectRow(POSITION pos)
{
    m_row = pos;
    return 1;
}

POSITION CMsgCursor::AppendRow()
{
    m_row = CurrentRowSet()->AppendRow();
    return m_row;
}

POSITION CMsgCursor::AppendRow(CValueAccessor const & values)
{
    AppendRow();
    CopyValues(values);
    return m_row;
}

int CMsgCursor::AppendRows(CMsgCursor & source)
{
    CString name;
    CString value;
    // The source may be this cursor's own row set: only the rows that are there now are copied.
    int left = source.GetRowCount();
    for (source.RestartCurrentRow(); left > 0 && source.NextRow(); --left)
    {
        POSITION row = CurrentRowSet()->AppendRow();
        for (POSITION pos = source.GetStartColumnPosition(); pos;)
        {
            source.GetNextColumnValue(pos, name, value);
            CurrentRowSet()->GetData(row, name) = value;
        }
        m_row = &source == this ? m_row : row;
    }
    if (&source != this)
    {
        source.RestartCurrentRow();
    }
    return 1;
}

POSITION CMsgCursor::GetStartColumnPosition() const
{
    return GetColumnCount() > 0 ? reinterpret_cast<POSITION>(INT_PTR{1}) : nullptr;
}

void CMsgCursor::GetNextColumnValue(POSITION & pos, CString & name, CString & value) const
{
    if (!pos)
    {
        return;
    }
    CMsgRowSet & rowSet = *CurrentRowSet();
    int const ordinal = static_cast<int>(reinterpret_cast<INT_PTR>(pos)) - 1;
    if (!m_row)
    {
        m_row = rowSet.GetFirstRowPosition();
    }
    name = rowSet.GetColumnName(ordinal);
    value = rowSet.GetData(m_row, ordinal);
    pos = ordinal + 1 >= rowSet.GetColumnCount() ? nullptr : reinterpret_cast<POSITION>(INT_PTR{ordinal} + 2);
}

POSITION CMsgCursor::GetStartValuePosition() const
{
    if (!m_row)
    {
        m_row = CurrentRowSet()->GetFirstRowPosition();
    }
    return GetStartColumnPosition();
}

void CMsgCursor::GetNextValue(POSITION & pos, CString & name, CString & value) const
{
    GetNextColumnValue(pos, name, value);
}
