#include "kvx/cabinet/mszip/MszipEncoder.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

namespace kvx::cabinet
{
namespace
{
/// How zlib is to search: its level, and of it the length of a match from which on it searches less, from which on it
/// takes none that begins one byte later (or, at level 1, puts the bytes into no table), which is long enough, and how
/// many places it tries.
struct Search
{
    int level;
    int good;
    int lazy;
    int nice;
    int chain;
};

/// Measured with bench_cabinet. For Default zlib's level 6, which tries 128 places, costs a quarter of the speed for
/// half a percent of the size.
Search GetSearch(Level level)
{
    switch (level)
    {
    case Level::Fast:
        return {1, 4, 5, 24, 4};
    case Level::Best:
        return {9, 32, 258, 258, 4096};
    default:
        return {6, 8, 16, 128, 52};
    }
}

/// What zlib frees it doesn't know the size of: that stands in front.
constexpr std::size_t SIZE_ROOM = alignof(std::max_align_t);
} // namespace

void * MszipBlockEncoder::Allocate(void * memory, unsigned items, unsigned size)
{
    try
    {
        std::size_t const bytes = SIZE_ROOM + std::size_t{items} * size;
        void * const block = static_cast<std::pmr::memory_resource *>(memory)->allocate(bytes);
        std::memcpy(block, &bytes, sizeof bytes);
        return static_cast<char *>(block) + SIZE_ROOM;
    }
    catch (std::bad_alloc const &)
    {
        return nullptr;
    }
}

void MszipBlockEncoder::Free(void * memory, void * block)
{
    void * const start = static_cast<char *>(block) - SIZE_ROOM;
    std::size_t bytes = 0;
    std::memcpy(&bytes, start, sizeof bytes);
    static_cast<std::pmr::memory_resource *>(memory)->deallocate(start, bytes);
}

MszipBlockEncoder::MszipBlockEncoder(Level level, std::pmr::memory_resource * memory)
    : m_level(level), m_pMemory(memory), m_pStream(std::pmr::polymorphic_allocator<>(memory).new_object<z_stream>())
{
    m_pStream->zalloc = &Allocate;
    m_pStream->zfree = &Free;
    m_pStream->opaque = memory;
    // 16,384 symbols to a set of codes: twice as many compress no better.
    constexpr int MEMORY_LEVEL = 8;
    if (deflateInit2(m_pStream, GetSearch(level).level, Z_DEFLATED, -15, MEMORY_LEVEL, Z_DEFAULT_STRATEGY) != Z_OK)
    {
        std::pmr::polymorphic_allocator<>(memory).delete_object(m_pStream);
        throw std::bad_alloc();
    }
}

MszipBlockEncoder::~MszipBlockEncoder()
{
    deflateEnd(m_pStream);
    std::pmr::polymorphic_allocator<>(m_pMemory).delete_object(m_pStream);
}

std::size_t MszipBlockEncoder::Encode(std::span<std::uint8_t const> history, std::span<std::uint8_t const> block,
                                      std::span<std::uint8_t> out)
{
    constexpr std::size_t STORED_HEAD = 5;
    out[0] = 'C';
    out[1] = 'K';
    out = out.subspan(2);
    deflateReset(m_pStream);
    Search const search = GetSearch(m_level);
    deflateTune(m_pStream, search.good, search.lazy, search.nice, search.chain);
    if (!history.empty())
    {
        deflateSetDictionary(m_pStream, history.data(), static_cast<uInt>(history.size()));
    }
    m_pStream->next_in = const_cast<Bytef *>(block.data());
    m_pStream->avail_in = static_cast<uInt>(block.size());
    m_pStream->next_out = out.data();
    m_pStream->avail_out = static_cast<uInt>(block.size() + STORED_HEAD);
    if (deflate(m_pStream, Z_FINISH) == Z_STREAM_END)
    {
        return 2 + m_pStream->total_out;
    }
    // It doesn't get smaller: as it is, in one last block of DEFLATE.
    auto const size = static_cast<std::uint16_t>(block.size());
    std::uint16_t const inverted = static_cast<std::uint16_t>(~size);
    std::uint8_t const head[STORED_HEAD] = {1, static_cast<std::uint8_t>(size), static_cast<std::uint8_t>(size >> 8),
                                            static_cast<std::uint8_t>(inverted),
                                            static_cast<std::uint8_t>(inverted >> 8)};
    std::ranges::copy(head, out.begin());
    std::ranges::copy(block, out.begin() + STORED_HEAD);
    return 2 + STORED_HEAD + block.size();
}
} // namespace kvx::cabinet
