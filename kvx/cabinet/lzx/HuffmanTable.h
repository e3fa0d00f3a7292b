#pragma once

/// Tables that decode a canonical Huffman code from bits that come highest first.

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <span>
#include <vector>

namespace kvx::cabinet
{
/// An entry has the bits that the symbol takes in its low byte, and what the caller packed for the symbol above. The
/// first `rootBits` bits of the input lead to an entry; of longer codes it is a link to a smaller table.
class HuffmanTable
{
public:
    using Entry = std::uint32_t;

    static constexpr unsigned MAX_BITS = 16;
    static constexpr unsigned MAX_SYMBOLS = 1024;
    /// Those two are the table's own: packed symbols leave them clear.
    static constexpr Entry LINK = 0x40000000;
    static constexpr Entry INVALID = 0x20000000; ///< no symbol has these bits

    /// For codes of so many symbols at most. All memory is taken here.
    HuffmanTable(unsigned rootBits, unsigned symbols, std::pmr::memory_resource * memory);

    /// `lengths` has the bits of each symbol, 0 for those that don't occur; `packed` gives what entries hold. False
    /// unless the code is complete or has one symbol of one bit: that is what a code with a single symbol looks like.
    bool Build(std::span<std::uint8_t const> lengths, std::span<Entry const> packed);

    /// Of a code without symbols.
    void Clear();

    Entry const * GetEntries() const { return m_entries.data(); }

    /// `bits` has the input in its highest bits, 16 at least.
    static Entry Look(Entry const * entries, unsigned rootBits, std::uint64_t bits)
    {
        Entry const entry = entries[bits >> (64 - rootBits)];
        return entry & LINK ? Follow(entries, rootBits, entry, bits) : entry;
    }
    static Entry Follow(Entry const * entries, unsigned rootBits, Entry link, std::uint64_t bits)
    {
        unsigned const subBits = link & 0xFF;
        return entries[(link >> 8 & 0xFFFF) + (bits << rootBits >> (64 - subBits))];
    }

private:
    unsigned m_rootBits;
    std::pmr::vector<Entry> m_entries;
};
} // namespace kvx::cabinet
