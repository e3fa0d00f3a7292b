#include "kvx/cabinet/lzx/LzxBlockWriter.h"

#include "kvx/cabinet/lzx/HuffmanCode.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace kvx::cabinet::lzx
{
namespace
{
std::uint64_t Cost(std::span<std::uint32_t const> frequencies, std::span<std::uint8_t const> lengths)
{
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < frequencies.size(); i++)
    {
        bits += std::uint64_t{frequencies[i]} * lengths[i];
    }
    return bits;
}

/// Bits behind a symbol of the pre-code.
unsigned TokenBits(unsigned symbol)
{
    return symbol == SHORT_ZEROS ? 4 : symbol == LONG_ZEROS ? 5 : symbol == SAME ? 1 : 0;
}

/// What to write for a row of lengths: the way of the least cost, given what each pre-symbol costs.
class LengthTokens
{
public:
    struct Token
    {
        std::uint8_t symbol;
        std::uint8_t extra;
    };

    LengthTokens(std::span<std::uint8_t const> lengths, std::span<std::uint8_t const> before)
        : m_lengths(lengths), m_before(before)
    {
        // What symbols cost is known from the tokens, and the best tokens from the cost: begin with a guess.
        std::fill_n(m_costs, PRE_SYMBOLS, std::uint8_t{4});
        for (int pass = 0; pass < 3; pass++)
        {
            Choose();
            std::uint32_t counts[PRE_SYMBOLS] = {};
            for (Token const & token : GetTokens())
            {
                counts[token.symbol]++;
            }
            MakeCodeLengths(counts, MAX_PRE_CODE, m_preLengths);
            for (unsigned symbol = 0; symbol < PRE_SYMBOLS; symbol++)
            {
                m_costs[symbol] = m_preLengths[symbol] == 0 ? 8 : m_preLengths[symbol];
            }
        }
    }

    std::span<Token const> GetTokens() const { return {m_tokens, m_count}; }
    std::span<std::uint8_t const> GetPreLengths() const { return m_preLengths; }

private:
    std::span<std::uint8_t const> m_lengths;
    std::span<std::uint8_t const> m_before;
    std::uint8_t m_costs[PRE_SYMBOLS];
    std::uint8_t m_preLengths[PRE_SYMBOLS];
    Token m_tokens[MAIN_SYMBOLS];
    std::size_t m_count = 0;

    std::uint8_t Difference(std::size_t at) const
    {
        return static_cast<std::uint8_t>((m_before[at] + LENGTH_MODULUS - m_lengths[at]) % LENGTH_MODULUS);
    }

    /// Finds the cheapest way backward: from each place on to the end.
    void Choose()
    {
        std::size_t const count = m_lengths.size();
        std::uint32_t costs[MAIN_SYMBOLS + 1];
        std::uint8_t runs[MAIN_SYMBOLS]; // 1 for a difference
        costs[count] = 0;
        std::size_t run = 0; // of equal lengths from here on
        for (std::size_t at = count; at-- > 0;)
        {
            run = at + 1 < count && m_lengths[at + 1] == m_lengths[at] ? run + 1 : 1;
            costs[at] = costs[at + 1] + m_costs[Difference(at)];
            runs[at] = 1;
            auto const offer = [&](std::size_t size, std::uint32_t cost)
            {
                if (size <= run && cost + costs[at + size] < costs[at])
                {
                    costs[at] = cost + costs[at + size];
                    runs[at] = static_cast<std::uint8_t>(size);
                }
            };
            if (m_lengths[at] == 0)
            {
                // Shorter runs than possible are of use only where the rest is better told in another way.
                std::size_t const most = std::min<std::size_t>(run, MIN_LONG_ZEROS + 31);
                for (std::size_t size = most; size >= MIN_SHORT_ZEROS && size + 4 > most; size--)
                {
                    offer(size, size < MIN_LONG_ZEROS ? m_costs[SHORT_ZEROS] + 4u : m_costs[LONG_ZEROS] + 5u);
                }
                offer(MIN_LONG_ZEROS - 1, m_costs[SHORT_ZEROS] + 4u);
            }
            else
            {
                std::uint32_t const cost = m_costs[SAME] + 1u + m_costs[Difference(at)];
                offer(MIN_SAME + 1, cost);
                offer(MIN_SAME, cost);
            }
        }

        m_count = 0;
        for (std::size_t at = 0; at < count; at += runs[at])
        {
            unsigned const size = runs[at];
            if (size == 1)
            {
                m_tokens[m_count++] = {Difference(at), 0};
            }
            else if (m_lengths[at] != 0)
            {
                m_tokens[m_count++] = {SAME, static_cast<std::uint8_t>(size - MIN_SAME)};
                m_tokens[m_count++] = {Difference(at), 0};
            }
            else if (size < MIN_LONG_ZEROS)
            {
                m_tokens[m_count++] = {SHORT_ZEROS, static_cast<std::uint8_t>(size - MIN_SHORT_ZEROS)};
            }
            else
            {
                m_tokens[m_count++] = {LONG_ZEROS, static_cast<std::uint8_t>(size - MIN_LONG_ZEROS)};
            }
        }
    }
};
} // namespace

