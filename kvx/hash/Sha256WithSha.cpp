#include "kvx/hash/DigestPaths.h"

#include <immintrin.h>

namespace kvx::hash
{
namespace
{
/// Four rounds a step; `words` holds the last 16 of the schedule.
struct Sha256State
{
    __m128i abef;
    __m128i cdgh;
    __m128i words[4];
};

template <int STEP>
[[gnu::always_inline]] inline void Step(Sha256State & state)
{
    __m128i & word = state.words[STEP % 4];
    if constexpr (STEP >= 4)
    {
        __m128i const last = state.words[(STEP + 3) % 4];
        __m128i const mixed = _mm_add_epi32(_mm_sha256msg1_epu32(word, state.words[(STEP + 1) % 4]),
                                            _mm_alignr_epi8(last, state.words[(STEP + 2) % 4], 4));
        word = _mm_sha256msg2_epu32(mixed, last);
    }
    auto const * const constants = reinterpret_cast<__m128i const *>(SHA256_CONSTANTS + 4 * STEP);
    __m128i const addends = _mm_add_epi32(word, _mm_loadu_si128(constants));
    state.cdgh = _mm_sha256rnds2_epu32(state.cdgh, state.abef, addends);
    state.abef = _mm_sha256rnds2_epu32(state.abef, state.cdgh, _mm_shuffle_epi32(addends, 0x0E));
}

template <int STEP, int END>
[[gnu::always_inline]] inline void Steps(Sha256State & state)
{
    if constexpr (STEP < END)
    {
        Step<STEP>(state);
        Steps<STEP + 1, END>(state);
    }
}
} // namespace

void Sha256WithSha(std::uint32_t * chain, std::uint8_t const * blocks, std::size_t count)
{
    __m128i const swap = _mm_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
    auto * const vectors = reinterpret_cast<__m128i *>(chain);
    __m128i const cdab = _mm_shuffle_epi32(_mm_loadu_si128(vectors), 0xB1);
    __m128i const efgh = _mm_shuffle_epi32(_mm_loadu_si128(vectors + 1), 0x1B);
    __m128i abef = _mm_alignr_epi8(cdab, efgh, 8);
    __m128i cdgh = _mm_blend_epi16(efgh, cdab, 0xF0);
    for (; count > 0; --count, blocks += 64)
    {
        Sha256State state{abef, cdgh, {}};
        for (int i = 0; i < 4; ++i)
        {
            auto const * const data = reinterpret_cast<__m128i const *>(blocks + 16 * i);
            state.words[i] = _mm_shuffle_epi8(_mm_loadu_si128(data), swap);
        }
        Steps<0, 16>(state);
        abef = _mm_add_epi32(abef, state.abef);
        cdgh = _mm_add_epi32(cdgh, state.cdgh);
    }
    __m128i const feba = _mm_shuffle_epi32(abef, 0x1B);
    __m128i const dchg = _mm_shuffle_epi32(cdgh, 0xB1);
    _mm_storeu_si128(vectors, _mm_blend_epi16(feba, dchg, 0xF0));
    _mm_storeu_si128(vectors + 1, _mm_alignr_epi8(dchg, feba, 8));
}
} // namespace kvx::hash
