#pragma once

/// Character tests and case mapping, the same on every host and in every locale of the process: the tests of
/// the C locale, and Unicode simple case mapping (one unit to one unit; surrogates map to themselves).

#include "kvx/platform/host.h"

namespace kvx
{
KVX_API WCHAR ToLowerSlow(WCHAR c);
KVX_API WCHAR ToUpperSlow(WCHAR c);

inline WCHAR ToLower(WCHAR c)
{
    if (c < 0x80)
    {
        return c >= 'A' && c <= 'Z' ? static_cast<WCHAR>(c + 32) : c;
    }
    return ToLowerSlow(c);
}

inline WCHAR ToUpper(WCHAR c)
{
    if (c < 0x80)
    {
        return c >= 'a' && c <= 'z' ? static_cast<WCHAR>(c - 32) : c;
    }
    return ToUpperSlow(c);
}

inline char ToLower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

inline char ToUpper(char c)
{
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
}

/// White space of the C locale: blank, tab, line feed, vertical tab, form feed, carriage return.
template <class XCHAR>
constexpr bool IsSpace(XCHAR c)
{
    return c == ' ' || (c >= 9 && c <= 13);
}

template <class XCHAR>
constexpr bool IsDigit(XCHAR c)
{
    return c >= '0' && c <= '9';
}

/// Printable in the C locale: 0x20 to 0x7E.
template <class XCHAR>
constexpr bool IsPrint(XCHAR c)
{
    return c >= 0x20 && c <= 0x7E;
}
} // namespace kvx
