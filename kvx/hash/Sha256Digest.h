#pragma once

/// SHA-256 (FIPS 180-4) over plain memory.

#include "kvx/platform/export.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kvx::hash
{
class KVX_API Sha256Digest
{
public:
    using Value = std::array<std::uint8_t, 32>;

    /// Begins anew.
    void Reset() { *this = Sha256Digest(); }
    void Update(std::span<std::uint8_t const> data);
    /// The digest of what came so far; the object has begun anew then.
    Value Final();

private:
    std::uint32_t m_chain[8] = {0x6A09E667, 0xBB67AE85, 0x3C6EF372, 0xA54FF53A,
                                0x510E527F, 0x9B05688C, 0x1F83D9AB, 0x5BE0CD19};
    std::uint32_t m_bits[2] = {}; // low, high
    std::uint8_t m_block[64] = {};
};
} // namespace kvx::hash
