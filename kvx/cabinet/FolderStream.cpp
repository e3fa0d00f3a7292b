#include "kvx/cabinet/FolderStream.h"

#include "kvx/cabinet/lzx/LzxDecoder.h"
#include "kvx/cabinet/mszip/MszipDecoder.h"

#include <algorithm>
#include <cstring>

namespace kvx::cabinet
{
namespace
{
// Holds a block with its header and reserve, and on average some more, so that few reads have little left to move.
constexpr std::size_t BLOCKS_BUFFER = 4 * BLOCK_SIZE;

class Storer : public FolderDecoder
{
public:
    bool Decode(std::span<std::uint8_t const> data, std::span<std::uint8_t> out) override
    {
        if (data.size() != out.size())
        {
            return false;
        }
        std::copy(data.begin(), data.end(), out.begin());
        return true;
    }
};
} // namespace

FDIERROR FolderPart::Read(CabBuffer & buffer, std::uint16_t folder)
{
    buffer.GoTo(header.foldersAt + folder * static_cast<std::uint32_t>(FOLDER_SIZE + header.folderReserve));
    std::uint8_t const * const entry = buffer.Read(FOLDER_SIZE);
    if (!entry)
    {
        return FDIERROR_CORRUPT_CABINET;
    }
    blocksAt = GetDword(entry);
    blocks = GetWord(entry + 4);
    method = GetWord(entry + 6);
    return FDIERROR_NONE;
}

FolderStream::FolderStream(CabDecompression::Callbacks const & callbacks, std::pmr::memory_resource * memory,
                           FolderPart part)
    : m_memory(memory), m_source(callbacks), m_buffer(BLOCKS_BUFFER, memory), m_split(memory), m_block(memory)
{
    m_nextBlockAt = part.blocksAt;
    m_parts.push_back(std::move(part));
}

std::uint64_t FolderStream::GetBlockCount() const
{
    std::uint64_t count = 0;
    for (FolderPart const & part : m_parts)
    {
        count += part.blocks;
    }
    return count;
}

void FolderStream::Restart()
{
    m_decoder.reset();
    m_source.Close();
    m_part = 0;
    m_blocksRead = 0;
    m_nextBlockAt = m_parts[0].blocksAt;
    m_position = 0;
    m_blockAt = 0;
    m_blockEnd = 0;
}

FDIERROR FolderStream::MakeDecoder()
{
    std::uint16_t const method = m_parts[0].method;
    unsigned const windowBits = (method & tcompMASK_LZX_WINDOW) >> tcompSHIFT_LZX_WINDOW;
    switch (method & tcompMASK_TYPE)
    {
    case tcompTYPE_NONE:
        m_decoder = std::make_unique<Storer>();
        return FDIERROR_NONE;
    case tcompTYPE_MSZIP:
        m_decoder = MakeMszipDecoder(m_memory);
        return FDIERROR_NONE;
    case tcompTYPE_LZX:
        if (windowBits >= 15 && windowBits <= 21)
        {
            m_decoder = MakeLzxDecoder(windowBits, m_memory);
            return FDIERROR_NONE;
        }
        [[fallthrough]];
    default:
        return FDIERROR_BAD_COMPR_TYPE;
    }
}

FDIERROR FolderStream::OpenPart(std::size_t index)
{
    if (!m_source.Open((m_parts[index].path + m_parts[index].name).c_str()))
    {
        return FDIERROR_CABINET_NOT_FOUND;
    }
    m_buffer.Start(m_source, m_nextBlockAt);
    return FDIERROR_NONE;
}

FDIERROR FolderStream::Next(std::uint64_t maxSize, Guide * guide, std::span<std::uint8_t const> & bytes)
{
    if (m_blockAt == m_blockEnd)
    {
        if (FDIERROR const error = ReadBlock(guide))
        {
            return error;
        }
    }
    std::size_t const size = static_cast<std::size_t>(std::min<std::uint64_t>(maxSize, m_blockEnd - m_blockAt));
    bytes = {m_block.data() + m_blockAt, size};
    m_blockAt += size;
    m_position += size;
    return FDIERROR_NONE;
}

FDIERROR FolderStream::ReadBlock(Guide * guide)
{
    if (!m_decoder)
    {
        if (FDIERROR const error = MakeDecoder())
        {
            return error;
        }
        m_block.resize(BLOCK_SIZE);
    }
    m_split.clear();
    while (true)
    {
        if (m_blocksRead == m_parts[m_part].blocks)
        {
            // The folder goes on in the next cabinet.
            if (m_part + 1 == m_parts.size())
            {
                FolderPart next;
                FDIERROR const error = guide ? guide->FindNext(m_parts.back(), next) : FDIERROR_CORRUPT_CABINET;
                if (error)
                {
                    return error;
                }
                m_parts.push_back(std::move(next));
            }
            m_source.Close();
            m_part++;
            m_blocksRead = 0;
            m_nextBlockAt = m_parts[m_part].blocksAt;
            continue;
        }
        if (!m_source.IsOpen())
        {
            if (FDIERROR const error = OpenPart(m_part))
            {
                return error;
            }
        }
        std::size_t const headerSize = BLOCK_HEADER_SIZE + m_parts[m_part].header.blockReserve;
        std::uint8_t const * header = m_buffer.Read(headerSize);
        if (!header)
        {
            return FDIERROR_CORRUPT_CABINET;
        }
        std::uint32_t const checksum = GetDword(header);
        std::size_t const size = GetWord(header + 4);
        std::size_t const uncompressedSize = GetWord(header + 6);
        if (m_split.size() + size > MAX_COMPRESSED_BLOCK || uncompressedSize > BLOCK_SIZE)
        {
            return FDIERROR_CORRUPT_CABINET;
        }
        std::uint32_t headerSum = 0;
        if (checksum)
        {
            // Of all that follows; the data's own begins with this one, which is the same the other way round.
            headerSum = Checksum({header + 4, headerSize - 4});
        }
        std::uint8_t const * const data = m_buffer.Read(size);
        if (!data || (checksum && checksum != Checksum({data, size}, headerSum)))
        {
            return FDIERROR_CORRUPT_CABINET;
        }
        m_nextBlockAt = m_buffer.GetOffset();
        m_blocksRead++;
        if (uncompressedSize != 0 && m_split.empty())
        {
            return DecodeBlock({data, size}, uncompressedSize);
        }
        m_split.insert(m_split.end(), data, data + size);
        if (uncompressedSize != 0)
        {
            return DecodeBlock(m_split, uncompressedSize);
        }
        // Its rest is the first block in the next cabinet.
        if (m_blocksRead != m_parts[m_part].blocks || size == 0)
        {
            return FDIERROR_CORRUPT_CABINET;
        }
    }
}

FDIERROR FolderStream::DecodeBlock(std::span<std::uint8_t const> data, std::size_t size)
{
    m_nDecoded++;
    if (!m_decoder->Decode(data, {m_block.data(), size}))
    {
        return FDIERROR_CORRUPT_CABINET;
    }
    m_blockAt = 0;
    m_blockEnd = size;
    return FDIERROR_NONE;
}
} // namespace kvx::cabinet
