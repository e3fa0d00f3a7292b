#include "SqlValues.h"

#include <functional>
#include <utility>

bool IsWellFormed(CString::View text)
{
    for (std::size_t i = 0; i < text.size(); ++i)
    {
        bool const bHigh = (text[i] & 0xFC00) == 0xD800;
        if (bHigh && i + 1 < text.size() && (text[i + 1] & 0xFC00) == 0xDC00)
        {
            ++i;
        }
        else if (bHigh || (text[i] & 0xFC00) == 0xDC00)
        {
            return false;
        }
    }
    return true;
}

CString ToHexLiteral(BYTE const * bytes, int count)
{
    constexpr std::string_view DIGITS = "0123456789ABCDEF";
    CString text;
    WCHAR * const buffer = text.GetBufferSetLength(2 * count + 3);
    WCHAR * at = buffer;
    *at++ = 'X';
    *at++ = '\'';
    for (int i = 0; i < count; ++i)
    {
        *at++ = static_cast<WCHAR>(DIGITS[bytes[i] >> 4]);
        *at++ = static_cast<WCHAR>(DIGITS[bytes[i] & 15]);
    }
    *at = '\'';
    return text;
}

std::optional<std::vector<BYTE>> FromHexLiteral(CString::View text)
{
    if (text.size() >= 3 && (text.front() == 'X' || text.front() == 'x') && text[1] == '\'' && text.back() == '\'')
    {
        text = text.substr(2, text.size() - 3);
    }
    auto const digit = [](WCHAR c)
    {
        return c >= '0' && c <= '9'   ? c - '0'
               : c >= 'A' && c <= 'F' ? c - 'A' + 10
               : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                      : -1;
    };
    std::vector<BYTE> bytes(text.size() / 2);
    for (std::size_t i = 0; i < bytes.size(); ++i)
    {
        int const high = digit(text[2 * i]);
        int const low = digit(text[2 * i + 1]);
        if (high < 0 || low < 0)
        {
            return std::nullopt;
        }
        bytes[i] = static_cast<BYTE>(16 * high + low);
    }
    return text.size() % 2 == 0 ? std::optional(std::move(bytes)) : std::nullopt;
}

CString CTextCache::Get(std::string_view bytes)
{
    constexpr std::size_t LENGTH_MAX = 64;
    constexpr std::size_t ENTRIES = 1024;
    constexpr std::size_t TRIAL = 1000; // look-ups, of which half must have found something
    if (bytes.size() > LENGTH_MAX || bytes.empty() || (m_nLookups >= TRIAL && m_nHits < m_nLookups / 2))
    {
        return kvx::FromUtf8(bytes);
    }
    m_entries.resize(ENTRIES);
    Entry & entry = m_entries[std::hash<std::string_view>()(bytes) % ENTRIES];
    ++m_nLookups;
    if (entry.strBytes == bytes)
    {
        ++m_nHits;
        return entry.strText;
    }
    entry.strText = kvx::FromUtf8(bytes);
    entry.strBytes = bytes;
    return entry.strText;
}
