#include "kvx/cabinet/lzx/HuffmanTable.h"

#include <algorithm>

namespace kvx::cabinet
{
namespace
{
/// The tables behind the root hold a complete part of the code each. One of 2^n entries has more than n symbols, so
/// each symbol brings less than 2^n / n entries.
std::size_t RoomBehindRoot(unsigned rootBits, unsigned symbols)
{
    std::size_t const subBits = HuffmanTable::MAX_BITS - rootBits;
    return (symbols / (subBits + 1) + 1) << subBits;
}
} // namespace

HuffmanTable::HuffmanTable(unsigned rootBits, unsigned symbols, std::pmr::memory_resource * memory)
    : m_rootBits(rootBits), m_entries((std::size_t{1} << rootBits) + RoomBehindRoot(rootBits, symbols), INVALID, memory)
{
}

void HuffmanTable::Clear()
{
    std::fill_n(m_entries.begin(), std::size_t{1} << m_rootBits, INVALID);
}

bool HuffmanTable::Build(std::span<std::uint8_t const> lengths, std::span<Entry const> packed)
{
    unsigned counts[MAX_BITS + 1] = {};
    for (std::uint8_t length : lengths)
    {
        counts[length]++;
    }
    unsigned next[MAX_BITS + 2] = {}; // of the symbols in order of their lengths
    unsigned used = 0;                // of the 2^16 words of 16 bits
    for (unsigned length = 1; length <= MAX_BITS; length++)
    {
        next[length + 1] = next[length] + counts[length];
        used += counts[length] << (MAX_BITS - length);
    }
    unsigned const symbols = next[MAX_BITS + 1];
    bool const bSingle = symbols == 1 && counts[1] == 1;
    if (used != 1u << MAX_BITS && !bSingle)
    {
        return false;
    }
    std::uint16_t sorted[MAX_SYMBOLS];
    for (unsigned symbol = 0; symbol < lengths.size(); symbol++)
    {
        if (lengths[symbol] != 0)
        {
            sorted[next[lengths[symbol]]++] = static_cast<std::uint16_t>(symbol);
        }
    }

    Entry * const root = m_entries.data();
    std::size_t filled = 0;
    unsigned index = 0;
    for (; index < symbols && lengths[sorted[index]] <= m_rootBits; index++)
    {
        unsigned const length = lengths[sorted[index]];
        std::size_t const count = std::size_t{1} << (m_rootBits - length);
        std::fill_n(root + filled, count, packed[sorted[index]] | length);
        filled += count;
    }
    if (bSingle)
    {
        std::fill_n(root + filled, filled, INVALID);
        return true;
    }

    std::size_t free = std::size_t{1} << m_rootBits;
    while (index < symbols)
    {
        // The longest code of a root entry comes last: a table is as large as what still lacks, to begin with.
        unsigned subBits = lengths[sorted[index]] - m_rootBits;
        unsigned room = 1u << subBits;
        unsigned end = index;
        for (unsigned bits = subBits;; bits++)
        {
            unsigned const length = m_rootBits + bits;
            unsigned take = 0;
            while (end < symbols && lengths[sorted[end]] == length && take < room)
            {
                take++;
                end++;
            }
            room -= take;
            subBits = bits;
            if (room == 0)
            {
                break;
            }
            room *= 2;
        }
        root[filled++] = LINK | static_cast<Entry>(free << 8) | subBits;
        for (; index < end; index++)
        {
            unsigned const length = lengths[sorted[index]];
            std::size_t const count = std::size_t{1} << (m_rootBits + subBits - length);
            std::fill_n(root + free, count, packed[sorted[index]] | length);
            free += count;
        }
    }
    return true;
}
} // namespace kvx::cabinet
