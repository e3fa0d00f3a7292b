#include "kvx/cabinet/CabFormat.h"

#include <bit>
#include <cstring>

namespace kvx::cabinet
{
std::uint32_t Checksum(std::span<std::uint8_t const> data, std::uint32_t seed)
{
    static_assert(std::endian::native == std::endian::little);
    std::uint64_t wide[4] = {};
    while (data.size() >= sizeof wide)
    {
        std::uint64_t piece[4];
        std::memcpy(piece, data.data(), sizeof piece);
        for (int i = 0; i < 4; i++)
        {
            wide[i] ^= piece[i];
        }
        data = data.subspan(sizeof wide);
    }
    std::uint64_t const folded = wide[0] ^ wide[1] ^ wide[2] ^ wide[3];
    std::uint32_t sum = seed ^ static_cast<std::uint32_t>(folded) ^ static_cast<std::uint32_t>(folded >> 32);
    for (; data.size() >= 4; data = data.subspan(4))
    {
        sum ^= GetDword(data.data());
    }
    std::uint32_t rest = 0;
    for (std::uint8_t byte : data)
    {
        rest = rest << 8 | byte;
    }
    return sum ^ rest;
}
} // namespace kvx::cabinet
