#include "kvx/platform/win32/urls.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/utf8.h"

#include <algorithm>
#include <new>
#include <string>
#include <string_view>

using namespace kvx::win32;

namespace
{

using View = std::u16string_view;

struct Scheme
{
    View name;
    INTERNET_SCHEME nScheme;
    INTERNET_PORT nPort;
    bool bHost; // wants one
};

constexpr Scheme SCHEMES[] = {
    {u"http", INTERNET_SCHEME_HTTP, 80, true},     {u"https", INTERNET_SCHEME_HTTPS, 443, true},
    {u"ftp", INTERNET_SCHEME_FTP, 21, true},       {u"gopher", INTERNET_SCHEME_GOPHER, 70, true},
    {u"file", INTERNET_SCHEME_FILE, 0, false},     {u"news", INTERNET_SCHEME_NEWS, 0, false},
    {u"mailto", INTERNET_SCHEME_MAILTO, 0, false},
};
constexpr Scheme UNKNOWN{u"", INTERNET_SCHEME_UNKNOWN, 0, false};

constexpr DWORD FLAGS = ICU_DECODE | ICU_ESCAPE;

bool IsLetter(WCHAR c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool IsDigit(WCHAR c)
{
    return c >= '0' && c <= '9';
}

int ValueOf(WCHAR c)
{
    if (IsDigit(c))
    {
        return c - '0';
    }
    WCHAR const nLower = static_cast<WCHAR>(c | 0x20);
    return nLower >= 'a' && nLower <= 'f' ? nLower - 'a' + 10 : -1;
}

bool EqualNoCase(View a, View b)
{
    auto const lower = [](WCHAR c) { return IsLetter(c) ? static_cast<WCHAR>(c | 0x20) : c; };
    return std::ranges::equal(a, b, {}, lower, lower);
}

Scheme const & FindScheme(View name)
{
    auto const found = std::ranges::find_if(SCHEMES, [&](Scheme const & s) { return EqualNoCase(s.name, name); });
    return found == std::end(SCHEMES) ? UNKNOWN : *found;
}

struct Parts
{
    View scheme;
    View user;
    View password;
    View host;
    View path;
    View extra;
    Scheme const * pScheme = &UNKNOWN;
    INTERNET_PORT nPort = 0;
};

/// What is in front of the first of these characters; `rest` keeps the others.
View TakeUntil(View & rest, View characters)
{
    View const taken = rest.substr(0, rest.find_first_of(characters));
    rest.remove_prefix(taken.size());
    return taken;
}

/// 0 or an error.
LONG SplitAuthority(View authority, Parts & parts)
{
    if (std::size_t const nAt = authority.rfind(u'@'); nAt != View::npos)
    {
        View user = authority.substr(0, nAt);
        parts.user = TakeUntil(user, u":");
        parts.password = user.empty() ? user : user.substr(1);
        authority.remove_prefix(nAt + 1);
    }
    // The colons within the brackets of an address part nothing.
    std::size_t const nBracket = authority.starts_with(u'[') ? authority.find(u']') : 0;
    if (nBracket == View::npos)
    {
        return ERROR_INTERNET_INVALID_URL;
    }
    View port = authority.substr(nBracket);
    parts.host = authority.substr(0, nBracket + TakeUntil(port, u":").size());
    unsigned nPort = 0;
    for (WCHAR const c : port.empty() ? port : port.substr(1))
    {
        nPort = nPort * 10 + c - u'0';
        if (!IsDigit(c) || nPort > 0xFFFF)
        {
            return ERROR_INTERNET_INVALID_URL;
        }
    }
    parts.nPort = port.size() > 1 ? static_cast<INTERNET_PORT>(nPort) : parts.pScheme->nPort;
    return parts.host.empty() && parts.pScheme->bHost ? ERROR_INTERNET_INVALID_URL : 0;
}

/// 0 or an error.
LONG Split(View url, Parts & parts)
{
    View rest = url;
    parts.scheme = TakeUntil(rest, u":");
    auto const inScheme = [](WCHAR c) { return IsLetter(c) || IsDigit(c) || c == '+' || c == '-' || c == '.'; };
    // One letter is a drive.
    if (rest.empty() || parts.scheme.size() < 2 || !IsLetter(parts.scheme[0]) ||
        !std::ranges::all_of(parts.scheme, inScheme))
    {
        return ERROR_INTERNET_UNRECOGNIZED_SCHEME;
    }
    rest.remove_prefix(1);
    parts.pScheme = &FindScheme(parts.scheme);
    parts.nPort = parts.pScheme->nPort;
    LONG nError = parts.pScheme->bHost ? ERROR_INTERNET_INVALID_URL : 0;
    if (rest.starts_with(u"//"))
    {
        rest.remove_prefix(2);
        nError = SplitAuthority(TakeUntil(rest, u"/\\?#"), parts);
    }
    parts.path = TakeUntil(rest, u"?#");
    parts.extra = rest;
    return nError;
}

std::u16string Decode(View text)
{
    std::u16string decoded;
    std::string bytes; // of escapes in a row
    auto const isEscape = [&](std::size_t i)
    { return text.size() - i > 2 && text[i] == '%' && ValueOf(text[i + 1]) >= 0 && ValueOf(text[i + 2]) >= 0; };
    for (std::size_t i = 0; i < text.size();)
    {
        if (!isEscape(i))
        {
            decoded += text[i++];
            continue;
        }
        bytes.clear();
        for (; i < text.size() && isEscape(i); i += 3)
        {
            bytes += static_cast<char>(ValueOf(text[i + 1]) << 4 | ValueOf(text[i + 2]));
        }
        for (std::size_t n = 0; n < bytes.size();)
        {
            DecodedChar const c = DecodeUtf8Char(bytes, n);
            char16_t units[2];
            std::size_t const nUnits =
                EncodeUtf16Char(c.bValid ? c.nChar : static_cast<unsigned char>(bytes[n]), units);
            decoded.append(units, nUnits);
            n += c.bValid ? c.nBytes : 1;
        }
    }
    return decoded;
}

/// What may not stand in any part; in front of a host there are characters that would part it from them.
constexpr View UNSAFE = u" \"%<>[\\]^`{|}";
constexpr View UNSAFE_USER = u" \"%<>[\\]^`{|}:/?#@";
constexpr View UNSAFE_PATH = u" \"%<>[\\]^`{|}?#";

void AppendEscaped(std::u16string & url, View text, View unsafe)
{
    constexpr char DIGITS[] = "0123456789ABCDEF";
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        char32_t c = text[i];
        if (c > 0x20 && c < 0x7F && unsafe.find(text[i]) == View::npos)
        {
            url += text[i];
            continue;
        }
        if (IsHighSurrogate(text[i]) && i + 1 < text.size() && IsLowSurrogate(text[i + 1]))
        {
            c = JoinSurrogates(text[i], text[i + 1]);
            ++i;
        }
        else if ((c & 0xF800) == 0xD800)
        {
            c = REPLACEMENT;
        }
        char bytes[4];
        std::size_t const nBytes = EncodeUtf8Char(c, bytes);
        for (std::size_t n = 0; n < nBytes; ++n)
        {
            auto const nByte = static_cast<unsigned char>(bytes[n]);
            url += u'%';
            url += static_cast<WCHAR>(DIGITS[nByte >> 4]);
            url += static_cast<WCHAR>(DIGITS[nByte & 15]);
        }
    }
}

/// A part that goes to the caller.
struct Given
{
    LPWSTR & pTarget;
    DWORD & nLength;
    View part;
    bool bDecode;
    std::u16string decoded{};

