#include "kvx/cabinet/lzx/LzxDecoder.h"

#include "kvx/cabinet/CabFormat.h"
#include "kvx/cabinet/lzx/CallTranslation.h"
#include "kvx/cabinet/lzx/HuffmanTable.h"
#include "kvx/cabinet/lzx/LzxFormat.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace kvx::cabinet
{
namespace lzx
{
namespace
{
using Entry = HuffmanTable::Entry;

constexpr unsigned MAIN_ROOT = 11;
constexpr unsigned LENGTH_ROOT = 10;
constexpr unsigned ALIGNED_ROOT = MAX_ALIGNED_CODE;
constexpr unsigned PRE_ROOT = 8;

// Packed symbols. Of the main code: a byte, or the slot and the length, which is LONG_MATCH for lengths that have
// symbols of their own.
constexpr Entry LITERAL = 0x80000000;
constexpr unsigned VALUE_SHIFT = 8;
constexpr unsigned SLOT_SHIFT = 16;

constexpr auto MAIN_PACKED = []
{
    std::array<Entry, MAIN_SYMBOLS> packed{};
    for (unsigned symbol = 0; symbol < MAIN_SYMBOLS; symbol++)
    {
        packed[symbol] = symbol < LITERALS ? LITERAL | symbol << VALUE_SHIFT
                                           : (symbol - LITERALS) / 8 << SLOT_SHIFT |
                                                 ((symbol - LITERALS) % 8 + MIN_MATCH) << VALUE_SHIFT;
    }
    return packed;
}();

template <unsigned COUNT, unsigned FIRST>
constexpr auto PLAIN_PACKED = []
{
    std::array<Entry, COUNT> packed{};
    for (unsigned symbol = 0; symbol < COUNT; symbol++)
    {
        packed[symbol] = (symbol + FIRST) << VALUE_SHIFT;
    }
    return packed;
}();

/// Of each slot: its base less the bias, and the extra bits.
struct Slot
{
    std::uint32_t base;
    std::uint32_t bits;
};
constexpr auto SLOTS = []
{
    std::array<Slot, MAX_SLOTS> slots{};
    for (unsigned slot = 0; slot < MAX_SLOTS; slot++)
    {
        slots[slot] = {SLOT_BASES[slot] - OFFSET_BIAS, ExtraBits(slot)};
    }
    return slots;
}();

/// Copies of matches write up to so many bytes too many.
constexpr std::size_t COPY_SLACK = 32;
/// Zeros behind a frame's input, which is read some words ahead.
constexpr std::size_t INPUT_SLACK = 32;
/// An offset that no match may have.
constexpr std::uint32_t NO_OFFSET = 0xFFFFFFFF;

/// The bits of a frame's input, highest first. Behind the end come zeros, INPUT_SLACK bytes of them at least; whoever
/// takes bits asks `IsOver` before these can be passed.
class BitReader
{
public:
    std::uint64_t bits = 0; ///< the highest `count` are valid
    unsigned count = 0;
    std::uint8_t const * next = nullptr;
    std::uint8_t const * end = nullptr;

    void Start(std::uint8_t const * at)
    {
        bits = 0;
        count = 0;
        next = at;
    }
    /// Brings the count to 48 at least.
    void Fill()
    {
        std::uint64_t words;
        std::memcpy(&words, next, sizeof words);
        words = std::rotl(words, 32);
        words = (words & 0x0000FFFF0000FFFF) << 16 | (words >> 16 & 0x0000FFFF0000FFFF);
        bits |= words >> count;
        next += (63 - count) / 16 * 2;
        count |= 48;
    }
    void Drop(unsigned n)
    {
        bits <<= n;
        count -= n;
    }
    /// 1 to 32 bits, of those that are there.
    std::uint32_t Take(unsigned n)
    {
        auto const value = static_cast<std::uint32_t>(bits >> (64 - n));
        Drop(n);
        return value;
    }
    /// The word that the next bit is in, or that begins with it.
    std::uint8_t const * GetPlace() const { return next - count / 16 * 2; }
    bool IsOver() const { return GetPlace() > end; }
};

/// `length` bytes from `offset` bytes before; writes up to COPY_SLACK bytes behind them.
inline void CopyMatch(std::uint8_t * to, std::uint32_t offset, unsigned length)
{
    std::uint8_t const * from = to - offset;
    std::uint8_t * const end = to + length;
    if (offset >= 16)
    {
        do
        {
            std::memcpy(to, from, 16);
            to += 16;
            from += 16;
        } while (to < end);
        return;
    }
    if (offset == 1)
    {
        std::memset(to, *from, length);
        return;
    }
    if (offset < 8)
    {
        // The first bytes one by one, until the distance to where the same bytes came before is large enough.
        for (int i = 0; i < 8; i++)
        {
            to[i] = from[i];
        }
        to += 8;
        from = to - 8 / offset * offset;
        if (to - from < 8)
        {
            from -= offset;
        }
    }
    while (to < end)
    {
        std::memcpy(to, from, 8);
        to += 8;
        from += 8;
    }
}

class Decoder final : public FolderDecoder
{
public:
    Decoder(unsigned windowBits, std::pmr::memory_resource * memory)
        : m_windowBits(windowBits), m_mainSymbols(LITERALS + 8 * SlotCount(windowBits)),
          // A frame more than the window: what is written too much doesn't hit what matches can still reach.
          m_ringSize((std::size_t{1} << windowBits) + FRAME_SIZE), m_ring(m_ringSize + COPY_SLACK, memory),
          m_input(MAX_COMPRESSED_BLOCK + INPUT_SLACK, memory), m_main(MAIN_ROOT, MAIN_SYMBOLS, memory),
          m_length(LENGTH_ROOT, LENGTH_SYMBOLS, memory), m_aligned(ALIGNED_ROOT, ALIGNED_SYMBOLS, memory),
          m_pre(PRE_ROOT, PRE_SYMBOLS, memory)
    {
    }

    bool Decode(std::span<std::uint8_t const> data, std::span<std::uint8_t> out) override
    {
        if (m_bEnded || data.size() > MAX_COMPRESSED_BLOCK || out.empty() || out.size() > FRAME_SIZE ||
            !DecodeFrame(data, out.size()))
        {
            m_bEnded = true;
            return false;
        }
        std::memcpy(out.data(), m_ring.data() + m_nPlace, out.size());
        if (m_nTranslationSize != 0)
        {
            UntranslateCalls(out, m_nFrame, m_nTranslationSize);
        }
        m_nFrame++;
        m_nPlace += FRAME_SIZE;
        if (m_nPlace == m_ringSize)
        {
            m_nPlace = 0;
            m_bFull = true;
        }
        m_bEnded = out.size() != FRAME_SIZE;
        return true;
    }

private:
    unsigned const m_windowBits;
    unsigned const m_mainSymbols;
    std::size_t const m_ringSize;
    std::pmr::vector<std::uint8_t> m_ring;
    std::pmr::vector<std::uint8_t> m_input;
    HuffmanTable m_main;
    HuffmanTable m_length;
    HuffmanTable m_aligned;
    HuffmanTable m_pre;
    std::uint8_t m_mainLengths[MAIN_SYMBOLS] = {};
    std::uint8_t m_lengthLengths[LENGTH_SYMBOLS] = {};
    std::uint32_t m_recent[3] = {1, 1, 1};

    bool m_bEnded = false;   ///< by a short frame, or an error
    bool m_bFull = false;    ///< the ring was
    bool m_bPadding = false; ///< of an uncompressed block a byte is still to come
    unsigned m_nType = 0;
    std::size_t m_nBlockLeft = 0;
    std::size_t m_nPlace = 0; ///< of the frame in the ring
    std::uint64_t m_nFrame = 0;
    std::int32_t m_nTranslationSize = 0;

    BitReader m_in;

    bool DecodeFrame(std::span<std::uint8_t const> data, std::size_t size)
    {
        if (data.empty())
        {
            return false;
        }
        std::memcpy(m_input.data(), data.data(), data.size());
        std::memset(m_input.data() + data.size(), 0, INPUT_SLACK);
        m_in.end = m_input.data() + data.size();
        m_in.Start(m_input.data());
        if (m_nFrame == 0)
        {
            m_in.Fill();
            if (m_in.Take(1))
            {
                m_nTranslationSize = static_cast<std::int32_t>(m_in.Take(32));
            }
        }
        std::size_t place = m_nPlace;
        std::size_t const end = m_nPlace + size;
        while (place < end)
        {
            if (m_nBlockLeft == 0 && !ReadHeader())
            {
                return false;
            }
            std::size_t const run = std::min(m_nBlockLeft, end - place);
            if (!(m_nType == TYPE_VERBATIM  ? DecodeItems<false>(place, place + run)
                  : m_nType == TYPE_ALIGNED ? DecodeItems<true>(place, place + run)
                                            : CopyBytes(place, run)))
            {
                return false;
            }
            place += run;
            m_nBlockLeft -= run;
        }
        if (m_nBlockLeft == 0)
        {
            SkipPadding();
        }
        // Behind the last frame, which alone may be short, readers have always let other bytes pass.
        return size == FRAME_SIZE ? m_in.GetPlace() == m_in.end : !m_in.IsOver();
    }

    /// The byte that makes an uncompressed block's even; at the end of a frame it may come with the next.
    void SkipPadding()
    {
        if (m_bPadding && m_in.next < m_in.end)
        {
            m_in.next++;
            m_bPadding = false;
        }
    }

    bool CopyBytes(std::size_t place, std::size_t count)
    {
        if (static_cast<std::size_t>(m_in.end - m_in.next) < count)
        {
            return false;
        }
        std::memcpy(m_ring.data() + place, m_in.next, count);
        m_in.next += count;
        return true;
    }

    bool ReadHeader()
    {
        SkipPadding();
        m_in.Fill();
        m_nType = m_in.Take(3);
        m_nBlockLeft = m_in.Take(24);
        if (m_nBlockLeft == 0)
        {
            return false;
        }
        switch (m_nType)
        {
        case TYPE_ALIGNED:
            if (!ReadAlignedCode())
            {
                return false;
            }
            [[fallthrough]];
        case TYPE_VERBATIM:
            return ReadCodes();
        case TYPE_UNCOMPRESSED:
            return ReadRecent();
        default:
            return false;
        }
    }

    bool ReadAlignedCode()
    {
        std::uint8_t lengths[ALIGNED_SYMBOLS];
        m_in.Fill();
        for (std::uint8_t & length : lengths)
        {
            length = static_cast<std::uint8_t>(m_in.Take(3));
        }
        return m_aligned.Build(lengths, PLAIN_PACKED<ALIGNED_SYMBOLS, 0>);
    }

    bool ReadCodes()
    {
        std::span const main(m_mainLengths, m_mainSymbols);
        if (!ReadLengths(main.first(LITERALS)) || !ReadLengths(main.subspan(LITERALS)) ||
            !m_main.Build(main, MAIN_PACKED) || !ReadLengths(m_lengthLengths))
        {
            return false;
        }
        if (std::ranges::all_of(m_lengthLengths, [](std::uint8_t length) { return length == 0; }))
        {
            m_length.Clear(); // which is fine as long as no item asks for it
            return true;
        }
        return m_length.Build(m_lengthLengths, PLAIN_PACKED<LENGTH_SYMBOLS, LONG_MATCH>);
    }

    /// Reads a part of a code's lengths, which are told by what they differ from the block's before.
    bool ReadLengths(std::span<std::uint8_t> lengths)
    {
        std::uint8_t preLengths[PRE_SYMBOLS];
        for (std::uint8_t & length : preLengths)
        {
            m_in.Fill();
            length = static_cast<std::uint8_t>(m_in.Take(4));
        }
        if (!m_pre.Build(preLengths, PLAIN_PACKED<PRE_SYMBOLS, 0>))
        {
            return false;
        }
        for (std::size_t i = 0; i < lengths.size();)
        {
            unsigned symbol = TakePreSymbol();
            unsigned run = 1;
            unsigned value = 0;
            if (symbol == SHORT_ZEROS)
            {
                run = MIN_SHORT_ZEROS + m_in.Take(4);
            }
            else if (symbol == LONG_ZEROS)
            {
                run = MIN_LONG_ZEROS + m_in.Take(5);
            }
            else
            {
                if (symbol == SAME)
                {
                    run = MIN_SAME + m_in.Take(1);
                    symbol = TakePreSymbol();
                }
                if (symbol >= LENGTH_MODULUS)
                {
                    return false;
                }
                value = (lengths[i] + LENGTH_MODULUS - symbol) % LENGTH_MODULUS;
            }
            if (run > lengths.size() - i || m_in.IsOver())
            {
                return false;
            }
            std::fill_n(lengths.begin() + static_cast<std::ptrdiff_t>(i), run, static_cast<std::uint8_t>(value));
            i += run;
        }
        return true;
    }

    /// PRE_SYMBOLS for bits that are none's.
    unsigned TakePreSymbol()
    {
        m_in.Fill();
        Entry const entry = HuffmanTable::Look(m_pre.GetEntries(), PRE_ROOT, m_in.bits);
        if (entry & HuffmanTable::INVALID)
        {
            return PRE_SYMBOLS;
        }
        m_in.Drop(entry & 0xFF);
        return entry >> VALUE_SHIFT;
    }

    /// The head of an uncompressed block.
    bool ReadRecent()
    {
        m_in.Fill();
        m_in.Drop((m_in.count - 1) % 16 + 1);
        std::uint8_t const * at = m_in.GetPlace();
        if (m_in.end - at < 12)
        {
            return false;
        }
        for (std::uint32_t & recent : m_recent)
        {
            std::uint32_t const offset = GetDword(at);
            recent = offset - 1 < MaxOffset(m_windowBits) ? offset : NO_OFFSET;
            at += 4;
        }
        m_in.Start(at);
        m_bPadding = m_nBlockLeft % 2 != 0;
        return true;
    }

    /// Items that fill the ring from `place` to `end`.
    template <bool ALIGNED>
    bool DecodeItems(std::size_t place, std::size_t end)
    {
        BitReader in = m_in;
        std::uint8_t const * const inputEnd = in.end + 6; // a Fill may have read so far ahead
        std::uint8_t * const ring = m_ring.data();
        std::uint8_t * to = ring + place;
        std::uint8_t * const stop = ring + end;
        Entry const * const mainEntries = m_main.GetEntries();
        Entry const * const lengthEntries = m_length.GetEntries();
        Entry const * const alignedEntries = m_aligned.GetEntries();
        std::uint32_t r0 = m_recent[0];
        std::uint32_t r1 = m_recent[1];
        std::uint32_t r2 = m_recent[2];
        while (to < stop)
        {
            // Not more than two calls of Fill go by between two such checks.
            if (in.next > inputEnd)
            {
                return false;
            }
            in.Fill();
            Entry entry = mainEntries[in.bits >> (64 - MAIN_ROOT)];
            if (entry & LITERAL)
            {
                *to++ = static_cast<std::uint8_t>(entry >> VALUE_SHIFT);
                in.Drop(entry & 0xFF);
                entry = mainEntries[in.bits >> (64 - MAIN_ROOT)];
                if (stop - to < 2)
                {
                    continue;
                }
                if (entry & LITERAL)
                {
                    *to++ = static_cast<std::uint8_t>(entry >> VALUE_SHIFT);
                    in.Drop(entry & 0xFF);
                    entry = mainEntries[in.bits >> (64 - MAIN_ROOT)];
                    if (entry & LITERAL)
                    {
                        *to++ = static_cast<std::uint8_t>(entry >> VALUE_SHIFT);
                        in.Drop(entry & 0xFF);
                        continue;
                    }
                }
            }
            if (entry & (HuffmanTable::LINK | HuffmanTable::INVALID))
            {
                if (entry & HuffmanTable::INVALID)
                {
                    return false;
                }
                entry = HuffmanTable::Follow(mainEntries, MAIN_ROOT, entry, in.bits);
                if (entry & LITERAL)
                {
                    *to++ = static_cast<std::uint8_t>(entry >> VALUE_SHIFT);
                    in.Drop(entry & 0xFF);
                    continue;
                }
            }

            in.Drop(entry & 0xFF);
            in.Fill();
            unsigned length = entry >> VALUE_SHIFT & 0xFF;
            if (length == LONG_MATCH)
            {
                Entry const longer = HuffmanTable::Look(lengthEntries, LENGTH_ROOT, in.bits);
                if (longer & HuffmanTable::INVALID)
                {
                    return false;
                }
                in.Drop(longer & 0xFF);
                length = longer >> VALUE_SHIFT;
            }
            unsigned const slot = entry >> SLOT_SHIFT & 0xFF;
            std::uint32_t offset;
            if (slot > 2)
            {
                auto const [base, bits] = SLOTS[slot];
                offset = base;
                if (ALIGNED && bits >= 3)
                {
                    // Shifted in two steps: there may be no bits above the aligned three.
                    offset += static_cast<std::uint32_t>(in.bits >> 1 >> (66 - bits)) << 3;
                    in.Drop(bits - 3);
                    Entry const lowest = alignedEntries[in.bits >> (64 - ALIGNED_ROOT)];
                    if (lowest & HuffmanTable::INVALID)
                    {
                        return false;
                    }
                    offset += lowest >> VALUE_SHIFT;
                    in.Drop(lowest & 0xFF);
                }
                else
                {
                    offset += static_cast<std::uint32_t>(in.bits >> 1 >> (63 - bits));
                    in.Drop(bits);
                }
                r2 = r1;
                r1 = r0;
            }
            else if (slot == 0)
            {
                offset = r0;
            }
            else
            {
                offset = slot == 1 ? r1 : r2;
                (slot == 1 ? r1 : r2) = r0;
            }
            r0 = offset;
            if (length > static_cast<std::size_t>(stop - to))
            {
                return false;
            }
            if (offset > static_cast<std::size_t>(to - ring))
            {
                if (!m_bFull || offset == NO_OFFSET)
                {
                    return false;
                }
                CopyWrapped(to, offset, length);
            }
            else
            {
                CopyMatch(to, offset, length);
            }
            to += length;
        }
        m_recent[0] = r0;
        m_recent[1] = r1;
        m_recent[2] = r2;
        m_in = in;
        return true;
    }

    /// From the end of the ring, and maybe on at its begin.
    void CopyWrapped(std::uint8_t * to, std::uint32_t offset, unsigned length)
    {
        std::uint8_t const * const ring = m_ring.data();
        std::uint8_t const * const ringEnd = ring + m_ringSize;
        std::uint8_t const * from = to + m_ringSize - offset;
        for (unsigned i = 0; i < length; i++)
        {
            to[i] = *from++;
            if (from == ringEnd)
            {
                from = ring;
            }
        }
    }
};
} // namespace
} // namespace lzx

std::unique_ptr<FolderDecoder> MakeLzxDecoder(unsigned windowBits, std::pmr::memory_resource * memory)
{
    if (!lzx::IsWindow(windowBits))
    {
        throw std::invalid_argument("LZX has windows of 2^15 to 2^21 bytes");
    }
    return std::make_unique<lzx::Decoder>(windowBits, memory);
}
} // namespace kvx::cabinet
