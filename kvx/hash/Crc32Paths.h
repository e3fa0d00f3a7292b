#pragma once

/// The inner loops of CRC-32 for the instruction sets.

#include "kvx/hash/CpuPaths.h"

#include <cstddef>

namespace kvx::hash
{
/// Takes bytes into the remainder, which isn't inverted here.
using CrcBytes = std::uint32_t (*)(std::uint32_t remainder, std::uint8_t const * data, std::size_t size);

std::uint32_t CrcPortable(std::uint32_t remainder, std::uint8_t const * data, std::size_t size);
std::uint32_t CrcPclmul(std::uint32_t remainder, std::uint8_t const * data, std::size_t size);
std::uint32_t CrcVpclmul(std::uint32_t remainder, std::uint8_t const * data, std::size_t size);

inline constexpr CpuPath<CrcBytes> CRC_PATHS[] = {
    {"VPCLMULQDQ", CPU_VPCLMUL | CPU_AVX512 | CPU_PCLMUL | CPU_SSE41, CrcVpclmul},
    {"PCLMULQDQ", CPU_PCLMUL | CPU_SSE41, CrcPclmul},
    {"portable", 0, CrcPortable}};

inline constexpr std::uint32_t CRC_POLYNOMIAL = 0xEDB88320;

/// x to this power modulo the polynomial, reflected and one to the left: what moves 64 bits on by `power - 32` bits, or
/// by `power + 32` the ones that lie behind, when their product is taken without carries.
constexpr std::uint64_t CrcFactor(int power)
{
    std::uint32_t remainder = 0x80000000; // 1
    for (; power > 0; --power)
    {
        remainder = remainder >> 1 ^ (remainder & 1 ? CRC_POLYNOMIAL : 0);
    }
    return static_cast<std::uint64_t>(remainder) << 1;
}
} // namespace kvx::hash
