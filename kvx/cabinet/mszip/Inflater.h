#pragma once

/// DEFLATE (RFC 1951), whole streams in memory, at most 32 KiB of output each.

#include "kvx/cabinet/FolderCoder.h"

namespace kvx::cabinet
{
/// Decompresses streams of which each may refer to the 32,768 bytes before it. No memory beyond the object.
class Inflater
{
public:
    /// Decompresses the stream in `data` into exactly `out.size()` bytes, at most BLOCK_SIZE. Bytes behind the stream's
    /// end are passed over. False for anything else; the history is of no use then.
    bool Inflate(std::span<std::uint8_t const> data, std::span<std::uint8_t> out);

private:
    static constexpr unsigned LITERAL_BITS = 11; // of the first table; longer codes go on in a second one
    static constexpr unsigned DISTANCE_BITS = 8;
    static constexpr std::size_t LITERAL_CODES = 288;
    static constexpr std::size_t DISTANCE_CODES = 32;
    // Each second table has a code of its own length, and at most one entry for each pair of codes and length.
    static constexpr std::size_t LITERAL_TABLE = (1 << LITERAL_BITS) + LITERAL_CODES * (1 << (15 - LITERAL_BITS));
    static constexpr std::size_t DISTANCE_TABLE = (1 << DISTANCE_BITS) + DISTANCE_CODES * (1 << (15 - DISTANCE_BITS));
    static constexpr std::size_t LONGEST_MATCH = 258;

    class BitReader;

    std::size_t m_history = 0; // bytes of history that stand before m_buffer[BLOCK_SIZE]
    std::uint32_t m_literals[LITERAL_TABLE];
    std::uint32_t m_distances[DISTANCE_TABLE];
    // The history, the output, and room for what the last match writes too much.
    std::uint8_t m_buffer[2 * BLOCK_SIZE + LONGEST_MATCH + 16];

    bool InflateStream(BitReader & bits, std::uint8_t * begin, std::uint8_t * end);
    bool ReadCodes(BitReader & bits);
    bool MakeFixedCodes();
    std::uint8_t * InflateBlock(BitReader & bits, std::uint8_t * out, std::uint8_t * end, std::uint8_t const * oldest);
};
} // namespace kvx::cabinet
