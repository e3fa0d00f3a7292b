#include "HostTableProvider.h"

#include "HostParams.h"
#include "Output.h"

#include "kvx/messaging/MsgMap.h"

#include <algorithm>

namespace
{
constexpr LONGLONG COLUMNS_MAX = 10'000; // a column costs some hundred bytes even when it is empty
constexpr std::size_t TABLES_KEPT = 4;
constexpr LONGLONG CELLS_KEPT = 250'000; // larger tables aren't kept

constexpr std::array FIRST_WORDS{_T("amber"),  _T("brisk"), _T("calm"),  _T("distant"), _T("early"),
                                 _T("faint"),  _T("green"), _T("high"),  _T("inner"),   _T("light"),
                                 _T("narrow"), _T("old"),   _T("plain"), _T("quiet"),   _T("round"),
                                 _T("silver"), _T("third"), _T("upper"), _T("warm"),    _T("young")};
constexpr std::array SECOND_WORDS{_T("anchor"), _T("bridge"), _T("canal"),   _T("dune"),   _T("engine"),
                                  _T("field"),  _T("gate"),   _T("harbour"), _T("island"), _T("lamp"),
                                  _T("meadow"), _T("north"),  _T("orchard"), _T("paper"),  _T("river")};

/// "key-" and at least seven digits.
CString MakeKey(LONGLONG number)
{
    constexpr int PREFIX = 4;
    constexpr int DIGITS = 7;
    int length = PREFIX + DIGITS;
    for (LONGLONG rest = number / 10'000'000; rest > 0; rest /= 10)
    {
        ++length;
    }
    CString key;
    WCHAR * const buffer = key.GetBufferSetLength(length);
    std::ranges::copy(CString::View(_T("key-")), buffer);
    for (int i = length; i-- > PREFIX; number /= 10)
    {
        buffer[i] = static_cast<WCHAR>('0' + number % 10);
    }
    return key;
}
} // namespace

CHostTableProvider::CHostTableProvider()
{
    for (int number = 0; Vocabulary & vocabulary : m_vocabularies)
    {
        for (LPCTSTR const first : FIRST_WORDS)
        {
            for (LPCTSTR const second : SECOND_WORDS)
            {
                CString text;
                text.Format(_T("%s %s %d"), first, second, number);
                vocabulary.push_back(text);
            }
        }
        ++number;
    }
}

void CHostTableProvider::RegisterProviderMap()
{
    CMsgProvider::RegisterProviderMap();
    AddProvider(_T("table.get"), new _MsgMapEntry<CHostTableProvider>(this, &CHostTableProvider::OnGet));
}

void CHostTableProvider::OnGet(CMsgRequest & request)
{
    auto const rows = ReadNumber(request, _T("rows"), std::nullopt, 0, CELL_LIMIT);
    auto const columns = rows ? ReadNumber(request, _T("columns"), std::nullopt, 0, COLUMNS_MAX) : std::nullopt;
    if (!columns)
    {
        return;
    }
    if (static_cast<ULONGLONG>(*rows * *columns) > CELL_LIMIT)
    {
        request.SetResponseError(ERROR_INVALID_PARAMETER, _T("'rows' times 'columns' must not exceed %I64u"),
                                 CELL_LIMIT);
        return;
    }
    request.GetResponse().AssignRowSet(GetTable(*rows, *columns).Get());
}

kvx::RefPtr<CMsgRowSet> CHostTableProvider::GetTable(LONGLONG rows, LONGLONG columns)
{
    {
        CSingleLock guard(&m_lock, TRUE);
        for (Table const & table : m_kept)
        {
            if (table.nRows == rows && table.nColumns == columns)
            {
                return table.rows;
            }
        }
    }
    kvx::RefPtr<CMsgRowSet> const made = MakeTable(rows, columns);
    if (rows * columns <= CELLS_KEPT)
    {
        CSingleLock guard(&m_lock, TRUE);
        if (m_kept.size() == TABLES_KEPT)
        {
            m_kept.erase(m_kept.begin());
        }
        m_kept.push_back({rows, columns, made});
    }
    return made;
}

kvx::RefPtr<CMsgRowSet> CHostTableProvider::MakeTable(LONGLONG rows, LONGLONG columns) const
{
    kvx::RefPtr<CMsgRowSet> const table(new CMsgRowSet(_T("table")));
    CString name;
    for (LONGLONG i = 0; i < columns; ++i)
    {
        name.Format(_T("column_%I64d"), i);
        table->AddColumn(i == 0 ? LPCTSTR(_T("key")) : LPCTSTR(name));
    }
    for (LONGLONG i = 0; i < rows; ++i)
    {
        table->AppendRow();
    }
    for (int column = 0; column < columns; ++column)
    {
        Vocabulary const & vocabulary = m_vocabularies[static_cast<std::size_t>(column) % m_vocabularies.size()];
        DWORD mixed = 2166136261u + static_cast<DWORD>(column);
        POSITION row = table->GetFirstRowPosition();
        for (LONGLONG number = 1; row; table->GetNextRowPosition(row), ++number)
        {
            CStringValue & cell = table->GetData(row, column);
            if (column == 0)
            {
                cell = MakeKey(number);
            }
            else
            {
                mixed = mixed * 1664525u + 1013904223u;
                cell = vocabulary[(mixed >> 8) % vocabulary.size()];
            }
        }
    }
    return table;
}