BlockCodes::BlockCodes(Histogram const & histogram)
{
    MakeCodeLengths(histogram.main, MAX_CODE, main);
    MakeCodeLengths(histogram.length, MAX_CODE, length);
    MakeCodeLengths(histogram.aligned, MAX_ALIGNED_CODE, aligned);
    std::uint64_t matches = 0;
    for (std::uint32_t count : histogram.aligned)
    {
        matches += count;
    }
    bAligned = Cost(histogram.aligned, aligned) + 3 * ALIGNED_SYMBOLS < 3 * matches;
}

BlockWriter::BlockWriter(unsigned windowBits, std::int32_t translationSize, std::size_t maxFrames,
                         std::pmr::memory_resource * memory)
    : m_mainSymbols(LITERALS + 8 * SlotCount(windowBits)), m_translationSize(translationSize),
      m_output(maxFrames * MAX_COMPRESSED_BLOCK, memory), m_sizes(maxFrames, memory)
{
}

void BlockWriter::Begin(std::size_t size)
{
    m_codesAtBegin = m_codes;
    m_bStartedAtBegin = m_bStarted;
    m_nSize = size;
    Start();
}

void BlockWriter::BeginAgain()
{
    m_codes = m_codesAtBegin;
    m_bStarted = m_bStartedAtBegin;
    Start();
}

void BlockWriter::Start()
{
    m_nFrame = 0;
    m_nFrameLeft = std::min<std::size_t>(m_nSize, FRAME_SIZE);
    m_nAt = 0;
    m_bits = 0;
    m_nBits = 0;
}

/// What doesn't fit into a frame is counted alone.
inline void BlockWriter::PutByte(std::uint8_t byte)
{
    if (m_nAt < MAX_COMPRESSED_BLOCK)
    {
        m_output[m_nFrame * MAX_COMPRESSED_BLOCK + m_nAt] = byte;
    }
    m_nAt++;
}

/// Up to 48 bits.
inline void BlockWriter::PutBits(std::uint64_t value, unsigned count)
{
    m_bits = m_bits << count | value;
    m_nBits += count;
    while (m_nBits >= 16)
    {
        m_nBits -= 16;
        auto const word = static_cast<std::uint16_t>(m_bits >> m_nBits);
        PutByte(static_cast<std::uint8_t>(word));
        PutByte(static_cast<std::uint8_t>(word >> 8));
    }
}

void BlockWriter::AlignToWord()
{
    if (m_nBits > 0)
    {
        PutBits(0, 16 - m_nBits);
    }
}

/// So many uncompressed bytes are written, none of them of the next frame.
inline void BlockWriter::Advance(std::size_t size)
{
    m_nFrameLeft -= size;
    if (m_nFrameLeft == 0)
    {
        AlignToWord();
        m_sizes[m_nFrame++] = m_nAt;
        m_nAt = 0;
        m_nFrameLeft = std::min<std::size_t>(m_nSize - std::min(m_nFrame * FRAME_SIZE, m_nSize), FRAME_SIZE);
    }
}

void BlockWriter::WriteHeader(unsigned type, std::size_t size)
{
    if (!m_bStarted)
    {
        m_bStarted = true;
        PutBits(m_translationSize != 0, 1);
        if (m_translationSize != 0)
        {
            PutBits(static_cast<std::uint32_t>(m_translationSize), 32);
        }
    }
    PutBits(type, 3);
    PutBits(size, 24);
}

