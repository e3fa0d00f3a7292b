#include "kvx/hash/Crc32Paths.h"

#include <immintrin.h>

// As the PCLMULQDQ path, on four times 128 bits at a time.

namespace kvx::hash
{
namespace
{
template <int BITS>
__m512i GetFactors()
{
    constexpr auto NEAR_HALF = static_cast<long long>(CrcFactor(BITS + 32));
    constexpr auto FAR_HALF = static_cast<long long>(CrcFactor(BITS - 32));
    return _mm512_setr_epi64(NEAR_HALF, FAR_HALF, NEAR_HALF, FAR_HALF, NEAR_HALF, FAR_HALF, NEAR_HALF, FAR_HALF);
}

__m512i Fold(__m512i bits, __m512i factors, __m512i met)
{
    constexpr int XOR_OF_THREE = 0x96;
    return _mm512_ternarylogic_epi64(_mm512_clmulepi64_epi128(bits, factors, 0x00),
                                     _mm512_clmulepi64_epi128(bits, factors, 0x11), met, XOR_OF_THREE);
}
} // namespace

std::uint32_t CrcVpclmul(std::uint32_t remainder, std::uint8_t const * data, std::size_t size)
{
    if (size < 512)
    {
        return CrcPclmul(remainder, data, size);
    }
    __m512i bits[4];
    for (int i = 0; i < 4; ++i)
    {
        bits[i] = _mm512_loadu_si512(data + 64 * i);
    }
    bits[0] = _mm512_xor_si512(bits[0], _mm512_zextsi128_si512(_mm_cvtsi32_si128(static_cast<int>(remainder))));
    __m512i const factors = GetFactors<2048>();
    for (data += 256, size -= 256; size >= 256; data += 256, size -= 256)
    {
        for (int i = 0; i < 4; ++i)
        {
            bits[i] = Fold(bits[i], factors, _mm512_loadu_si512(data + 64 * i));
        }
    }
    __m512i const next = GetFactors<512>();
    __m512i last = Fold(Fold(Fold(bits[0], next, bits[1]), next, bits[2]), next, bits[3]);
    for (; size >= 64; data += 64, size -= 64)
    {
        last = Fold(last, next, _mm512_loadu_si512(data));
    }
    // 64 bytes with a remainder of zero before them.
    alignas(64) std::uint8_t end[64];
    _mm512_store_si512(end, last);
    return CrcPclmul(CrcPclmul(0, end, sizeof end), data, size);
}
} // namespace kvx::hash
