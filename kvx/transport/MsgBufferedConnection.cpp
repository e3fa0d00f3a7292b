#include "kvx/transport/MsgBufferedConnection.h"

#include <algorithm>

namespace
{
constexpr DWORD SMALLEST = 2048;
constexpr DWORD LARGEST_READ = 262144;
constexpr DWORD LARGEST_WRITE = 262144;
} // namespace

void CMsgBufferedConnection::ResetBuffers()
{
    m_pReadNext = m_pReadEnd = m_read.get();
    m_pWriteNext = m_write.get();
    m_bReadFull = false;
    m_nReceiveLimit = NO_LIMIT;
}

ULONGLONG CMsgBufferedConnection::GetBytesRead() const
{
    return m_nReceived - static_cast<ULONGLONG>(m_pReadEnd - m_pReadNext);
}

void CMsgBufferedConnection::LimitMessage(ULONGLONG bytes)
{
    m_nReceiveLimit = bytes == 0 ? NO_LIMIT : GetBytesRead() + bytes;
}

DWORD CMsgBufferedConnection::Receive(void * buffer, DWORD size)
{
    if (m_nReceived >= m_nReceiveLimit)
    {
        SetLastError(WSAEMSGSIZE);
        return 0;
    }
    DWORD const got = ReceiveSome(buffer, size);
    m_nReceived += got;
    return got;
}

bool CMsgBufferedConnection::FillReadBuffer()
{
    DWORD const size = m_bReadFull ? std::min(4 * m_nReadSize, LARGEST_READ) : SMALLEST;
    if (size != m_nReadSize)
    {
        m_read.reset();
        m_pReadNext = m_pReadEnd = nullptr;
        m_nReadSize = 0; // until there is memory for another
        m_read.reset(new BYTE[size]);
        m_nReadSize = size;
    }
    m_pReadNext = m_pReadEnd = m_read.get();
    DWORD const got = Receive(m_read.get(), m_nReadSize);
    m_pReadEnd = m_pReadNext + got;
    m_bReadFull = got == m_nReadSize;
    return got > 0;
}

int CMsgBufferedConnection::ReadData(void * buffer, DWORD count)
{
    // A peer that waits for what is gathered here would never answer.
    if (m_pWriteNext != m_write.get() && !FlushData())
    {
        return 0;
    }
    auto * to = static_cast<BYTE *>(buffer);
    for (;;)
    {
        auto const step = std::min(count, static_cast<DWORD>(m_pReadEnd - m_pReadNext));
        if (step > 0)
        {
            std::memcpy(to, m_pReadNext, step);
            m_pReadNext += step;
            to += step;
            count -= step;
        }
        if (count == 0)
        {
            return 1;
        }
        if (count >= LARGEST_READ)
        {
            // Long texts come straight to their place.
            DWORD const got = Receive(to, count);
            if (got == 0)
            {
                return 0;
            }
            to += got;
            count -= got;
        }
        else if (!FillReadBuffer())
        {
            return 0;
        }
    }
}

/// More room for what a message writes; false when the buffer has its full size and must be sent.
bool CMsgBufferedConnection::GrowWriteBuffer()
{
    if (m_nWriteSize >= LARGEST_WRITE)
    {
        return false;
    }
    DWORD const size = m_nWriteSize == 0 ? SMALLEST : 4 * m_nWriteSize;
    auto const used = static_cast<DWORD>(m_pWriteNext - m_write.get());
    std::unique_ptr<BYTE[]> larger(new BYTE[size]);
    if (used > 0)
    {
        std::memcpy(larger.get(), m_write.get(), used);
    }
    m_write = std::move(larger);
    m_nWriteSize = size;
    m_pWriteNext = m_write.get() + used;
    m_pWriteEnd = m_write.get() + size;
    return true;
}

int CMsgBufferedConnection::WriteData(void const * buffer, DWORD count)
{
    while (count > static_cast<std::size_t>(m_pWriteEnd - m_pWriteNext))
    {
        if (GrowWriteBuffer())
        {
            continue;
        }
        // The buffer goes out full, up to its last byte.
        auto const step = static_cast<DWORD>(m_pWriteEnd - m_pWriteNext);
        std::memcpy(m_pWriteNext, buffer, step);
        m_pWriteNext = m_write.get();
        if (!SendAll(m_write.get(), m_nWriteSize, true))
        {
            return 0;
        }
        buffer = static_cast<BYTE const *>(buffer) + step;
        count -= step;
    }
    std::memcpy(m_pWriteNext, buffer, count);
    m_pWriteNext += count;
    return 1;
}

int CMsgBufferedConnection::FlushData()
{
    auto const count = static_cast<DWORD>(m_pWriteNext - m_write.get());
    m_pWriteNext = m_write.get();
    int const bDone = count == 0 || SendAll(m_write.get(), count, false);
    if (m_nWriteSize > SMALLEST)
    {
        m_write.reset();
        m_nWriteSize = 0;
        m_pWriteNext = m_pWriteEnd = nullptr;
    }
    return bDone;
}
