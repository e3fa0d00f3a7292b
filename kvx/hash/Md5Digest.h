#pragma once

/// MD5 (RFC 1321) over plain memory. It is broken: good for finding accidents, not for keeping attackers out.

#include "kvx/platform/export.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kvx::hash
{
class KVX_API Md5Digest
{
public:
    using Value = std::array<std::uint8_t, 16>;

    void Update(std::span<std::uint8_t const> data);
    /// The digest of what came so far. What fills the last block up is taken as input: whoever goes on gets no digest
    /// of anything sensible.
    Value Final();

private:
    std::uint8_t m_block[64] = {};
    std::uint32_t m_bits[2] = {}; // low, high
    std::uint32_t m_chain[4] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};
};
} // namespace kvx::hash
