#include "kvx/text/RegExp.h"

#include "kvx/text/RegExpProgram.h"

#include <algorithm>
#include <new>
#include <string_view>

namespace
{
std::string_view BytesOf(CStringA const & text)
{
    return {text.GetString(), static_cast<std::size_t>(text.GetLength())};
}

// Up to the first byte that is 0.
std::string_view BytesOf(CStringW const & text)
{
    std::string_view const all(reinterpret_cast<char const *>(text.GetString()),
                               static_cast<std::size_t>(text.GetLength()) * sizeof(WCHAR));
    return all.substr(0, all.find('\0'));
}

// What the matcher throws, as callers get it.
template <class WORK>
auto Guarded(WORK work)
{
    try
    {
        return work();
    }
    catch (kvx::RegExpFault const & fault)
    {
        throw CRegExpException(fault.nError, fault.pszComplaint);
    }
    catch (std::bad_alloc const &)
    {
        throw CRegExpException(CRegExpException::outOfMemory, "out of space");
    }
}
} // namespace

CString CRegExpException::GetErrorString() const
{
    switch (m_nError)
    {
    case invalidArgument:
        return _T("invalid argument");
    case tooBig:
        return _T("regular expression too big");
    case outOfMemory:
        return _T("out of memory");
    case groups:
        return _T("parenteses () not balanced");
    case range:
        return _T("invalid character range");
    case brackets:
        return _T("brackets [] not balanced");
    case quantifier:
        return _T("quantifier operator invalid");
    case escape:
        return _T("invalid escape \\ sequence");
    case steps:
        return _T("too many steps");
    case internal:
        return _T("internal error!");
    default:
        break;
    }
    if (m_nError >= 0)
    {
        return _T("no errors detected");
    }
    CString text;
    text.Format(_T("unknown error code (0x%x)!"), 0U - static_cast<unsigned int>(m_nError));
    return text;
}

namespace kvx
{
template <class STRING>
RegExp<STRING>::RegExp(typename STRING::PCXSTR pattern)
{
    if (!pattern)
    {
        throw CRegExpException(CRegExpException::invalidArgument, "Invalid expression");
    }
    m_program = Guarded([&] { return std::make_unique<RegExpProgram const>(BytesOf(STRING(pattern))); });
    m_ranges.resize(static_cast<std::size_t>(m_program->GetGroups()));
}

template <class STRING>
RegExp<STRING>::~RegExp() = default;

template <class STRING>
int RegExp<STRING>::Exec(STRING const & subject)
{
    m_strSubject = subject;
    std::ranges::fill(m_ranges, RegExpRange());
    return Guarded([this] { return m_program->Search(BytesOf(m_strSubject), m_ranges, m_nStepLimit); });
}

template <class STRING>
int RegExp<STRING>::GetNumberOfMatches() const
{
    return static_cast<int>(m_ranges.size());
}

template <class STRING>
int RegExp<STRING>::IsMatched(int group) const
{
    return GetMatchStart(group) != -1 && GetMatchEnd(group) != -1;
}

template <class STRING>
int RegExp<STRING>::GetMatchStart(int group) const
{
    return group >= 0 && group < GetNumberOfMatches() ? m_ranges[static_cast<std::size_t>(group)].nStart : -1;
}

template <class STRING>
int RegExp<STRING>::GetMatchEnd(int group) const
{
    return group >= 0 && group < GetNumberOfMatches() ? m_ranges[static_cast<std::size_t>(group)].nEnd : -1;
}

template <class STRING>
STRING RegExp<STRING>::GetMatch(int group) const
{
    int const start = GetMatchStart(group);
    return IsMatched(group) ? m_strSubject.Mid(start, GetMatchEnd(group) - start) : STRING();
}

template class RegExp<CStringW>;
template class RegExp<CStringA>;
} // namespace kvx
