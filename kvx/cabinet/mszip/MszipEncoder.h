#pragma once

#include "kvx/cabinet/CabCompression.h"
#include "kvx/cabinet/FolderCoder.h"

struct z_stream_s;

namespace kvx::cabinet
{
/// Compresses single blocks of MSZIP (see MszipDecoder.h): given the bytes before it, a block needs nothing of other
/// blocks, so that several encoders can share a folder's. What it gives depends on level and data alone.
class KVX_API MszipBlockEncoder
{
public:
    /// The largest block and the two bytes before it as DEFLATE stores them without compression.
    static constexpr std::size_t MAX_SIZE = 2 + 5 + BLOCK_SIZE;

    /// Takes its memory here, and none later. std::bad_alloc without it.
    MszipBlockEncoder(Level level, std::pmr::memory_resource * memory);
    MszipBlockEncoder(MszipBlockEncoder const &) = delete;
    MszipBlockEncoder & operator=(MszipBlockEncoder const &) = delete;
    ~MszipBlockEncoder();

    /// `history`: the folder's 32,768 bytes before `block`, none for its first. `out` has room for MAX_SIZE. The number
    /// of bytes put there.
    std::size_t Encode(std::span<std::uint8_t const> history, std::span<std::uint8_t const> block,
                       std::span<std::uint8_t> out);

private:
    Level m_level;
    std::pmr::memory_resource * m_pMemory;
    z_stream_s * m_pStream;

    static void * Allocate(void * memory, unsigned items, unsigned size);
    static void Free(void * memory, void * block);
};
} // namespace kvx::cabinet
