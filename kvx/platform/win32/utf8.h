#pragma once

/// Single characters of UTF-8 and UTF-16, for the code of this folder.

#include <cstddef>
#include <string_view>

namespace kvx::win32
{

inline constexpr char16_t REPLACEMENT = 0xFFFD;

constexpr bool IsHighSurrogate(char16_t c)
{
    return (c & 0xFC00) == 0xD800;
}

constexpr bool IsLowSurrogate(char16_t c)
{
    return (c & 0xFC00) == 0xDC00;
}

constexpr char32_t JoinSurrogates(char16_t nHigh, char16_t nLow)
{
    return 0x10000 + ((static_cast<char32_t>(nHigh) & 0x3FF) << 10) + (nLow & 0x3FFu);
}

/// Writes up to two units and returns their number.
constexpr std::size_t EncodeUtf16Char(char32_t c, char16_t * pUnits)
{
    if (c < 0x10000)
    {
        pUnits[0] = static_cast<char16_t>(c);
        return 1;
    }
    pUnits[0] = static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
    pUnits[1] = static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    return 2;
}

/// Writes up to four bytes and returns their number.
constexpr std::size_t EncodeUtf8Char(char32_t c, char * pBytes)
{
    std::size_t n = 0;
    if (c < 0x80)
    {
        pBytes[n++] = static_cast<char>(c);
        return n;
    }
    if (c < 0x800)
    {
        pBytes[n++] = static_cast<char>(0xC0 | (c >> 6));
    }
    else
    {
        if (c < 0x10000)
        {
            pBytes[n++] = static_cast<char>(0xE0 | (c >> 12));
        }
        else
        {
            pBytes[n++] = static_cast<char>(0xF0 | (c >> 18));
            pBytes[n++] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        }
        pBytes[n++] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    }
    pBytes[n++] = static_cast<char>(0x80 | (c & 0x3F));
    return n;
}

struct DecodedChar
{
    char32_t nChar;
    std::size_t nBytes; ///< taken from the source, also for a malformed sequence
    bool bValid;
};

/// The character at `n`. A malformed sequence ends before the first byte that can't continue it, so that
/// this byte is looked at again.
constexpr DecodedChar DecodeUtf8Char(std::string_view source, std::size_t n)
{
    unsigned const nLead = static_cast<unsigned char>(source[n]);
    std::size_t nMore = 0;
    unsigned nLowest = 0x80;
    unsigned nHighest = 0xBF;
    char32_t c = 0;
    if (nLead < 0x80)
    {
        return {nLead, 1, true};
    }
    if (nLead >= 0xC2 && nLead <= 0xDF)
    {
        nMore = 1;
        c = nLead & 0x1F;
    }
    else if (nLead >= 0xE0 && nLead <= 0xEF)
    {
        nMore = 2;
        c = nLead & 0x0F;
        if (nLead == 0xE0)
        {
            nLowest = 0xA0;
        }
        if (nLead == 0xED)
        {
            nHighest = 0x9F;
        }
    }
    else if (nLead >= 0xF0 && nLead <= 0xF4)
    {
        nMore = 3;
        c = nLead & 0x07;
        if (nLead == 0xF0)
        {
            nLowest = 0x90;
        }
        if (nLead == 0xF4)
        {
            nHighest = 0x8F;
        }
    }
    else
    {
        return {REPLACEMENT, 1, false};
    }
    for (std::size_t i = 1; i <= nMore; ++i)
    {
        if (n + i >= source.size())
        {
            return {REPLACEMENT, i, false};
        }
        unsigned const nByte = static_cast<unsigned char>(source[n + i]);
        if (nByte < nLowest || nByte > nHighest)
        {
            return {REPLACEMENT, i, false};
        }
        nLowest = 0x80;
        nHighest = 0xBF;
        c = (c << 6) | (nByte & 0x3F);
    }
    return {c, nMore + 1, true};
}

} // namespace kvx::win32
