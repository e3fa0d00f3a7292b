#include "kvx/cabinet/CabSource.h"

#include "kvx/cabinet/OpenFlags.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace kvx::cabinet
{
bool CabSource::Open(char const * path)
{
    Close();
    std::string name = path; // the callback takes a text that it may write to
    m_handle = m_callbacks.open(name.data(), OPEN_BINARY, OPEN_PERMISSION_READ);
    return IsOpen();
}

bool CabSource::Attach(INT_PTR hf)
{
    Close();
    m_handle = hf;
    m_isAttached = true;
    m_base = m_callbacks.seek(hf, 0, SEEK_CUR);
    return m_base >= 0;
}

void CabSource::Close()
{
    if (IsOpen() && !m_isAttached)
    {
        m_callbacks.close(m_handle);
    }
    m_handle = -1;
    m_isAttached = false;
    m_base = 0;
}

std::uint64_t CabSource::GetSize() const
{
    LONG const end = m_callbacks.seek(m_handle, 0, SEEK_END);
    return end > m_base ? static_cast<std::uint64_t>(end - m_base) : 0;
}

std::size_t CabSource::ReadAt(std::uint32_t offset, void * target, std::size_t size)
{
    constexpr std::int64_t MAX_POSITION = 0x7FFFFFFF; // callbacks tell positions in a LONG
    std::int64_t const position = m_base + static_cast<std::int64_t>(offset);
    if (!IsOpen() || position > MAX_POSITION)
    {
        return 0;
    }
    if (m_callbacks.seek(m_handle, static_cast<LONG>(position), SEEK_SET) != position)
    {
        return 0;
    }
    std::size_t total = 0;
    while (total < size)
    {
        UINT const wanted = static_cast<UINT>(size - total);
        UINT const count = m_callbacks.read(m_handle, static_cast<std::uint8_t *>(target) + total, wanted);
        if (count == 0 || count > wanted) // above: the callback's -1
        {
            break;
        }
        total += count;
    }
    return total;
}

void CabBuffer::Start(CabSource & source, std::uint32_t offset)
{
    m_source = &source;
    m_offset = offset;
    m_at = 0;
    m_end = 0;
}

void CabBuffer::GoTo(std::uint32_t offset)
{
    if (offset >= m_offset && offset - m_offset <= m_end)
    {
        m_at = offset - m_offset;
        return;
    }
    Start(*m_source, offset);
}

bool CabBuffer::Fill(std::size_t size)
{
    if (m_end - m_at >= size)
    {
        return true;
    }
    std::memmove(m_bytes.data(), m_bytes.data() + m_at, m_end - m_at);
    m_offset += static_cast<std::uint32_t>(m_at);
    m_end -= m_at;
    m_at = 0;
    m_end +=
        m_source->ReadAt(m_offset + static_cast<std::uint32_t>(m_end), m_bytes.data() + m_end, m_bytes.size() - m_end);
    return m_end >= size;
}

std::uint8_t const * CabBuffer::Read(std::size_t size)
{
    if (size > m_bytes.size() || !Fill(size))
    {
        return nullptr;
    }
    m_at += size;
    return m_bytes.data() + m_at - size;
}

char * CabBuffer::ReadText(std::size_t maxLength)
{
    Fill(maxLength + 1); // near the end there may be less
    std::size_t const held = std::min(m_end - m_at, maxLength + 1);
    std::uint8_t * const begin = m_bytes.data() + m_at;
    std::uint8_t * const end = std::find(begin, begin + held, 0);
    if (end == begin + held)
    {
        return nullptr;
    }
    m_at += static_cast<std::size_t>(end - begin) + 1;
    return reinterpret_cast<char *>(begin);
}

FDIERROR CabHeader::Read(CabSource & source, CabBuffer & buffer)
{
    buffer.Start(source, 0);
    std::uint8_t const * const fields = buffer.Read(HEADER_SIZE);
    if (!fields || std::memcmp(fields, SIGNATURE, sizeof SIGNATURE) != 0)
    {
        return FDIERROR_NOT_A_CABINET;
    }
    if (fields[24] != VERSION_MINOR || fields[25] != VERSION_MAJOR)
    {
        return FDIERROR_UNKNOWN_CABINET_VERSION;
    }
    size = GetDword(fields + 8);
    filesAt = GetDword(fields + 16);
    folders = GetWord(fields + 26);
    files = GetWord(fields + 28);
    flags = GetWord(fields + 30);
    setID = GetWord(fields + 32);
    number = GetWord(fields + 34);
    folderReserve = 0;
    blockReserve = 0;
    if (flags & FLAG_RESERVE)
    {
        std::uint8_t const * const sizes = buffer.Read(RESERVE_SIZES_SIZE);
        if (!sizes)
        {
            return FDIERROR_CORRUPT_CABINET;
        }
        folderReserve = sizes[2];
        blockReserve = sizes[3];
        buffer.GoTo(buffer.GetOffset() + GetWord(sizes));
    }
    auto const readNames = [&](std::uint16_t flag, char * name, char * disk)
    {
        for (char * target : {name, disk})
        {
            *target = 0;
            if (flags & flag)
            {
                char const * const text = buffer.ReadText(MAX_NAME);
                if (!text)
                {
                    return false;
                }
                std::strcpy(target, text);
            }
        }
        return true;
    };
    if (!readNames(FLAG_PREVIOUS, previousName, previousDisk) || !readNames(FLAG_NEXT, nextName, nextDisk))
    {
        return FDIERROR_CORRUPT_CABINET;
    }
    foldersAt = buffer.GetOffset();
    return FDIERROR_NONE;
}
} // namespace kvx::cabinet
