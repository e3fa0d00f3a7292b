#include "kvx/hash/Base64Paths.h"

#include <tmmintrin.h>

// Three bytes of data become a word of 32 bits in which each half holds two digits; multiplications move each digit to
// a byte of its own. A digit's letter lies at one of five distances from its value, found by a look-up of 16 entries.

namespace kvx::hash
{
namespace
{
/// The first 12 of the 16 bytes, or with `LAST` the last 12, as 16 characters.
template <bool LAST>
__m128i EncodeBlock(std::uint8_t const * data)
{
    __m128i const raw = _mm_loadu_si128(reinterpret_cast<__m128i const *>(data));
    __m128i const order = LAST ? _mm_setr_epi8(5, 4, 6, 5, 8, 7, 9, 8, 11, 10, 12, 11, 14, 13, 15, 14)
                               : _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
    __m128i const words = _mm_shuffle_epi8(raw, order);
    __m128i const high = _mm_mulhi_epu16(_mm_and_si128(words, _mm_set1_epi32(0x0FC0FC00)), _mm_set1_epi32(0x04000040));
    __m128i const low = _mm_mullo_epi16(_mm_and_si128(words, _mm_set1_epi32(0x003F03F0)), _mm_set1_epi32(0x01000010));
    __m128i const values = _mm_or_si128(high, low);
    // 0 for small letters, 1 to 10 for figures, 11 and 12 for the signs; 13 for capitals.
    __m128i const capitals = _mm_cmpgt_epi8(_mm_set1_epi8(26), values);
    __m128i const kinds =
        _mm_or_si128(_mm_subs_epu8(values, _mm_set1_epi8(51)), _mm_and_si128(capitals, _mm_set1_epi8(13)));
    __m128i const distances =
        _mm_setr_epi8('a' - 26, -4, -4, -4, -4, -4, -4, -4, -4, -4, -4, '+' - 62, '/' - 63, 'A', 0, 0);
    return _mm_add_epi8(values, _mm_shuffle_epi8(distances, kinds));
}

void Store(char * out, __m128i characters)
{
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out), characters);
}

void Store(WCHAR * out, __m128i characters)
{
    __m128i const zero = _mm_setzero_si128();
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out), _mm_unpacklo_epi8(characters, zero));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(out + 8), _mm_unpackhi_epi8(characters, zero));
}

template <class UNIT>
void EncodeLines(std::uint8_t const * data, std::size_t lines, UNIT * out, bool ends)
{
    for (; lines > 0; --lines, data += 57, out += 76)
    {
        Store(out, EncodeBlock<false>(data));
        Store(out + 16, EncodeBlock<false>(data + 12));
        Store(out + 32, EncodeBlock<false>(data + 24));
        Store(out + 48, EncodeBlock<false>(data + 36));
        Store(out + 60, EncodeBlock<true>(data + 41)); // a part of it once more
        if (ends)
        {
            out[76] = '\r';
            out[77] = '\n';
            out += 2;
        }
    }
}
} // namespace

void EncodeNarrowSsse3(std::uint8_t const * data, std::size_t lines, char * out, bool ends)
{
    EncodeLines(data, lines, out, ends);
}

void EncodeWideSsse3(std::uint8_t const * data, std::size_t lines, WCHAR * out, bool ends)
{
    EncodeLines(data, lines, out, ends);
}

void DecodeSsse3(DecodeCursor & cursor)
{
    // A character is a digit if no kind of fault that its upper half may have goes with its lower half.
    __m128i const faultsOfLow =
        _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A);
    __m128i const faultsOfHigh =
        _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10);
    // By the upper half, which for the slash is counted one less.
    __m128i const distances = _mm_setr_epi8(0, 63 - '/', 62 - '+', 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0);
    __m128i const half = _mm_set1_epi8(0x0F);
    __m128i const pack = _mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1);
    while (cursor.pTextEnd - cursor.pText >= 16 && cursor.pOutEnd - cursor.pOut >= 16)
    {
        __m128i const text = _mm_loadu_si128(reinterpret_cast<__m128i const *>(cursor.pText));
        __m128i const high = _mm_and_si128(_mm_srli_epi32(text, 4), half);
        __m128i const faults = _mm_and_si128(_mm_shuffle_epi8(faultsOfLow, _mm_and_si128(text, half)),
                                             _mm_shuffle_epi8(faultsOfHigh, high));
        int const good = _mm_movemask_epi8(_mm_cmpeq_epi8(faults, _mm_setzero_si128()));
        __m128i const slash = _mm_cmpeq_epi8(text, _mm_set1_epi8('/'));
        __m128i const values = _mm_add_epi8(text, _mm_shuffle_epi8(distances, _mm_add_epi8(high, slash)));
        __m128i const pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
        __m128i const words = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(cursor.pOut), _mm_shuffle_epi8(words, pack));
        if (good == 0xFFFF)
        {
            cursor.pText += 16;
            cursor.pOut += 12;
            continue;
        }
        int const digits = __builtin_ctz(static_cast<unsigned>(~good));
        cursor.pText += digits & ~3;
        cursor.pOut += digits / 4 * 3;
        if (digits % 4 != 0 || *cursor.pText == 0)
        {
            return;
        }
        cursor.pText += digits < 15 && cursor.pText[1] == '\n' ? 2 : 1;
    }
}
} // namespace kvx::hash
