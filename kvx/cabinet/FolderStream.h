#pragma once

/// The data of one folder, through all the cabinets that have a part of it.

#include "kvx/cabinet/CabSource.h"
#include "kvx/cabinet/FolderCoder.h"

#include <memory>
#include <string>
#include <utility>

namespace kvx::cabinet
{
/// The part of a folder that lies in one cabinet.
struct FolderPart
{
    std::string path;
    std::string name;
    CabHeader header;
    std::uint32_t blocksAt = 0;
    std::uint16_t blocks = 0;
    std::uint16_t method = 0;

    /// Reads the folder's entry.
    FDIERROR Read(CabBuffer & buffer, std::uint16_t folder);
};

/// Decompresses a folder from its begin on. It keeps its place when it is suspended, between the cabinets of a set.
class FolderStream
{
public:
    /// Finds the cabinet in which a folder goes on.
    class Guide
    {
    public:
        virtual ~Guide() = default;
        virtual FDIERROR FindNext(FolderPart const & last, FolderPart & next) = 0;
    };

    FolderStream(CabDecompression::Callbacks const & callbacks, std::pmr::memory_resource * memory, FolderPart part);

    /// The parts that are known.
    FolderPart const & GetLast() const { return m_parts.back(); }
    std::size_t GetPartCount() const { return m_parts.size(); }
    std::uint64_t GetBlockCount() const;
    void Append(FolderPart part) { m_parts.push_back(std::move(part)); }

    /// Bytes of the folder that went by.
    std::uint64_t GetPosition() const { return m_position; }
    /// Blocks that were decompressed since the last time.
    std::uint64_t TakeBlockCount() { return std::exchange(m_nDecoded, 0); }
    /// Begins anew.
    void Restart();
    /// The next bytes of the folder, up to `maxSize`, none without an error; valid up to the next call. What lies
    /// beyond the parts that are known is looked for with the guide, or else an error.
    FDIERROR Next(std::uint64_t maxSize, Guide * guide, std::span<std::uint8_t const> & bytes);
    /// Closes the cabinet until more is read.
    void Suspend() { m_source.Close(); }

private:
    std::pmr::memory_resource * m_memory;
    std::vector<FolderPart> m_parts;
    std::size_t m_part = 0;
    std::uint16_t m_blocksRead = 0; // of that part
    std::uint32_t m_nextBlockAt = 0;
    std::uint64_t m_position = 0;
    std::uint64_t m_nDecoded = 0;
    CabSource m_source;
    CabBuffer m_buffer;
    std::pmr::vector<std::uint8_t> m_split; // a block that lies in two cabinets
    std::pmr::vector<std::uint8_t> m_block;
    std::size_t m_blockAt = 0;
    std::size_t m_blockEnd = 0;
    std::unique_ptr<FolderDecoder> m_decoder;

    FDIERROR MakeDecoder();
    FDIERROR OpenPart(std::size_t index);
    FDIERROR ReadBlock(Guide * guide);
    FDIERROR DecodeBlock(std::span<std::uint8_t const> data, std::size_t size);
};
} // namespace kvx::cabinet