    bool IsWanted() const { return pTarget || nLength > 0; }
};

View ToView(LPCWSTR pszText, DWORD nLength)
{
    return !pszText ? View() : nLength > 0 ? View(pszText, nLength) : View(pszText);
}

} // namespace

BOOL InternetCrackUrlW(LPCWSTR pszUrl, DWORD nLength, DWORD dwFlags, URL_COMPONENTSW * pParts)
try
{
    if (!pszUrl || !pParts || pParts->dwStructSize != sizeof(URL_COMPONENTSW) || (dwFlags & ~FLAGS) != 0)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    View url = ToView(pszUrl, nLength);
    url = url.substr(0, url.find(u'\0'));
    if (url.empty())
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    Parts parts;
    if (LONG const nError = Split(url, parts); nError != 0)
    {
        return Refuse(nError);
    }
    bool const bExtra = pParts->lpszExtraInfo || pParts->dwExtraInfoLength > 0;
    if (!bExtra)
    {
        parts.path = View(parts.path.data(), parts.path.size() + parts.extra.size());
    }

    bool const bDecode = dwFlags != 0;
    Given all[] = {
        {pParts->lpszScheme, pParts->dwSchemeLength, parts.scheme, false},
        {pParts->lpszHostName, pParts->dwHostNameLength, parts.host, false},
        {pParts->lpszUserName, pParts->dwUserNameLength, parts.user, bDecode},
        {pParts->lpszPassword, pParts->dwPasswordLength, parts.password, bDecode},
        {pParts->lpszUrlPath, pParts->dwUrlPathLength, parts.path, bDecode},
        {pParts->lpszExtraInfo, pParts->dwExtraInfoLength, parts.extra, bDecode},
    };
    if (bDecode && std::ranges::any_of(all, [](Given const & part) { return !part.pTarget && part.nLength > 0; }))
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    bool bFits = true;
    for (Given & part : all)
    {
        part.decoded = part.bDecode ? Decode(part.part) : std::u16string(part.part);
        if (part.pTarget && part.nLength <= part.decoded.size())
        {
            part.nLength = static_cast<DWORD>(part.decoded.size() + 1);
            bFits = false;
        }
    }
    if (!bFits)
    {
        return Refuse(ERROR_INSUFFICIENT_BUFFER);
    }
    for (Given & part : all)
    {
        if (!part.IsWanted())
        {
            continue;
        }
        if (part.pTarget)
        {
            *std::ranges::copy(part.decoded, part.pTarget).out = 0;
        }
        else
        {
            part.pTarget = const_cast<LPWSTR>(part.part.data());
        }
        part.nLength = static_cast<DWORD>(part.decoded.size());
    }
    pParts->nScheme = parts.pScheme->nScheme;
    pParts->nPort = parts.nPort;
    return TRUE;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL InternetCreateUrlW(URL_COMPONENTSW * pParts, DWORD dwFlags, LPWSTR pszUrl, DWORD * pnLength)
try
{
    if (!pParts || !pnLength || pParts->dwStructSize != sizeof(URL_COMPONENTSW) || (dwFlags & ~FLAGS) != 0)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    View scheme = ToView(pParts->lpszScheme, pParts->dwSchemeLength);
    if (scheme.empty())
    {
        auto const found = std::ranges::find(SCHEMES, pParts->nScheme, &Scheme::nScheme);
        if (found == std::end(SCHEMES))
        {
            return Refuse(ERROR_INVALID_PARAMETER);
        }
        scheme = found->name;
    }
    Scheme const & known = FindScheme(scheme);
    View const host = ToView(pParts->lpszHostName, pParts->dwHostNameLength);
    View const user = ToView(pParts->lpszUserName, pParts->dwUserNameLength);
    View const path = ToView(pParts->lpszUrlPath, pParts->dwUrlPathLength);
    View const password = ToView(pParts->lpszPassword, pParts->dwPasswordLength);
    if (user.empty() && !password.empty())
    {
        return Refuse(ERROR_INVALID_PARAMETER); // it would be lost
    }
    std::u16string url(scheme);
    url += u':';
    auto const append = [&](View text, View unsafe)
    {
        if (dwFlags & ICU_ESCAPE)
        {
            AppendEscaped(url, text, unsafe);
        }
        else
        {
            url += text;
        }
    };
    // Two slashes at the begin of a path would be read as a host's.
    if (!host.empty() || known.nScheme == INTERNET_SCHEME_FILE || path.starts_with(u"//"))
    {
        url += u"//";
        if (!user.empty())
        {
            append(user, UNSAFE_USER);
            if (pParts->lpszPassword)
            {
                url += u':';
                append(password, UNSAFE_USER);
            }
            url += u'@';
        }
        url += host;
        if (pParts->nPort != 0 && pParts->nPort != known.nPort)
        {
            url += u':';
            for (char const c : std::to_string(pParts->nPort))
            {
                url += static_cast<WCHAR>(c);
            }
        }
        if (!path.empty() && path[0] != '/')
        {
            url += u'/';
        }
    }
    append(path, UNSAFE_PATH);
    append(ToView(pParts->lpszExtraInfo, pParts->dwExtraInfoLength), UNSAFE);
    if (!pszUrl || *pnLength <= url.size())
    {
        *pnLength = static_cast<DWORD>(url.size() + 1);
        return Refuse(ERROR_INSUFFICIENT_BUFFER);
    }
    *std::ranges::copy(url, pszUrl).out = 0;
    *pnLength = static_cast<DWORD>(url.size());
    return TRUE;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}
