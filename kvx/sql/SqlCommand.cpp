#include "kvx/sql/SqlCommand.h"

#include "kvx/messaging/MsgRequest.h"
#include "kvx/platform/mfc/OleDateTime.h"
#include "kvx/platform/mfc/Time.h"
#include "kvx/text/StringTokenizer.h"

#include <algorithm>
#include <array>
#include <optional>

namespace
{
constexpr LPCTSTR DELETE_ALL = _T("delete from %s");
constexpr LPCTSTR DELETE_SOME = _T("delete from %s where %s");
constexpr LPCTSTR INSERT = _T("insert into %s (%s) values (%s)");
constexpr LPCTSTR INSERT_OR_REPLACE = _T("insert or replace into %s (%s) values (%s)");
constexpr LPCTSTR UPDATE_ALL = _T("update %s set %s");
constexpr LPCTSTR UPDATE_SOME = _T("update %s set %s where %s");
constexpr LPCTSTR SELECT_ALL = _T("select %s from %s%s");
constexpr LPCTSTR SELECT_SOME = _T("select %s from %s where %s%s");

constexpr LPCTSTR TIME_FORM = _T("%Y-%m-%d %H:%M:%S");

template <class... T>
CString Formatted(LPCTSTR format, T const &... values)
{
    CString text;
    text.Format(format, values...);
    return text;
}

void Join(CString & list, LPCTSTR separator, CString const & item)
{
    if (!list.IsEmpty())
    {
        list += separator;
    }
    list += item;
}

// The numbers of a time as the C library's scanf reads them: white space may stand before each, a sign counts among its
// digits.
class CTimeScanner
{
public:
    explicit CTimeScanner(CString::View text) : m_text(text) {}

    std::optional<std::array<int, 6>> Scan()
    {
        std::array<int, 6> numbers;
        bool const bAll = Number(4, numbers[0]) && Literal('-') && Number(2, numbers[1]) && Literal('-') &&
                          Number(2, numbers[2]) && Number(2, numbers[3]) && Literal(':') && Number(2, numbers[4]) &&
                          Literal(':') && Number(2, numbers[5]);
        return bAll ? std::optional(numbers) : std::nullopt;
    }

private:
    CString::View m_text;

    bool Literal(char c)
    {
        bool const bHere = !m_text.empty() && m_text.front() == static_cast<WCHAR>(c);
        m_text.remove_prefix(bHere ? 1 : 0);
        return bHere;
    }
    bool Number(int digits, int & number)
    {
        while (!m_text.empty() && (m_text.front() == ' ' || (m_text.front() >= '\t' && m_text.front() <= '\r')))
        {
            m_text.remove_prefix(1);
        }
        bool const bMinus = Literal('-');
        digits -= bMinus || Literal('+') ? 1 : 0;
        bool bAny = false;
        for (number = 0; digits > 0 && !m_text.empty() && m_text.front() >= '0' && m_text.front() <= '9'; --digits)
        {
            number = 10 * number + (m_text.front() - '0');
            m_text.remove_prefix(1);
            bAny = true;
        }
        number = bMinus ? -number : number;
        return bAny;
    }
};
} // namespace

int CSqlCommand::SetParam(LPCTSTR name, CStringValue const & value, int allowEmpty)
{
    if (value.IsEmpty() && !allowEmpty)
    {
        return 0;
    }
    m_params.SetValue(name, value);
    return 1;
}

int CSqlCommand::SetParam(LPCTSTR name, CValueAccessor const & source, int allowEmpty)
{
    return SetParam(name, source[name], allowEmpty);
}

void CSqlCommand::SetParams(CValueAccessor const & source)
{
    m_params.MergeValues(source);
}

void CSqlCommand::SetParams(LPCTSTR names, CValueAccessor const & source)
{
    CStringTokenizer list(names, _T(","));
    CString name;
    while (list.GetNextString(name))
    {
        SetParam(name, source, 1);
    }
}

CString CSqlCommand::FormatValue(CStringValue value)
{
    if (value.IsEmpty())
    {
        return _T("''");
    }
    if (value.CompareNoCase(_T("NULL")) == 0 || value.CompareNoCase(_T("\"NULL\"")) == 0)
    {
        return value;
    }
    if (std::ranges::all_of(value.AsView(), [](WCHAR c) { return c >= '0' && c <= '9'; }))
    {
        return value;
    }
    value.Replace(_T("'"), _T("''"));
    return _T("'") + value + _T("'");
}

void CSqlCommand::BuildConditionPhrase(CString & phrase, CValueAccessor const * values)
{
    if (!phrase.IsEmpty())
    {
        return;
    }
    CValueAccessor const & source = values ? *values : m_params;
    CString name;
    CString value;
    for (POSITION pos = source.GetStartValuePosition(); pos;)
    {
        source.GetNextValue(pos, name, value);
        if (!value.IsEmpty())
        {
            Join(phrase, _T(" and "), name + _T("=") + FormatValue(value));
        }
    }
}

