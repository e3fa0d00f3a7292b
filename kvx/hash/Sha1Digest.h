#pragma once

/// SHA-1 (FIPS 180-4) over plain memory. It is broken: good for finding accidents, not for keeping attackers out.

#include "kvx/platform/export.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kvx::hash
{
class KVX_API Sha1Digest
{
public:
    using Value = std::array<std::uint8_t, 20>;

    /// Begins anew.
    void Reset() { *this = Sha1Digest(); }
    void Update(std::span<std::uint8_t const> data);
    /// The digest of what came so far. Nothing of the input stays in the object, which needs a Reset.
    Value Final();

private:
    std::uint32_t m_chain[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    std::uint32_t m_bits[2] = {}; // low, high
    std::uint8_t m_block[64] = {};
};
} // namespace kvx::hash
