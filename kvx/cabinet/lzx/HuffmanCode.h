#pragma once

/// Canonical Huffman codes of limited length, for encoders.

#include <cstddef>
#include <cstdint>
#include <span>

namespace kvx::cabinet
{
/// Most symbols that a code may have.
inline constexpr std::size_t MAX_CODE_SYMBOLS = 1024;

/// Gives each symbol the bits of its code word, 0 for those that don't occur, and none more than `maxBits`, which is
/// enough for all of them and at most 16. The code is complete, as readers want it: where a single symbol occurs, a
/// second one gets a word as well. Frequencies add up to less than 2^32.
void MakeCodeLengths(std::span<std::uint32_t const> frequencies, unsigned maxBits, std::span<std::uint8_t> lengths);

/// The code words of such lengths, in their lowest bits.
void MakeCodeWords(std::span<std::uint8_t const> lengths, std::span<std::uint16_t> words);
} // namespace kvx::cabinet
