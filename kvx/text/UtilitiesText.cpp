#include "kvx/foundation/Utilities.h"
#include "kvx/foundation/ValueAccessor.h"

#include <algorithm>

int CUtilities::SplitString(CString text, CString & left, CString & right, CString const & delimiter, int fromEnd)
{
    CString::View const view = text;
    std::size_t const found = fromEnd ? view.rfind(delimiter.AsView()) : view.find(delimiter.AsView());
    if (found == CString::View::npos)
    {
        left = text;
        right.Empty();
        return -1;
    }
    int const at = static_cast<int>(found);
    left = text.Left(at);
    right = text.Mid(at + delimiter.GetLength());
    return at;
}

LPCTSTR CUtilities::FindLastSubstring(LPCTSTR text, LPCTSTR part)
{
    if (!text || !part)
    {
        return nullptr;
    }
    std::size_t const found = CString::View(text).rfind(part);
    return found == CString::View::npos ? nullptr : text + found;
}

int CUtilities::TokenizeCommandLine(LPCTSTR line, CStringArray & tokens)
{
    CString::View rest = line ? CString::View(line) : CString::View();
    auto const isSpace = [](WCHAR c) { return kvx::IsSpace(c); };
    auto const wordEnd = [&] { return static_cast<std::size_t>(std::ranges::find_if(rest, isSpace) - rest.begin()); };
    for (;;)
    {
        rest.remove_prefix(static_cast<std::size_t>(std::ranges::find_if_not(rest, isSpace) - rest.begin()));
        if (rest.empty())
        {
            break;
        }
        if (rest.front() == '"')
        {
            rest.remove_prefix(1);
            std::size_t const end = std::min(rest.find('"'), rest.size());
            tokens.Add(CString(rest.substr(0, end)));
            rest.remove_prefix(std::min(end + 1, rest.size()));
            rest.remove_prefix(wordEnd()); // what sticks to the closing quote is no part of anything
        }
        else
        {
            std::size_t const end = wordEnd();
            tokens.Add(CString(rest.substr(0, end)));
            rest.remove_prefix(end);
        }
    }
    return static_cast<int>(tokens.GetSize());
}

int CUtilities::TokenizeCommandLine(LPCTSTR line, CValueAccessor & values)
{
    CStringArray tokens;
    int const count = TokenizeCommandLine(line, tokens);
    values.RemoveAllValues();
    for (int i = 0; i < count; ++i)
    {
        CString token = tokens.GetAt(i);
        token.TrimLeft(_T("-/"));
        int const equals = token.Find(_T('='));
        if (equals > 0)
        {
            values.CreateValue(token.Left(equals)) = token.Mid(equals + 1);
        }
        else
        {
            values.CreateValue(token) = 1;
        }
    }
    return values.GetValueCount();
}