CMsgResults CSqlCommand::Select(CString const & table, CString const & columns, CString where, CString orderBy)
{
    BuildConditionPhrase(where, nullptr);
    if (!orderBy.IsEmpty())
    {
        orderBy = _T(" order by ") + orderBy;
    }
    return Execute(where.IsEmpty() ? Formatted(SELECT_ALL, columns, table, orderBy)
                                   : Formatted(SELECT_SOME, columns, table, where, orderBy));
}

CMsgResults CSqlCommand::InsertBy(LPCTSTR format, CString const & table, int textOnly)
{
    CString columns;
    CString values;
    CString name;
    CString value;
    for (POSITION pos = m_params.GetStartValuePosition(); pos;)
    {
        m_params.GetNextValue(pos, name, value);
        if (!value.IsEmpty())
        {
            Join(columns, _T(","), name);
            Join(values, _T(","), FormatValue(value));
        }
    }
    return Finish(Formatted(format, table, columns, values), textOnly);
}

CMsgResults CSqlCommand::Insert(CString const & table, int textOnly)
{
    return InsertBy(INSERT, table, textOnly);
}

CMsgResults CSqlCommand::InsertOrReplace(CString const & table, int textOnly)
{
    return InsertBy(INSERT_OR_REPLACE, table, textOnly);
}

CMsgResults CSqlCommand::Update(CString const & table, CString const & where, int textOnly)
{
    CString assignments;
    CString name;
    CString value;
    for (POSITION pos = m_params.GetStartValuePosition(); pos;)
    {
        m_params.GetNextValue(pos, name, value);
        Join(assignments, _T(","), name + _T("=") + FormatValue(value));
    }
    return Finish(where.IsEmpty() ? Formatted(UPDATE_ALL, table, assignments)
                                  : Formatted(UPDATE_SOME, table, assignments, where),
                  textOnly);
}

CMsgResults CSqlCommand::Update(CString const & table, CValueAccessor const * whereValues, int textOnly)
{
    CString where;
    if (whereValues)
    {
        BuildConditionPhrase(where, whereValues);
    }
    return Update(table, where, textOnly);
}

CMsgResults CSqlCommand::Delete(CString const & table, int textOnly)
{
    CString where;
    BuildConditionPhrase(where, nullptr);
    return Finish(where.IsEmpty() ? Formatted(DELETE_ALL, table) : Formatted(DELETE_SOME, table, where), textOnly);
}

CMsgResults CSqlCommand::Finish(CString const & statement, int textOnly)
{
    if (!textOnly)
    {
        return Execute(statement);
    }
    CMsgResults results;
    results[_T("sql")] = statement;
    if (m_bAutoReset)
    {
        ResetParams();
    }
    return results;
}

CMsgResults CSqlCommand::ExecuteFormat(LPCTSTR format, FormatArgs const & args)
{
    CString statement;
    try
    {
        statement.FormatV(format, args);
    }
    catch (CInvalidArgException * failure)
    {
        failure->Delete();
        CMsgResults results;
        results.SetError(ERROR_INVALID_PARAMETER, _T("The format of the statement and its arguments don't agree: %s"),
                         format ? format : _T(""));
        return results;
    }
    return Execute(statement);
}

CMsgResults CSqlCommand::Execute(CString const & statement)
{
    if (m_bAutoReset)
    {
        ResetParams();
    }
    CMsgRequest request;
    request[_T("sql")] = statement;
    return Send(request, _T("exec_sql"));
}

CMsgResults CSqlCommand::ExecuteWithValues(CString const & statement)
{
    CMsgRequest request;
    request.SetParams(m_params);
    request[_T("sql")] = statement;
    if (m_bAutoReset)
    {
        ResetParams();
    }
    return Send(request, _T("exec_sql"));
}

CMsgResults CSqlCommand::Call(CString const & procedure)
{
    CMsgRequest request;
    request.SetParams(m_params);
    if (m_bAutoReset)
    {
        ResetParams();
    }
    return Send(request, procedure);
}

CMsgResults CSqlCommand::Send(CMsgRequest & request, LPCTSTR command)
{
    return CMsgResults(request.Execute(m_strProvider + _T(".") + command));
}

void CSqlCommand::TimeToString(CTime const & time, CString & text)
{
    text = time.Format(TIME_FORM);
}

void CSqlCommand::TimeToString(COleDateTime const & time, CString & text)
{
    text = time.Format(TIME_FORM);
}

int CSqlCommand::StringToTime(CString const & text, CTime & time)
{
    auto const numbers = CTimeScanner(text.AsView()).Scan();
    if (numbers)
    {
        auto const [year, month, day, hour, minute, second] = *numbers;
        time = CTime(year, month, day, hour, minute, second);
    }
    return numbers.has_value();
}

int CSqlCommand::StringToTime(CString const & text, COleDateTime & time)
{
    auto const numbers = CTimeScanner(text.AsView()).Scan();
    if (numbers)
    {
        auto const [year, month, day, hour, minute, second] = *numbers;
        time.SetDateTime(year, month, day, hour, minute, second);
    }
    return numbers.has_value();
}
