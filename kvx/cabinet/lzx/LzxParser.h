#pragma once

/// Divides data into bytes and matches. Both parsers go frame by frame; items cross neither frames nor what the caller
/// gives as the end of a part.

#include "kvx/cabinet/lzx/LzxCosts.h"
#include "kvx/cabinet/lzx/LzxItems.h"
#include "kvx/cabinet/lzx/LzxMatchFinder.h"

#include <memory_resource>
#include <span>
#include <vector>

namespace kvx::cabinet::lzx
{
/// Takes the best match at each place, or looks whether there is a better one at the next.
class LazyParser
{
public:
    LazyParser(unsigned windowBits, std::pmr::memory_resource * memory);

    /// Adds the items for `buffer[begin..end)`, part of one frame; bytes up to `available` may be looked at.
    void Parse(std::uint8_t const * buffer, std::uint32_t begin, std::uint32_t end, std::uint32_t available,
               Recent & recent, std::pmr::vector<Item> & items);
    void Move(std::uint32_t distance) { m_finder.Move(distance); }

private:
    HashChains m_finder;
};

/// Finds the row of items that costs the least, given what each one does.
class OptimalParser
{
public:
    struct Effort
    {
        unsigned maxDepth;   ///< of the trees that is searched
        unsigned niceLength; ///< a match of so many bytes is taken unseen
    };

    OptimalParser(unsigned windowBits, Effort effort, std::size_t maxSize, std::pmr::memory_resource * memory);

    /// Finds the matches of `buffer[begin..end)`, at most `maxSize` bytes, which can be parsed then, as often as
    /// wanted.
    void FindMatches(std::uint8_t const * buffer, std::uint32_t begin, std::uint32_t end, std::uint32_t available);
    /// Adds the items for `buffer[begin..end)`, part of one frame.
    void Parse(std::uint8_t const * buffer, std::uint32_t begin, std::uint32_t end, Prices const & prices,
               Recent & recent, std::pmr::vector<Item> & items);
    void Move(std::uint32_t distance) { m_finder.Move(distance); }

private:
    BinaryTrees m_finder;
    unsigned const m_niceLength;
    std::uint32_t m_begin = 0;               ///< of what the matches were found for
    std::pmr::vector<std::uint32_t> m_first; ///< of each place, its first match, and at the end the end
    std::pmr::vector<std::uint32_t> m_found; ///< offset, and length - MIN_MATCH in the highest bits
    std::pmr::vector<Price> m_prices;        ///< of the cheapest way to a place of the frame
    std::pmr::vector<std::uint64_t> m_steps; ///< how the cheapest way to a place ends
    std::pmr::vector<Recent> m_recents;      ///< behind it; of the last places
};
} // namespace kvx::cabinet::lzx