void BlockWriter::WriteLengths(std::span<std::uint8_t const> lengths, std::span<std::uint8_t const> before)
{
    LengthTokens const tokens(lengths, before);
    std::span const preLengths = tokens.GetPreLengths();
    for (std::uint8_t length : preLengths)
    {
        PutBits(length, 4);
    }
    std::uint16_t words[PRE_SYMBOLS];
    MakeCodeWords(preLengths, words);
    for (auto const & [symbol, extra] : tokens.GetTokens())
    {
        PutBits(words[symbol], preLengths[symbol]);
        PutBits(extra, TokenBits(symbol));
    }
}

void BlockWriter::Write(std::span<Item const> items, std::size_t size)
{
    Histogram histogram;
    for (Item const & item : items)
    {
        histogram.Add(item);
    }
    BlockCodes const codes(histogram);
    WriteHeader(codes.bAligned ? TYPE_ALIGNED : TYPE_VERBATIM, size);
    if (codes.bAligned)
    {
        for (std::uint8_t length : codes.aligned)
        {
            PutBits(length, 3);
        }
    }
    std::span const main(codes.main, m_mainSymbols);
    WriteLengths(main.first(LITERALS), {m_codes.main, LITERALS});
    WriteLengths(main.subspan(LITERALS), {m_codes.main + LITERALS, m_mainSymbols - LITERALS});
    WriteLengths(codes.length, m_codes.length);
    m_codes = codes;

    std::uint16_t mainWords[MAIN_SYMBOLS];
    std::uint16_t lengthWords[LENGTH_SYMBOLS];
    std::uint16_t alignedWords[ALIGNED_SYMBOLS];
    MakeCodeWords(codes.main, mainWords);
    MakeCodeWords(codes.length, lengthWords);
    MakeCodeWords(codes.aligned, alignedWords);
    for (Item const & item : items)
    {
        std::uint64_t bits = mainWords[item.symbol];
        unsigned count = codes.main[item.symbol];
        if (item.IsMatch())
        {
            if (item.length >= LONG_MATCH)
            {
                unsigned const symbol = item.length - LONG_MATCH;
                bits = bits << codes.length[symbol] | lengthWords[symbol];
                count += codes.length[symbol];
            }
            unsigned const extraBits = ExtraBits(item.GetSlot());
            if (codes.bAligned && extraBits >= 3)
            {
                unsigned const symbol = item.extra & 7;
                PutBits(bits, count);
                bits = item.extra >> 3;
                bits = bits << codes.aligned[symbol] | alignedWords[symbol];
                count = extraBits - 3 + codes.aligned[symbol];
            }
            else
            {
                PutBits(bits, count);
                bits = item.extra;
                count = extraBits;
            }
        }
        PutBits(bits, count);
        Advance(item.length);
    }
}

void BlockWriter::WriteRaw(std::span<std::uint8_t const> bytes, Recent const & recent)
{
    WriteHeader(TYPE_UNCOMPRESSED, bytes.size());
    PutBits(0, 16 - m_nBits); // a whole word if it ends here
    for (std::uint32_t offset : recent.offsets)
    {
        for (int shift = 0; shift < 32; shift += 8)
        {
            PutByte(static_cast<std::uint8_t>(offset >> shift));
        }
    }
    bool const bOdd = bytes.size() % 2 != 0;
    while (!bytes.empty())
    {
        std::span const part = bytes.first(std::min(bytes.size(), m_nFrameLeft));
        bytes = bytes.subspan(part.size());
        for (std::uint8_t byte : part)
        {
            PutByte(byte);
        }
        if (bytes.empty() && bOdd)
        {
            PutByte(0);
        }
        Advance(part.size());
    }
}

std::size_t BlockWriter::FindOversized() const
{
    std::size_t frame = 0;
    while (frame < m_nFrame && m_sizes[frame] <= MAX_COMPRESSED_BLOCK)
    {
        frame++;
    }
    return frame;
}

void BlockWriter::Put(FolderEncoder::Sink & sink) const
{
    for (std::size_t frame = 0; frame < m_nFrame; frame++)
    {
        sink.Put({m_output.data() + frame * MAX_COMPRESSED_BLOCK, m_sizes[frame]},
                 std::min<std::size_t>(m_nSize - frame * FRAME_SIZE, FRAME_SIZE));
    }
}
} // namespace kvx::cabinet::lzx
