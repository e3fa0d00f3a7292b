#include "kvx/msgdata/MsgRowSet.h"

#include "kvx/transport/MsgStream.h"

#include <algorithm>
#include <limits>
#include <memory>

CMsgRowSet::CMsgRowSet(LPCTSTR name) : m_strName(name) {}

CMsgRowSet::CMsgRowSet(CMsgRowSet const & other) : CMsgRowSet(LPCTSTR{})
{
    CopyRows(other);
}

CMsgRowSet::~CMsgRowSet() = default;

CMsgDataSet * CMsgRowSet::GetDataSet(CString const & name)
{
    if (CMsgDataSet * const known = m_columns.Find(name))
    {
        return known;
    }
    auto column = std::make_unique<CMsgDataSet>(m_nRows, m_columns.GetOrdinalCount(), nullptr);
    column->SetName(name); // shares the caller's characters
    return &m_columns.Add(name, std::move(column));
}

int CMsgRowSet::AddColumn(LPCTSTR name)
{
    GetDataSet(name);
    return GetColumnCount();
}

int CMsgRowSet::RemoveColumn(LPCTSTR name)
{
    return m_columns.Remove(name) != nullptr;
}

int CMsgRowSet::RenameColumn(LPCTSTR oldName, LPCTSTR newName)
{
    return m_columns.Rename(oldName, newName);
}

void CMsgRowSet::RemoveAll()
{
    m_nRows = 0;
    m_columns.RemoveAll();
}

POSITION CMsgRowSet::AppendRow()
{
    if (m_nRows == std::numeric_limits<LONG>::max())
    {
        AfxThrowInvalidArgException();
    }
    return kvx::RowPosition(++m_nRows);
}

CStringValue & CMsgRowSet::GetData(POSITION & pos, CString const & name)
{
    if (!pos)
    {
        pos = GetFirstRowPosition();
    }
    return GetDataSet(name)->GetData(pos);
}

void CMsgRowSet::GetRow(POSITION & pos, CValueAccessor & target) const
{
    if (!pos)
    {
        pos = GetFirstRowPosition();
    }
    for (auto const & [name, column] : m_columns)
    {
        target.CreateValue(name) = column->GetData(pos);
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
    for (auto const & [name, column] : source.m_columns)
    {
        m_columns.Add(name, std::make_unique<CMsgDataSet>(m_nRows, m_columns.GetOrdinalCount(), *column));
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
    kvx::MessageTexts texts;
    for (; columns > 0; --columns)
    {
        auto column = std::make_unique<CMsgDataSet>(m_nRows, m_columns.GetOrdinalCount(), nullptr);
        if (!column->Read(stream, texts))
        {
            return 0;
        }
        CString const name = column->GetName();
        m_columns.Add(name, std::move(column));
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
    return std::ranges::all_of(m_columns, [&stream](auto const & entry) { return entry.pColumn->Write(stream) != 0; });
}
