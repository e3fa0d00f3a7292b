#pragma once

/// LZX as cabinets have it ([MS-CAB], and [MS-PATCH] without its deltas). A stream of 16-bit words, the low byte first,
/// whose bits count from the highest:
///
///     stream    1 bit, and if it is set the size for the translation of calls in 32 bits; blocks
///     block     3 bits type, 24 bits uncompressed size, and
///       verbatim      lengths of the main and the length code; items
///       aligned       8 lengths of 3 bits of the aligned code; then as verbatim
///       uncompressed  1 to 16 bits up to a word's end; R0, R1, R2 as double words; bytes; one more if they are odd
///     lengths   20 lengths of 4 bits of the pre-code; differences to the block before, modulo 17, and runs
///     item      main symbol: a byte, or 256 + 8 * slot of the offset + length (7: a symbol of the length code
///     follows);
///               bits of the offset, of which the aligned code gives the lowest three if there are as many
///
/// The output is a row of frames of 32,768 bytes. The input of each is filled up to a whole word; items don't cross
/// frames, blocks do. Offsets 1 to 3 less than the window; slots 0 to 2 stand for the last three different ones.

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace kvx::cabinet::lzx
{
inline constexpr unsigned MIN_WINDOW_BITS = 15;
inline constexpr unsigned MAX_WINDOW_BITS = 21;
inline constexpr unsigned FRAME_SIZE = 32768;

inline constexpr unsigned MIN_MATCH = 2;
inline constexpr unsigned MAX_MATCH = 257;
/// Lengths of so much and more have a symbol of the length code.
inline constexpr unsigned LONG_MATCH = MIN_MATCH + 7;

inline constexpr unsigned LITERALS = 256;
inline constexpr unsigned MAX_SLOTS = 50;
inline constexpr unsigned MAIN_SYMBOLS = LITERALS + 8 * MAX_SLOTS; ///< with the largest window
inline constexpr unsigned LENGTH_SYMBOLS = MAX_MATCH - LONG_MATCH + 1;
inline constexpr unsigned ALIGNED_SYMBOLS = 8;
inline constexpr unsigned PRE_SYMBOLS = 20;
inline constexpr unsigned MAX_CODE = 16;        ///< bits of a symbol of the main and the length code
inline constexpr unsigned MAX_ALIGNED_CODE = 7; ///< of the aligned code
inline constexpr unsigned MAX_PRE_CODE = 15;    ///< of the pre-code
inline constexpr unsigned LENGTH_MODULUS = 17;  ///< of differences of lengths
inline constexpr unsigned SHORT_ZEROS = 17;     ///< pre-symbol: zeros, 4 and what 4 bits say
inline constexpr unsigned LONG_ZEROS = 18;      ///< 20 and what 5 bits say
inline constexpr unsigned SAME = 19;            ///< 4 or, by a bit, 5 times the length whose pre-symbol follows
inline constexpr unsigned MIN_SHORT_ZEROS = 4;
inline constexpr unsigned MIN_LONG_ZEROS = 20;
inline constexpr unsigned MIN_SAME = 4;

inline constexpr unsigned TYPE_VERBATIM = 1;
inline constexpr unsigned TYPE_ALIGNED = 2;
inline constexpr unsigned TYPE_UNCOMPRESSED = 3;

/// Bits of an offset beyond its slot.
constexpr unsigned ExtraBits(unsigned slot)
{
    return slot < 4 ? 0 : slot < 36 ? slot / 2 - 1 : 17;
}
/// What an offset's slot and bits count is by two more than the offset.
inline constexpr unsigned OFFSET_BIAS = 2;

inline constexpr std::array<std::uint32_t, MAX_SLOTS + 1> SLOT_BASES = []
{
    std::array<std::uint32_t, MAX_SLOTS + 1> bases{};
    for (unsigned slot = 0; slot < MAX_SLOTS; slot++)
    {
        bases[slot + 1] = bases[slot] + (1u << ExtraBits(slot));
    }
    return bases;
}();

/// The slot of an offset that is none of the last three.
constexpr unsigned SlotOf(std::uint32_t offset)
{
    std::uint32_t const value = offset + OFFSET_BIAS;
    if (value >= SLOT_BASES[36])
    {
        return 34 + (value >> 17);
    }
    unsigned const log = static_cast<unsigned>(std::bit_width(value)) - 1;
    return 2 * log + (value >> (log - 1) & 1);
}

/// The slots of a window.
constexpr unsigned SlotCount(unsigned windowBits)
{
    return SlotOf((1u << windowBits) - OFFSET_BIAS - 1) + 1;
}
static_assert(SlotCount(15) == 30 && SlotCount(16) == 32 && SlotCount(17) == 34 && SlotCount(18) == 36 &&
              SlotCount(19) == 38 && SlotCount(20) == 42 && SlotCount(21) == 50);

/// The greatest offset in a window.
constexpr std::uint32_t MaxOffset(unsigned windowBits)
{
    return (1u << windowBits) - 3;
}

constexpr bool IsWindow(unsigned windowBits)
{
    return windowBits >= MIN_WINDOW_BITS && windowBits <= MAX_WINDOW_BITS;
}
} // namespace kvx::cabinet::lzx
