#pragma once

/// What the digests share: input of any length becomes blocks of 64 bytes, and the last one is filled up (FIPS 180-4,
/// section 5.1; RFC 1321, section 3).

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace kvx::hash
{
inline constexpr std::size_t DIGEST_BLOCK = 64;

/// Takes `count` blocks into the chaining words.
using DigestBlocks = void (*)(std::uint32_t * chain, std::uint8_t const * blocks, std::size_t count);

/// Overwrites memory that held something private, even if nobody reads it any more.
inline void Wipe(void * memory, std::size_t size)
{
    std::memset(memory, 0, size);
    asm volatile("" : : "r"(memory) : "memory");
}

inline std::uint32_t SwapBytes(std::uint32_t word)
{
    return __builtin_bswap32(word);
}

/// A block that fills up and the number of bits so far, low word first: members of a digest.
struct BlockInput
{
    std::uint8_t * pBlock;
    std::uint32_t * pBits;

    std::size_t GetFilled() const { return pBits[0] / 8 % DIGEST_BLOCK; }

    void Take(std::span<std::uint8_t const> data, std::uint32_t * chain, DigestBlocks blocks)
    {
        std::size_t const filled = GetFilled();
        std::uint64_t const bits = ((static_cast<std::uint64_t>(pBits[1]) << 32) | pBits[0]) + data.size() * 8ull;
        pBits[0] = static_cast<std::uint32_t>(bits);
        pBits[1] = static_cast<std::uint32_t>(bits >> 32);
        if (filled > 0)
        {
            std::size_t const room = DIGEST_BLOCK - filled;
            std::size_t const part = data.size() < room ? data.size() : room;
            if (part > 0)
            {
                std::memcpy(pBlock + filled, data.data(), part);
            }
            data = data.subspan(part);
            if (part < room)
            {
                return;
            }
            blocks(chain, pBlock, 1);
        }
        std::size_t const whole = data.size() / DIGEST_BLOCK;
        if (whole > 0)
        {
            blocks(chain, data.data(), whole);
            data = data.subspan(whole * DIGEST_BLOCK);
        }
        if (!data.empty())
        {
            std::memcpy(pBlock, data.data(), data.size());
        }
    }

    /// Takes a one bit, zeros and the length. This is input like any other: a digest that goes on counts it.
    void Close(std::uint32_t * chain, DigestBlocks blocks, std::endian order)
    {
        std::uint64_t length = (static_cast<std::uint64_t>(pBits[1]) << 32) | pBits[0];
        length = order == std::endian::big ? __builtin_bswap64(length) : length;
        std::uint8_t fill[DIGEST_BLOCK + 8] = {0x80};
        std::size_t const filled = GetFilled();
        std::size_t const zeros = (filled < DIGEST_BLOCK - 8 ? DIGEST_BLOCK : 2 * DIGEST_BLOCK) - 8 - filled;
        std::memcpy(fill + zeros, &length, sizeof length);
        Take(std::span(fill, zeros + sizeof length), chain, blocks);
    }
};
} // namespace kvx::hash
