#include "kvx/cabinet/mszip/Inflater.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace kvx::cabinet
{
namespace
{
// An entry of a table: in bits 0 to 4 how many bits the code takes (of a second table's: of the rest of it), and
//   a literal          IS_LITERAL, the byte in bits 16 to 23
//   length, distance   the base in bits 16 to 31, the number of extra bits in bits 8 to 11
//   end of the block   IS_END
//   a longer code      IS_LONGER, the index of the second table in bits 16 to 31, its number of bits in bits 8 to 11
//   no code            0
constexpr std::uint32_t IS_LITERAL = 0x8000;
constexpr std::uint32_t IS_END = 0x4000;
constexpr std::uint32_t IS_LONGER = 0x2000;
constexpr std::uint32_t IS_SPECIAL = IS_END | IS_LONGER;

constexpr std::uint32_t Valued(unsigned base, unsigned extraBits)
{
    return static_cast<std::uint32_t>(base) << 16 | extraBits << 8;
}

// What each symbol stands for, without the length of its code; 0 for none.
struct InflateSymbols
{
    std::uint32_t literals[288] = {};
    std::uint32_t distances[32] = {};

    constexpr InflateSymbols()
    {
        for (unsigned i = 0; i < 256; i++)
        {
            literals[i] = IS_LITERAL | i << 16;
        }
        literals[256] = IS_END;
        unsigned base = 3;
        for (unsigned i = 0; i < 28; i++)
        {
            unsigned const extra = i < 8 ? 0 : i / 4 - 1;
            literals[257 + i] = Valued(base, extra);
            base += 1u << extra;
        }
        literals[285] = Valued(258, 0);
        base = 1;
        for (unsigned i = 0; i < 30; i++)
        {
            unsigned const extra = i < 4 ? 0 : i / 2 - 1;
            distances[i] = Valued(base, extra);
            base += 1u << extra;
        }
    }
};
constexpr InflateSymbols INFLATE_SYMBOLS;

unsigned Reversed(unsigned code, unsigned bits)
{
    unsigned reversed = 0;
    for (unsigned i = 0; i < bits; i++)
    {
        reversed |= (code >> i & 1) << (bits - 1 - i);
    }
    return reversed;
}

// Fills a table for codes of the given lengths (0 for a symbol without one, at most 15). False for lengths that are no
// code: more than there is room for, or fewer, but for none and for a single one of one bit.
bool MakeTable(std::span<std::uint8_t const> lengths, std::uint32_t const * symbols, unsigned tableBits,
               std::uint32_t * table)
{
    unsigned count[16] = {};
    for (std::uint8_t length : lengths)
    {
        count[length]++;
    }
    unsigned next[17] = {};
    unsigned used = 0;
    unsigned longest = 0;
    for (unsigned length = 1; length <= 15; length++)
    {
        used += count[length] << (15 - length);
        next[length + 1] = (next[length] + count[length]) << 1;
        if (count[length])
        {
            longest = length;
        }
    }
    bool const single = longest <= 1 && count[1] <= 1;
    if (used > 1u << 15 || (used < 1u << 15 && !single))
    {
        return false;
    }
    std::fill_n(table, std::size_t{1} << tableBits, 0u);
    std::size_t end = std::size_t{1} << tableBits;
    // Symbols in the order of their codes, so that those of one second table come in a row.
    for (unsigned length = 1; length <= longest; length++)
    {
        for (std::size_t symbol = 0; count[length] && symbol < lengths.size(); symbol++)
        {
            if (lengths[symbol] != length)
            {
                continue;
            }
            unsigned const code = Reversed(next[length]++, length);
            std::uint32_t const value = symbols[symbol];
            if (length <= tableBits)
            {
                for (std::size_t i = code; i < std::size_t{1} << tableBits; i += std::size_t{1} << length)
                {
                    table[i] = value ? value | length : 0;
                }
                continue;
            }
            std::uint32_t & first = table[code & ((1u << tableBits) - 1)];
            if (!first)
            {
                // As many bits as the longest code with this begin can have at most.
                unsigned const rest = longest - tableBits;
                first = IS_LONGER | static_cast<std::uint32_t>(end) << 16 | rest << 8 | tableBits;
                std::fill_n(table + end, std::size_t{1} << rest, 0u);
                end += std::size_t{1} << rest;
            }
            std::uint32_t * second = table + (first >> 16);
            for (std::size_t i = code >> tableBits; i < std::size_t{1} << (longest - tableBits);
                 i += std::size_t{1} << (length - tableBits))
            {
                second[i] = value ? value | (length - tableBits) : 0;
            }
        }
    }
    return true;
}
} // namespace

// Bits of the input, the lowest of each byte first. Beyond the input's end come zeros; who reads some of them has taken
// more than there was.
class Inflater::BitReader
{
public:
    explicit BitReader(std::span<std::uint8_t const> data) : m_next(data.data()), m_end(data.data() + data.size()) {}

    // After it there are at least 56 bits.
    void Refill()
    {
        if (m_end - m_next >= 8)
        {
            std::uint64_t word;
            std::memcpy(&word, m_next, 8);
            m_bits |= word << m_count;
            m_next += (63 - m_count) >> 3;
            m_count |= 56;
            return;
        }
        while (m_count < 56)
        {
            if (m_next < m_end)
            {
                m_bits |= std::uint64_t{*m_next++} << m_count;
            }
            else
            {
                m_beyond += 8;
            }
            m_count += 8;
        }
    }
    std::uint64_t Bits() const { return m_bits; }
    void Take(unsigned count)
    {
        m_bits >>= count;
        m_count -= count;
    }
    unsigned Get(unsigned count)
    {
        unsigned const value = static_cast<unsigned>(m_bits & ((std::uint64_t{1} << count) - 1));
        Take(count);
        return value;
    }
    bool IsBeyondEnd() const { return m_beyond > m_count; }
    // Goes on with whole bytes.
    std::span<std::uint8_t const> TakeBytes(std::size_t size)
    {
        unsigned const held = (m_count >= m_beyond ? m_count - m_beyond : 0) / 8;
        std::uint8_t const * const begin = m_next - held;
        m_bits = 0;
        m_count = 0;
        m_beyond = 0;
        m_next = begin + std::min(size, static_cast<std::size_t>(m_end - begin));
        return {begin, m_next};
    }

private:
    std::uint8_t const * m_next;
    std::uint8_t const * m_end;
    std::uint64_t m_bits = 0;
    unsigned m_count = 0;  // bits of m_bits that are told; what lies above is right too, or zero
    unsigned m_beyond = 0; // of them, or taken before: bits beyond the end
};

bool Inflater::Inflate(std::span<std::uint8_t const> data, std::span<std::uint8_t> out)
{
    std::uint8_t * const begin = m_buffer + BLOCK_SIZE;
    std::uint8_t * const end = begin + out.size();
    BitReader bits(data);
    if (out.size() > BLOCK_SIZE || !InflateStream(bits, begin, end))
    {
        return false;
    }
    std::memcpy(out.data(), begin, out.size());
    // The last 32 KiB become the history.
    m_history = std::min(BLOCK_SIZE, m_history + out.size());
    std::memmove(begin - m_history, end - m_history, m_history);
    return true;
}

bool Inflater::InflateStream(BitReader & bits, std::uint8_t * begin, std::uint8_t * end)
{
    std::uint8_t const * const oldest = begin - m_history;
    std::uint8_t * out = begin;
    bool areFixed = false; // the tables
    bool isLast;
    do
    {
        bits.Refill();
        isLast = bits.Get(1);
        unsigned const kind = bits.Get(2);
        if (kind == 0)
        {
            // Stored: to the next byte, the size, its complement, and the bytes.
            auto const sizes = bits.TakeBytes(4);
            if (sizes.size() < 4)
            {
                return false;
            }
            std::size_t const size = sizes[0] | sizes[1] << 8;
            if ((sizes[2] | sizes[3] << 8) != static_cast<int>(~size & 0xFFFF) ||
                size > static_cast<std::size_t>(end - out))
            {
                return false;
            }
            auto const stored = bits.TakeBytes(size);
            if (stored.size() < size)
            {
                return false;
            }
            out = std::copy(stored.begin(), stored.end(), out);
            continue;
        }
        if (kind == 3 || !(kind == 1 ? areFixed || MakeFixedCodes() : ReadCodes(bits)))
        {
            return false;
        }
        areFixed = kind == 1;
        out = InflateBlock(bits, out, end, oldest);
        if (!out || bits.IsBeyondEnd())
        {
            return false;
        }
    } while (!isLast);
    return out == end;
}

bool Inflater::MakeFixedCodes()
{
    std::uint8_t lengths[LITERAL_CODES];
    std::fill(lengths, lengths + 144, std::uint8_t{8});
    std::fill(lengths + 144, lengths + 256, std::uint8_t{9});
    std::fill(lengths + 256, lengths + 280, std::uint8_t{7});
    std::fill(lengths + 280, lengths + 288, std::uint8_t{8});
    std::uint8_t distances[DISTANCE_CODES];
    std::fill(std::begin(distances), std::end(distances), std::uint8_t{5});
    return MakeTable(lengths, INFLATE_SYMBOLS.literals, LITERAL_BITS, m_literals) &&
           MakeTable(distances, INFLATE_SYMBOLS.distances, DISTANCE_BITS, m_distances);
}

bool Inflater::ReadCodes(BitReader & bits)
{
    static constexpr std::uint8_t ORDER[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
    static constexpr unsigned CODE_BITS = 7;
    std::size_t const literals = bits.Get(5) + 257;
    std::size_t const distances = bits.Get(5) + 1;
    std::size_t const codes = bits.Get(4) + 4;
    if (literals > 286 || distances > 30)
    {
        return false;
    }
    std::uint8_t codeLengths[19] = {};
    for (std::size_t i = 0; i < codes; i++)
    {
        bits.Refill();
        codeLengths[ORDER[i]] = static_cast<std::uint8_t>(bits.Get(3));
    }
    std::uint32_t symbols[19];
    for (unsigned i = 0; i < 19; i++)
    {
        symbols[i] = IS_LITERAL | i << 16;
    }
    std::uint32_t table[1 << CODE_BITS];
    if (!MakeTable(codeLengths, symbols, CODE_BITS, table))
    {
        return false;
    }
    std::uint8_t lengths[286 + 30];
    for (std::size_t i = 0; i < literals + distances;)
    {
        bits.Refill();
        std::uint32_t const entry = table[bits.Bits() & ((1 << CODE_BITS) - 1)];
        if (!entry || bits.IsBeyondEnd())
        {
            return false;
        }
        bits.Take(entry & 31);
        unsigned const symbol = entry >> 16;
        if (symbol < 16)
        {
            lengths[i++] = static_cast<std::uint8_t>(symbol);
            continue;
        }
        std::size_t const count = symbol == 16 ? bits.Get(2) + 3 : symbol == 17 ? bits.Get(3) + 3 : bits.Get(7) + 11;
        if (count > literals + distances - i || (symbol == 16 && i == 0))
        {
            return false;
        }
        std::fill_n(lengths + i, count, symbol == 16 ? lengths[i - 1] : std::uint8_t{0});
        i += count;
    }
    // A block has an end.
    return lengths[256] != 0 && MakeTable({lengths, literals}, INFLATE_SYMBOLS.literals, LITERAL_BITS, m_literals) &&
           MakeTable({lengths + literals, distances}, INFLATE_SYMBOLS.distances, DISTANCE_BITS, m_distances);
}

// The end of what was written, or null for codes that don't exist, distances beyond the begin, and too much output.
// What stands behind `end` (LONGEST_MATCH and 16 bytes) may be written.
std::uint8_t * Inflater::InflateBlock(BitReader & bits, std::uint8_t * out, std::uint8_t * end,
                                      std::uint8_t const * oldest)
{
    constexpr unsigned LITERAL_MASK = (1 << LITERAL_BITS) - 1;
    constexpr unsigned DISTANCE_MASK = (1 << DISTANCE_BITS) - 1;
    while (true)
    {
        // 56 bits are enough for three literals from the first table, and for a length (20) with its distance (28).
        bits.Refill();
        std::uint32_t entry = m_literals[bits.Bits() & LITERAL_MASK];
        if (entry & IS_LITERAL)
        {
            bits.Take(entry & 31);
            *out++ = static_cast<std::uint8_t>(entry >> 16);
            entry = m_literals[bits.Bits() & LITERAL_MASK];
            if (entry & IS_LITERAL)
            {
                bits.Take(entry & 31);
                *out++ = static_cast<std::uint8_t>(entry >> 16);
                entry = m_literals[bits.Bits() & LITERAL_MASK];
                if (entry & IS_LITERAL)
                {
                    bits.Take(entry & 31);
                    *out++ = static_cast<std::uint8_t>(entry >> 16);
                    if (out > end || bits.IsBeyondEnd())
                    {
                        return nullptr;
                    }
                    continue;
                }
            }
            bits.Refill();
        }
        if (entry & IS_SPECIAL)
        {
            bits.Take(entry & 31);
            if (entry & IS_LONGER)
            {
                entry = m_literals[(entry >> 16) + (bits.Bits() & ((1u << (entry >> 8 & 15)) - 1))];
                bits.Take(entry & 31);
                if (entry & IS_LITERAL)
                {
                    *out++ = static_cast<std::uint8_t>(entry >> 16);
                    if (out > end || bits.IsBeyondEnd())
                    {
                        return nullptr;
                    }
                    continue;
                }
            }
            if (entry & IS_END)
            {
                return out <= end ? out : nullptr;
            }
        }
        else
        {
            bits.Take(entry & 31);
        }
        if (!entry)
        {
            return nullptr;
        }
        std::size_t const length = (entry >> 16) + bits.Get(entry >> 8 & 15);
        entry = m_distances[bits.Bits() & DISTANCE_MASK];
        bits.Take(entry & 31);
        if (entry & IS_LONGER)
        {
            entry = m_distances[(entry >> 16) + (bits.Bits() & ((1u << (entry >> 8 & 15)) - 1))];
            bits.Take(entry & 31);
        }
        if (!entry)
        {
            return nullptr;
        }
        std::size_t const distance = (entry >> 16) + bits.Get(entry >> 8 & 15);
        if (distance > static_cast<std::size_t>(out - oldest) || out + length > end || bits.IsBeyondEnd())
        {
            return nullptr;
        }
        std::uint8_t const * source = out - distance;
        std::uint8_t * const stop = out + length;
        if (distance >= 8)
        {
            do
            {
                std::memcpy(out, source, 8);
                out += 8;
                source += 8;
            } while (out < stop);
        }
        else if (distance == 1)
        {
            std::memset(out, *source, length);
        }
        else
        {
            do
            {
                *out++ = *source++;
            } while (out < stop);
        }
        out = stop;
    }
}
} // namespace kvx::cabinet
