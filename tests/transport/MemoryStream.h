#pragma once

#include "kvx/transport/MsgStream.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// A stream on memory: what is written can be read.
class CMemoryStream : public CMsgStream
{
public:
    explicit CMemoryStream(int unicode = 1) : CMsgStream(unicode) {}
    ~CMemoryStream() override { DeleteCompact(); }

    int ReadData(void * buffer, DWORD count) override
    {
        if (count > m_bytes.size() - m_nPos)
        {
            SetLastError(WSAEDISCON);
            return 0;
        }
        std::copy_n(m_bytes.begin() + static_cast<std::ptrdiff_t>(m_nPos), count, static_cast<BYTE *>(buffer));
        m_nPos += count;
        return 1;
    }
    int WriteData(void const * buffer, DWORD count) override
    {
        auto const * const from = static_cast<BYTE const *>(buffer);
        m_bytes.insert(m_bytes.end(), from, from + count);
        return 1;
    }

    /// The bytes as hexadecimal digits in groups of `bytes`, and the reverse.
    std::string ToHex() const
    {
        std::string text;
        for (BYTE const b : m_bytes)
        {
            text += "0123456789ABCDEF"[b >> 4];
            text += "0123456789ABCDEF"[b & 15];
        }
        return text;
    }
    void SetHex(std::string_view text)
    {
        m_bytes.clear();
        m_nPos = 0;
        int digits = 0;
        BYTE value = 0;
        for (char const c : text)
        {
            auto const digit = std::string_view("0123456789ABCDEF").find(c);
            if (digit != std::string_view::npos)
            {
                value = static_cast<BYTE>(value << 4 | digit);
                if (++digits % 2 == 0)
                {
                    m_bytes.push_back(value);
                }
            }
        }
    }

    std::vector<BYTE> m_bytes;
    std::size_t m_nPos = 0;
};

/// Hexadecimal text without its blanks.
inline std::string Hex(std::string text)
{
    std::erase(text, ' ');
    return text;
}
