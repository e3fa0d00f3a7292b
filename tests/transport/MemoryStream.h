#pragma once

#include "kvx/transport/MsgStream.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// A stream on memory: what is written can be read. With a piece size bytes are read as a connection reads them, by way
/// of a buffer for so many.
class CMemoryStream : public CMsgStream
{
public:
    explicit CMemoryStream(int unicode = 1, std::size_t piece = 0) : CMsgStream(unicode), m_nPiece(piece) {}
    ~CMemoryStream() override { DeleteCompact(); }

    int ReadData(void * buffer, DWORD count) override
    {
        auto * to = static_cast<BYTE *>(buffer);
        while (count > 0)
        {
            if (m_pReadNext == m_pReadEnd && !Fill(m_nPiece == 0 ? count : m_nPiece))
            {
                SetLastError(WSAEDISCON);
                return 0;
            }
            auto const step = std::min(count, static_cast<DWORD>(m_pReadEnd - m_pReadNext));
            to = std::copy_n(m_pReadNext, step, to);
            m_pReadNext += step;
            count -= step;
        }
        return 1;
    }
    int WriteData(void const * buffer, DWORD count) override
    {
        auto const * const from = static_cast<BYTE const *>(buffer);
        m_bytes.insert(m_bytes.end(), from, from + count);
        return 1;
    }

    /// Other bytes to read, from their start.
    void SetBytes(std::vector<BYTE> bytes)
    {
        m_bytes = std::move(bytes);
        Rewind();
    }
    void Rewind()
    {
        m_nPos = 0;
        m_pReadNext = m_pReadEnd = nullptr;
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
        Rewind();
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

private:
    std::size_t m_nPiece;
    std::size_t m_nPos = 0;     // behind the buffer
    std::vector<BYTE> m_buffer; // of its own size each time, so that a sanitizer sees a step beyond its end

    bool Fill(std::size_t count)
    {
        count = std::min(count, m_bytes.size() - m_nPos);
        auto const from = m_bytes.begin() + static_cast<std::ptrdiff_t>(m_nPos);
        m_buffer = std::vector<BYTE>(from, from + static_cast<std::ptrdiff_t>(count));
        m_nPos += count;
        m_pReadNext = m_buffer.data();
        m_pReadEnd = m_pReadNext + count;
        return count > 0;
    }
};

/// Hexadecimal text without its blanks.
inline std::string Hex(std::string text)
{
    std::erase(text, ' ');
    return text;
}
