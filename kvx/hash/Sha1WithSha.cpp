#include "kvx/hash/DigestPaths.h"

#include <immintrin.h>

namespace kvx::hash
{
namespace
{
/// Four rounds a step; `words` holds the last 16 of the schedule.
struct Sha1State
{
    __m128i abcd;
    __m128i before; // abcd as it was four rounds ago, which holds the next e
    __m128i words[4];
};

template <int STEP>
[[gnu::always_inline]] inline void Step(Sha1State & state)
{
    __m128i & word = state.words[STEP % 4];
    if constexpr (STEP >= 4)
    {
        __m128i const mixed =
            _mm_xor_si128(_mm_sha1msg1_epu32(word, state.words[(STEP + 1) % 4]), state.words[(STEP + 2) % 4]);
        word = _mm_sha1msg2_epu32(mixed, state.words[(STEP + 3) % 4]);
    }
    // In the very first rounds e is there as it is.
    __m128i const e = STEP == 0 ? _mm_add_epi32(state.before, word) : _mm_sha1nexte_epu32(state.before, word);
    state.before = state.abcd;
    state.abcd = _mm_sha1rnds4_epu32(state.abcd, e, STEP / 5);
}

template <int STEP, int END>
[[gnu::always_inline]] inline void Steps(Sha1State & state)
{
    if constexpr (STEP < END)
    {
        Step<STEP>(state);
        Steps<STEP + 1, END>(state);
    }
}
} // namespace

void Sha1WithSha(std::uint32_t * chain, std::uint8_t const * blocks, std::size_t count)
{
    __m128i const swap = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    auto * const vector = reinterpret_cast<__m128i *>(chain);
    __m128i abcd = _mm_shuffle_epi32(_mm_loadu_si128(vector), 0x1B);
    __m128i e = _mm_set_epi32(static_cast<int>(chain[4]), 0, 0, 0);
    for (; count > 0; --count, blocks += 64)
    {
        Sha1State state{abcd, e, {}};
        for (int i = 0; i < 4; ++i)
        {
            auto const * const data = reinterpret_cast<__m128i const *>(blocks + 16 * i);
            state.words[i] = _mm_shuffle_epi8(_mm_loadu_si128(data), swap);
        }
        Steps<0, 20>(state);
        abcd = _mm_add_epi32(abcd, state.abcd);
        e = _mm_sha1nexte_epu32(state.before, e);
    }
    _mm_storeu_si128(vector, _mm_shuffle_epi32(abcd, 0x1B));
    chain[4] = static_cast<std::uint32_t>(_mm_extract_epi32(e, 3));
}
} // namespace kvx::hash
