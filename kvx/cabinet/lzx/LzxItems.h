#pragma once

/// What LZX's parsers make and its block writer takes: a row of bytes and matches, and how often which symbols occur.

#include "kvx/cabinet/lzx/LzxFormat.h"

#include <bit>
#include <cstdint>

namespace kvx::cabinet::lzx
{
/// The last three different offsets.
struct Recent
{
    std::uint32_t offsets[3] = {1, 1, 1};

    /// After a match that had one of them.
    void Use(unsigned index)
    {
        std::uint32_t const offset = offsets[index];
        offsets[index] = offsets[0];
        offsets[0] = offset;
    }
    /// After a match with another offset.
    void Push(std::uint32_t offset)
    {
        offsets[2] = offsets[1];
        offsets[1] = offsets[0];
        offsets[0] = offset;
    }
};

struct Item
{
    std::uint16_t symbol; ///< of the main code
    std::uint16_t length; ///< 1 of literals
    std::uint32_t extra;  ///< what of the offset the slot doesn't say

    static Item Literal(std::uint8_t byte) { return {byte, 1, 0}; }
    /// A match with the recent offset of this index.
    static Item Repeat(unsigned index, unsigned length) { return Match(index, length, 0); }
    static Item AtOffset(std::uint32_t offset, unsigned length)
    {
        unsigned const slot = SlotOf(offset);
        return Match(slot, length, offset + OFFSET_BIAS - SLOT_BASES[slot]);
    }

    bool IsMatch() const { return symbol >= LITERALS; }
    unsigned GetSlot() const { return (symbol - LITERALS) / 8u; }

private:
    static Item Match(unsigned slot, unsigned length, std::uint32_t extra)
    {
        unsigned const header = length < LONG_MATCH ? length - MIN_MATCH : LONG_MATCH - MIN_MATCH;
        return {static_cast<std::uint16_t>(LITERALS + 8 * slot + header), static_cast<std::uint16_t>(length), extra};
    }
};

/// How often each symbol occurs.
struct Histogram
{
    std::uint32_t main[MAIN_SYMBOLS] = {};
    std::uint32_t length[LENGTH_SYMBOLS] = {};
    std::uint32_t aligned[ALIGNED_SYMBOLS] = {};

    void Add(Item const & item)
    {
        main[item.symbol]++;
        if (item.IsMatch())
        {
            if (item.length >= LONG_MATCH)
            {
                length[item.length - LONG_MATCH]++;
            }
            if (ExtraBits(item.GetSlot()) >= 3)
            {
                aligned[item.extra & 7]++;
            }
        }
    }
};
} // namespace kvx::cabinet::lzx
