#include "kvx/hash/Crc32.h"

#include "kvx/hash/Crc32Paths.h"

#include <array>
#include <cstring>

namespace kvx::hash
{
namespace
{
constexpr std::size_t SLICES = 16;

/// The remainder of a byte that has 0 to 15 bytes of zeros behind it.
constexpr std::array<std::array<std::uint32_t, 256>, SLICES> TABLES = []
{
    std::array<std::array<std::uint32_t, 256>, SLICES> tables{};
    for (std::uint32_t i = 0; i < 256; ++i)
    {
        std::uint32_t remainder = i;
        for (int bit = 0; bit < 8; ++bit)
        {
            remainder = remainder >> 1 ^ (remainder & 1 ? CRC_POLYNOMIAL : 0);
        }
        tables[0][i] = remainder;
    }
    for (std::size_t zeros = 1; zeros < SLICES; ++zeros)
    {
        for (std::size_t i = 0; i < 256; ++i)
        {
            std::uint32_t const remainder = tables[zeros - 1][i];
            tables[zeros][i] = remainder >> 8 ^ tables[0][remainder & 0xFF];
        }
    }
    return tables;
}();
} // namespace

std::uint32_t CrcPortable(std::uint32_t remainder, std::uint8_t const * data, std::size_t size)
{
    for (; size >= SLICES; size -= SLICES, data += SLICES)
    {
        std::uint32_t words[4];
        std::memcpy(words, data, sizeof words);
        words[0] ^= remainder;
        remainder = 0;
        for (std::size_t i = 0; i < 4; ++i)
        {
            remainder ^= TABLES[15 - 4 * i][words[i] & 0xFF] ^ TABLES[14 - 4 * i][words[i] >> 8 & 0xFF] ^
                         TABLES[13 - 4 * i][words[i] >> 16 & 0xFF] ^ TABLES[12 - 4 * i][words[i] >> 24];
        }
    }
    for (; size > 0; --size, ++data)
    {
        remainder = remainder >> 8 ^ TABLES[0][(remainder ^ *data) & 0xFF];
    }
    return remainder;
}

std::uint32_t Crc32(std::span<std::uint8_t const> data, std::uint32_t previous)
{
    static CrcBytes const s_bytes = ChoosePath(CRC_PATHS);
    return ~s_bytes(~previous, data.data(), data.size());
}
} // namespace kvx::hash
