#include "kvx/cabinet/lzx/LzxMatchFinder.h"

#include <algorithm>
#include <cstring>

namespace kvx::cabinet::lzx
{
namespace
{
constexpr unsigned THREE_BITS = 16;
constexpr unsigned FOUR_BITS = 17;
/// Matches of two bytes from farther away cost more than the bytes.
constexpr std::uint32_t MAX_PAIR_OFFSET = 512;
constexpr std::uint32_t MAX_THREE_OFFSET = 1 << 14;

/// One less than the format has room for: not all programs that read cabinets copy from the very greatest offset right.
std::uint32_t FarthestOffset(unsigned windowBits)
{
    return MaxOffset(windowBits) - 1;
}

std::uint32_t Load32(std::uint8_t const * at)
{
    std::uint32_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
}
std::uint32_t Hash(std::uint32_t value, unsigned bits)
{
    return value * 0x9E3779B1u >> (32 - bits);
}
std::uint32_t HashOfThree(std::uint8_t const * at)
{
    static_assert(std::endian::native == std::endian::little);
    return Hash(Load32(at) << 8, THREE_BITS);
}
} // namespace

void PlaceTable::Move(std::uint32_t distance)
{
    for (std::uint32_t & place : m_places)
    {
        place = place > distance ? place - distance : 0;
    }
}

HashChains::HashChains(unsigned windowBits, unsigned niceLength, std::pmr::memory_resource * memory)
    : m_mask((1u << windowBits) - 1), m_maxOffset(FarthestOffset(windowBits)), m_niceLength(niceLength),
      m_threes(std::size_t{1} << THREE_BITS, memory), m_fours(std::size_t{1} << FOUR_BITS, memory),
      m_previous(std::size_t{1} << windowBits, memory)
{
}

void HashChains::Skip(std::uint8_t const * buffer, std::uint32_t place)
{
    std::uint8_t const * const at = buffer + place;
    std::uint32_t & head = m_fours[Hash(Load32(at), FOUR_BITS)];
    m_previous[place & m_mask] = head;
    head = place + 1;
    m_threes[HashOfThree(at)] = place + 1;
}

Found HashChains::Find(std::uint8_t const * buffer, std::uint32_t place, unsigned limit, unsigned least,
                       unsigned maxDepth)
{
    std::uint8_t const * const at = buffer + place;
    std::uint32_t const soon = m_fours[Hash(Load32(at + 2), FOUR_BITS)];
    if (soon != 0)
    {
        __builtin_prefetch(&m_previous[(soon - 1) & m_mask]);
        __builtin_prefetch(buffer + soon - 1);
    }
    std::uint32_t & head = m_fours[Hash(Load32(at), FOUR_BITS)];
    std::uint32_t & three = m_threes[HashOfThree(at)];
    std::uint32_t candidate = head;
    std::uint32_t const lastThree = three;
    m_previous[place & m_mask] = head;
    head = place + 1;
    three = place + 1;

    Found best{0, 0};
    unsigned bestLength = least;
    if (bestLength >= limit)
    {
        return best;
    }
    if (least < 3 && lastThree != 0 && place + 1 - lastThree <= std::min(m_maxOffset, MAX_THREE_OFFSET))
    {
        unsigned const length = EqualBytes(at, buffer + lastThree - 1, limit);
        if (length >= 3)
        {
            best = {place + 1 - lastThree, length};
            bestLength = length;
        }
    }
    bestLength = std::max(bestLength, 3u);
    for (unsigned depth = maxDepth; candidate != 0 && depth > 0 && bestLength < limit; depth--)
    {
        std::uint32_t const offset = place + 1 - candidate;
        if (offset > m_maxOffset)
        {
            break;
        }
        std::uint8_t const * const there = buffer + candidate - 1;
        candidate = m_previous[(candidate - 1) & m_mask];
        __builtin_prefetch(buffer + candidate);
        // Only what differs from the best at its end, and is equal at its begin, is worth a comparison.
        if (Load32(there + bestLength - 3) == Load32(at + bestLength - 3) && Load32(there) == Load32(at))
        {
            unsigned const length = EqualBytes(at, there, limit);
            if (length > bestLength)
            {
                best = {offset, length};
                bestLength = length;
                if (length >= m_niceLength)
                {
                    break;
                }
            }
        }
    }
    return best;
}

void HashChains::Move(std::uint32_t distance)
{
    m_threes.Move(distance);
    m_fours.Move(distance);
    m_previous.Move(distance);
}

BinaryTrees::BinaryTrees(unsigned windowBits, unsigned maxDepth, unsigned niceLength,
                         std::pmr::memory_resource * memory)
    : m_mask((1u << windowBits) - 1), m_maxOffset(FarthestOffset(windowBits)), m_maxDepth(maxDepth),
      m_niceLength(niceLength), m_twos(65536, memory), m_threes(std::size_t{1} << THREE_BITS, memory),
      m_fours(std::size_t{1} << FOUR_BITS, memory), m_children(std::size_t{2} << windowBits, memory)
{
}

template <bool STORE>
inline Found * BinaryTrees::Insert(std::uint8_t const * buffer, std::uint32_t place, std::size_t available, Found * to)
{
    if (available < 4)
    {
        return to;
    }
    auto const limit = static_cast<unsigned>(std::min<std::size_t>(available, MAX_MATCH));
    std::uint8_t const * const at = buffer + place;
    std::uint32_t * const children = &m_children[0];
    if (available > 32)
    {
        // What the next places will want is far away in memory.
        __builtin_prefetch(&m_fours[Hash(Load32(at + 16), FOUR_BITS)]);
        __builtin_prefetch(&m_threes[HashOfThree(at + 16)]);
        std::uint32_t const soon = m_fours[Hash(Load32(at + 6), FOUR_BITS)];
        if (soon != 0)
        {
            __builtin_prefetch(children + std::size_t{2} * ((soon - 1) & m_mask));
            __builtin_prefetch(buffer + soon - 1);
        }
    }
    std::uint32_t const word = Load32(at);
    std::uint32_t & two = m_twos[word & 0xFFFF];
    std::uint32_t & three = m_threes[HashOfThree(at)];
    std::uint32_t & four = m_fours[Hash(word, FOUR_BITS)];
    unsigned bestLength = 1;
    if (STORE)
    {
        auto const tryLast = [&](std::uint32_t last, unsigned least, std::uint32_t maxOffset)
        {
            std::uint32_t const offset = place + 1 - last;
            if (last == 0 || offset > std::min(m_maxOffset, maxOffset))
            {
                return;
            }
            unsigned const length = EqualBytes(at, buffer + last - 1, limit);
            if (length >= least && length > bestLength)
            {
                *to++ = {offset, length};
                bestLength = length;
            }
        };
        tryLast(two, 2, MAX_PAIR_OFFSET);
        tryLast(three, 3, MAX_THREE_OFFSET);
    }
    std::uint32_t candidate = four;
    two = place + 1;
    three = place + 1;
    four = place + 1;
    bestLength = std::max(bestLength, 3u);

    // The new place becomes the top; what was there is divided into what sorts before and behind it.
    std::uint32_t * before = children + std::size_t{2} * (place & m_mask);
    std::uint32_t * behind = before + 1;
    unsigned beforeLength = 0; // all that is still to be divided has so much in common with the place
    unsigned behindLength = 0;
    for (unsigned depth = m_maxDepth;; depth--)
    {
        std::uint32_t const offset = place + 1 - candidate;
        if (candidate == 0 || offset > m_maxOffset || depth == 0)
        {
            *before = 0;
            *behind = 0;
            return to;
        }
        std::uint32_t * const pair = children + std::size_t{2} * ((candidate - 1) & m_mask);
        std::uint8_t const * const there = buffer + candidate - 1;
        for (int i = 0; i < 2; i++)
        {
            __builtin_prefetch(children + std::size_t{2} * ((pair[i] - 1) & m_mask));
            __builtin_prefetch(buffer + pair[i]);
        }
        unsigned length = std::min(beforeLength, behindLength);
        length += EqualBytes(at + length, there + length, limit - length);
        if (length > bestLength)
        {
            bestLength = length;
            if (STORE)
            {
                *to++ = {offset, length};
            }
        }
        if (length >= m_niceLength || length == limit)
        {
            *before = pair[0];
            *behind = pair[1];
            return to;
        }
        // Which way is anyone's guess: chosen without a branch.
        bool const bBefore = there[length] < at[length];
        *(bBefore ? before : behind) = candidate;
        candidate = pair[bBefore];
        before = bBefore ? pair + 1 : before;
        behind = bBefore ? behind : pair;
        beforeLength = bBefore ? length : beforeLength;
        behindLength = bBefore ? behindLength : length;
    }
}

Found * BinaryTrees::Find(std::uint8_t const * buffer, std::uint32_t place, std::size_t available, Found * to)
{
    return Insert<true>(buffer, place, available, to);
}

void BinaryTrees::Skip(std::uint8_t const * buffer, std::uint32_t place, std::size_t available)
{
    Insert<false>(buffer, place, available, nullptr);
}

void BinaryTrees::Move(std::uint32_t distance)
{
    m_twos.Move(distance);
    m_threes.Move(distance);
    m_fours.Move(distance);
    m_children.Move(distance);
}
} // namespace kvx::cabinet::lzx
