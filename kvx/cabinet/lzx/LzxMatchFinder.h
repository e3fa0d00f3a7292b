#pragma once

/// Finds earlier occurrences of the bytes at a place. Places are indices into one buffer; whoever owns that moves what
/// is in it back from time to time, and tells the finder.

#include "kvx/cabinet/lzx/LzxFormat.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory_resource>
#include <vector>

namespace kvx::cabinet::lzx
{
/// The number of bytes that are equal at both places, `limit` at most; reads up to 7 bytes behind the limit.
inline unsigned EqualBytes(std::uint8_t const * a, std::uint8_t const * b, unsigned limit)
{
    for (unsigned length = 0; length < limit; length += 8)
    {
        std::uint64_t words[2];
        std::memcpy(&words[0], a + length, 8);
        std::memcpy(&words[1], b + length, 8);
        if (words[0] != words[1])
        {
            return std::min(limit, length + static_cast<unsigned>(std::countr_zero(words[0] ^ words[1])) / 8);
        }
    }
    return limit;
}

struct Found
{
    std::uint32_t offset;
    std::uint32_t length; ///< 0 for nothing
};

/// A table of places, each greater by one than it is: 0 is none. A move forgets those that would become negative.
class PlaceTable
{
public:
    PlaceTable(std::size_t size, std::pmr::memory_resource * memory) : m_places(size, memory) {}

    std::uint32_t & operator[](std::size_t at) { return m_places[at]; }
    void Move(std::uint32_t distance);

private:
    std::pmr::vector<std::uint32_t> m_places;
};

/// For each hash of four bytes the row of places that have it, the last first; and the last one for each hash of three.
/// Quick, and finds one match only.
class HashChains
{
public:
    HashChains(unsigned windowBits, unsigned niceLength, std::pmr::memory_resource * memory);

    /// The longest match with up to `limit` bytes, if it is longer than `least`, among the last `maxDepth` places; and
    /// remembers the place. `buffer` is to be readable up to 8 bytes behind what is to be searched.
    Found Find(std::uint8_t const * buffer, std::uint32_t place, unsigned limit, unsigned least, unsigned maxDepth);
    /// Remembers the place only.
    void Skip(std::uint8_t const * buffer, std::uint32_t place);
    /// All places have become less by this multiple of the window.
    void Move(std::uint32_t distance);

private:
    std::uint32_t const m_mask;
    std::uint32_t const m_maxOffset;
    unsigned const m_niceLength;
    PlaceTable m_threes;
    PlaceTable m_fours;
    PlaceTable m_previous;
};

/// For each hash of four bytes a binary tree of the places that have it, sorted by what follows, the last at the top;
/// and the last place for each pair, and hash of three. Finds the nearest match of each length.
class BinaryTrees
{
public:
    BinaryTrees(unsigned windowBits, unsigned maxDepth, unsigned niceLength, std::pmr::memory_resource * memory);

    /// Stores matches in rising order of length and offset, of up to MAX_MATCH bytes, and gives their end. `available`
    /// is the number of bytes at the place. Remembers the place.
    Found * Find(std::uint8_t const * buffer, std::uint32_t place, std::size_t available, Found * to);
    /// Remembers the place only.
    void Skip(std::uint8_t const * buffer, std::uint32_t place, std::size_t available);
    void Move(std::uint32_t distance);

    /// A place gives no more matches than this.
    static constexpr std::size_t MAX_FOUND = MAX_MATCH;

private:
    std::uint32_t const m_mask;
    std::uint32_t const m_maxOffset;
    unsigned const m_maxDepth;
    unsigned const m_niceLength;
    PlaceTable m_twos;
    PlaceTable m_threes;
    PlaceTable m_fours;
    PlaceTable m_children; ///< two for each place in the window: of those that sort before, and behind

    template <bool STORE>
    Found * Insert(std::uint8_t const * buffer, std::uint32_t place, std::size_t available, Found * to);
};
} // namespace kvx::cabinet::lzx
