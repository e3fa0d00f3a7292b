#pragma once

/// Blowfish (B. Schneier, 1993) in ECB mode over plain memory: each block of 8 bytes is two big-endian words, and is
/// enciphered by itself.

#include "kvx/platform/export.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace kvx::hash
{
class KVX_API Blowfish
{
public:
    static constexpr std::size_t BLOCK = 8;

    /// `key` has at least one byte, of which the first 72 count.
    explicit Blowfish(std::span<std::uint8_t const> key);
    Blowfish(Blowfish const &) = delete;
    Blowfish & operator=(Blowfish const &) = delete;
    ~Blowfish();

    /// So many whole blocks; `out` may be `in`. Any thread.
    void Encrypt(std::uint8_t const * in, std::uint8_t * out, std::size_t blocks) const;
    void Decrypt(std::uint8_t const * in, std::uint8_t * out, std::size_t blocks) const;

private:
    struct Schedule
    {
        std::uint32_t subkeys[18];
        std::uint32_t boxes[4][256];
    };
    static Schedule const INITIAL;

    Schedule m_schedule;
};
} // namespace kvx::hash
