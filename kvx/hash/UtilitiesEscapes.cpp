#include "kvx/foundation/Utilities.h"

namespace
{
constexpr char HEX_DIGITS[] = "0123456789ABCDEF";

template <class STRING>
void AppendEscape(STRING & text, WCHAR c)
{
    using Unit = typename STRING::View::value_type;
    Unit const escape[] = {'%', static_cast<Unit>(HEX_DIGITS[c >> 12 & 15]), static_cast<Unit>(HEX_DIGITS[c >> 8 & 15]),
                           static_cast<Unit>(HEX_DIGITS[c >> 4 & 15]), static_cast<Unit>(HEX_DIGITS[c & 15])};
    text.Append(typename STRING::View(escape, std::size(escape)));
}
} // namespace

CString CUtilities::EncodeString(CString const & text, CString const & escapeSet, WCHAR blank)
{
    CString out;
    CString::View const set = escapeSet;
    for (WCHAR const c : text.AsView())
    {
        if (c == ' ')
        {
            out.AppendChar(blank);
        }
        else if (!kvx::IsPrint(c) || set.find(c) != CString::View::npos)
        {
            AppendEscape(out, c);
        }
        else
        {
            out.AppendChar(c);
        }
    }
    return out;
}

CString CUtilities::DecodeString(CString const & text, WCHAR blank)
{
    CString out;
    CString::View const view = text;
    for (std::size_t i = 0; i < view.size(); ++i)
    {
        if (view[i] == blank)
        {
            out.AppendChar(' ');
        }
        else if (view[i] == '%' && i + 1 < view.size())
        {
            int const digit = UnformatEscape(view[i + 1]);
            out.AppendChar(static_cast<WCHAR>(digit * 16 | digit));
            i += 2;
        }
        else
        {
            out.AppendChar(view[i]);
        }
    }
    return out;
}

CStringA CUtilities::EscapeUnicode(LPCTSTR text)
{
    CStringA out;
    for (; text && *text; ++text)
    {
        if (*text > 0xFF)
        {
            AppendEscape(out, *text);
        }
        else
        {
            out.Append(*text == '%' ? "%%" : "", *text == '%' ? 1 : 0);
            out.AppendChar(static_cast<char>(*text));
        }
    }
    return out;
}

CString CUtilities::UnescapeUnicode(char const * text)
{
    CString out;
    std::string_view const view = text ? text : "";
    for (std::size_t i = 0; i < view.size(); ++i)
    {
        WCHAR c = static_cast<unsigned char>(view[i]);
        if (c == '%' && i + 1 < view.size() && view[i + 1] == '%')
        {
            ++i;
        }
        else if (c == '%' && view.size() - i > 4)
        {
            unsigned value = 0;
            for (int digit = 0; digit < 4; ++digit)
            {
                unsigned const byte = static_cast<unsigned char>(view[++i]);
                value = value * 16 + byte - (byte >= '0' && byte <= '9' ? '0' : 0x37u);
            }
            c = static_cast<WCHAR>(value);
        }
        out.AppendChar(c);
    }
    return out;
}

CString CUtilities::FormatEscape(WCHAR c)
{
    CString out;
    AppendEscape(out, c);
    return out;
}

int CUtilities::UnformatEscape(WCHAR c)
{
    return kvx::IsDigit(c) ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : c >= 'a' && c <= 'f' ? c - 'a' + 10 : 0;
}

int CUtilities::HexStr2Int(LPCTSTR text)
{
    ULONG value = 0;
    for (; text && *text; ++text)
    {
        value = value << 4 | static_cast<ULONG>(UnformatEscape(*text));
    }
    return static_cast<int>(value);
}
