#include "kvx/hash/Base64Paths.h"

#include <immintrin.h>

// As the SSSE3 path, on two blocks at a time.

namespace kvx::hash
{
namespace
{
/// 24 bytes as 32 characters.
__m256i EncodeBlock(std::uint8_t const * data)
{
    __m128i const first = _mm_loadu_si128(reinterpret_cast<__m128i const *>(data));
    __m128i const second = _mm_loadu_si128(reinterpret_cast<__m128i const *>(data + 8)); // not beyond the 24
    __m256i const raw = _mm256_inserti128_si256(_mm256_castsi128_si256(first), second, 1);
    __m256i const order = _mm256_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10, //
                                           5, 4, 6, 5, 8, 7, 9, 8, 11, 10, 12, 11, 14, 13, 15, 14);
    __m256i const words = _mm256_shuffle_epi8(raw, order);
    __m256i const high =
        _mm256_mulhi_epu16(_mm256_and_si256(words, _mm256_set1_epi32(0x0FC0FC00)), _mm256_set1_epi32(0x04000040));
    __m256i const low =
        _mm256_mullo_epi16(_mm256_and_si256(words, _mm256_set1_epi32(0x003F03F0)), _mm256_set1_epi32(0x01000010));
    __m256i const values = _mm256_or_si256(high, low);
    __m256i const capitals = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), values);
    __m256i const kinds = _mm256_or_si256(_mm256_subs_epu8(values, _mm256_set1_epi8(51)),
                                          _mm256_and_si256(capitals, _mm256_set1_epi8(13)));
    __m256i const distances = _mm256_broadcastsi128_si256(
        _mm_setr_epi8('a' - 26, -4, -4, -4, -4, -4, -4, -4, -4, -4, -4, '+' - 62, '/' - 63, 'A', 0, 0));
    return _mm256_add_epi8(values, _mm256_shuffle_epi8(distances, kinds));
}

void Store(char * out, __m256i characters)
{
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), characters);
}

void Store(WCHAR * out, __m256i characters)
{
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), _mm256_cvtepu8_epi16(_mm256_castsi256_si128(characters)));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out + 16),
                        _mm256_cvtepu8_epi16(_mm256_extracti128_si256(characters, 1)));
}

template <class UNIT>
void EncodeLines(std::uint8_t const * data, std::size_t lines, UNIT * out, bool ends)
{
    for (; lines > 0; --lines, data += 57, out += 76)
    {
        Store(out, EncodeBlock(data));
        Store(out + 32, EncodeBlock(data + 24));
        Store(out + 44, EncodeBlock(data + 33)); // most of it once more
        if (ends)
        {
            out[76] = '\r';
            out[77] = '\n';
            out += 2;
        }
    }
}
/// 32 characters as 24 bytes, with 8 that mean nothing behind them. The result has a bit for each that is no digit.
std::uint32_t DecodeBlock(char const * from, std::uint8_t * out)
{
    // A character is a digit if no kind of fault that its upper half may have goes with its lower half.
    __m256i const faultsOfLow = _mm256_broadcastsi128_si256(
        _mm_setr_epi8(0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1A, 0x1B, 0x1B, 0x1B, 0x1A));
    __m256i const faultsOfHigh = _mm256_broadcastsi128_si256(
        _mm_setr_epi8(0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10));
    // By the upper half, which for the slash is counted one less.
    __m256i const distances = _mm256_broadcastsi128_si256(
        _mm_setr_epi8(0, 63 - '/', 62 - '+', 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0));
    __m256i const half = _mm256_set1_epi8(0x0F);
    __m256i const pack =
        _mm256_broadcastsi128_si256(_mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
    __m256i const join = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
    __m256i const text = _mm256_loadu_si256(reinterpret_cast<__m256i const *>(from));
    __m256i const high = _mm256_and_si256(_mm256_srli_epi32(text, 4), half);
    __m256i const faults = _mm256_and_si256(_mm256_shuffle_epi8(faultsOfLow, _mm256_and_si256(text, half)),
                                            _mm256_shuffle_epi8(faultsOfHigh, high));
    __m256i const slash = _mm256_cmpeq_epi8(text, _mm256_set1_epi8('/'));
    __m256i const values = _mm256_add_epi8(text, _mm256_shuffle_epi8(distances, _mm256_add_epi8(high, slash)));
    __m256i const pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    __m256i const words = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
    __m256i const bytes = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(words, pack), join);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(out), bytes);
    return ~static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(faults, _mm256_setzero_si256())));
}
} // namespace

void EncodeNarrowAvx2(std::uint8_t const * data, std::size_t lines, char * out, bool ends)
{
    EncodeLines(data, lines, out, ends);
}

void EncodeWideAvx2(std::uint8_t const * data, std::size_t lines, WCHAR * out, bool ends)
{
    EncodeLines(data, lines, out, ends);
}

void DecodeAvx2(DecodeCursor & cursor)
{
    constexpr std::ptrdiff_t LINE = BASE64_LINE;
    constexpr std::ptrdiff_t LINE_DATA = BASE64_LINE_DATA;
    char const * text = cursor.pText;
    std::uint8_t * out = cursor.pOut;
    for (;;)
    {
        // The lines of an encoder: where one begins doesn't wait for what was in the one before.
        while (cursor.pTextEnd - text >= LINE + 2 && cursor.pOutEnd - out >= LINE_DATA + 8 && text[LINE] == '\r' &&
               text[LINE + 1] == '\n')
        {
            std::uint32_t const bad =
                DecodeBlock(text, out) | DecodeBlock(text + 32, out + 24) | DecodeBlock(text + 44, out + 33);
            if (bad != 0)
            {
                break;
            }
            text += LINE + 2;
            out += LINE_DATA;
        }
        if (cursor.pTextEnd - text < 32 || cursor.pOutEnd - out < 32)
        {
            break;
        }
        std::uint32_t const bad = DecodeBlock(text, out);
        if (bad == 0)
        {
            text += 32;
            out += 24;
            continue;
        }
        int const digits = __builtin_ctz(bad);
        text += digits & ~3;
        out += digits / 4 * 3;
        if (digits % 4 != 0 || *text == 0)
        {
            break;
        }
        text += digits < 31 && text[1] == '\n' ? 2 : 1;
    }
    cursor.pText = text;
    cursor.pOut = out;
}
} // namespace kvx::hash
