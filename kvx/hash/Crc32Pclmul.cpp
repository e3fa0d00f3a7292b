#include "kvx/hash/Crc32Paths.h"

#include <immintrin.h>

// Folding (V. Gopal and others, "Fast CRC Computation for Generic Polynomials Using PCLMULQDQ Instruction", Intel
// 2009): 128 bits are moved over what follows by two products without carries, and take what they meet in with them.
// The 128 bits of the end are left to the table.

namespace kvx::hash
{
namespace
{
/// The two factors that move 128 bits on by so many bits.
template <int BITS>
__m128i GetFactors()
{
    constexpr std::uint64_t NEAR_HALF = CrcFactor(BITS + 32);
    constexpr std::uint64_t FAR_HALF = CrcFactor(BITS - 32);
    return _mm_set_epi64x(static_cast<long long>(FAR_HALF), static_cast<long long>(NEAR_HALF));
}

__m128i Fold(__m128i bits, __m128i factors, __m128i met)
{
    __m128i const first = _mm_clmulepi64_si128(bits, factors, 0x00);
    __m128i const second = _mm_clmulepi64_si128(bits, factors, 0x11);
    return _mm_xor_si128(_mm_xor_si128(first, second), met);
}

__m128i Load(std::uint8_t const * data)
{
    return _mm_loadu_si128(reinterpret_cast<__m128i const *>(data));
}
} // namespace

std::uint32_t CrcPclmul(std::uint32_t remainder, std::uint8_t const * data, std::size_t size)
{
    if (size < 64)
    {
        return CrcPortable(remainder, data, size);
    }
    __m128i bits[4];
    for (int i = 0; i < 4; ++i)
    {
        bits[i] = Load(data + 16 * i);
    }
    bits[0] = _mm_xor_si128(bits[0], _mm_cvtsi32_si128(static_cast<int>(remainder)));
    __m128i const factors = GetFactors<512>();
    for (data += 64, size -= 64; size >= 64; data += 64, size -= 64)
    {
        for (int i = 0; i < 4; ++i)
        {
            bits[i] = Fold(bits[i], factors, Load(data + 16 * i));
        }
    }
    __m128i const next = GetFactors<128>();
    __m128i last = Fold(Fold(Fold(bits[0], next, bits[1]), next, bits[2]), next, bits[3]);
    for (; size >= 16; data += 16, size -= 16)
    {
        last = Fold(last, next, Load(data));
    }
    alignas(16) std::uint8_t end[16];
    _mm_store_si128(reinterpret_cast<__m128i *>(end), last);
    return CrcPortable(CrcPortable(0, end, sizeof end), data, size);
}
} // namespace kvx::hash
