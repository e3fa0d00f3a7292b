#pragma once

/// Character tests and case mapping, the same on every host and in every locale of the process: the tests of
/// the C locale, and Unicode simple case mapping (one unit to one unit; surrogates map to themselves).

#include "kvx/platform/host.h"

#include <cstdint>
#include <cstring>
#include <string_view>

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

/// Four units in one word, each as by ToLower.
KVX_API std::uint64_t ToLowerFourSlow(std::uint64_t units);

inline std::uint64_t ToLowerFour(std::uint64_t units)
{
    constexpr std::uint64_t EACH = 0x0001000100010001;
    if (units & (0xFF80 * EACH)) [[unlikely]]
    {
        return ToLowerFourSlow(units);
    }
    // Bit 7 of each unit tells: at least 'A'; beyond 'Z'.
    std::uint64_t const fromA = units + (0x80 - 'A') * EACH;
    std::uint64_t const beyondZ = units + (0x80 - 'Z' - 1) * EACH;
    return units + ((fromA & ~beyondZ & (0x80 * EACH)) >> 2);
}

/// Whether `lower`, which is in lower case, is the lower-case form of `text`.
inline bool IsLowerOf(std::basic_string_view<WCHAR> lower, std::basic_string_view<WCHAR> text)
{
    constexpr std::size_t STEP = sizeof(std::uint64_t) / sizeof(WCHAR);
    if (lower.size() != text.size())
    {
        return false;
    }
    auto const differ = [&](std::size_t at)
    {
        std::uint64_t ours = 0;
        std::uint64_t theirs = 0;
        std::memcpy(&ours, lower.data() + at, sizeof(ours));
        std::memcpy(&theirs, text.data() + at, sizeof(theirs));
        return ours != theirs && ours != ToLowerFour(theirs);
    };
    std::size_t i = 0;
    for (; i + STEP <= text.size(); i += STEP)
    {
        if (differ(i))
        {
            return false;
        }
    }
    if (i == text.size())
    {
        return true;
    }
    if (i > 0)
    {
        return !differ(text.size() - STEP);
    }
    for (; i < text.size(); ++i)
    {
        if (lower[i] != ToLower(text[i]))
        {
            return false;
        }
    }
    return true;
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
