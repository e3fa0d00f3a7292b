#include "kvx/hash/Md5Digest.h"

#include "kvx/hash/BlockInput.h"

namespace kvx::hash
{
namespace
{
using Word = std::uint32_t;

// Each step waits for the one before by way of `b`. So what needs only `c` and `d` is worked out apart, and a sum of
// two terms that have no bit in common stands for their union.

struct Round1
{
    static Word Of(Word b, Word c, Word d) { return d ^ (b & (c ^ d)); }
};

struct Round2
{
    static Word Of(Word b, Word c, Word d) { return (c & ~d) + (b & d); }
};

struct Round3
{
    static Word Of(Word b, Word c, Word d) { return (c ^ d) ^ b; }
};

struct Round4
{
    static Word Of(Word b, Word c, Word d) { return c ^ (b | ~d); }
};

template <class MIX, int BITS>
void Step(Word & a, Word b, Word c, Word d, Word addend)
{
    a = std::rotl(a + addend + MIX::Of(b, c, d), BITS) + b;
}

void TakeBlocks(Word * chain, std::uint8_t const * blocks, std::size_t count)
{
    Word a = chain[0];
    Word b = chain[1];
    Word c = chain[2];
    Word d = chain[3];
    for (; count > 0; --count, blocks += DIGEST_BLOCK)
    {
        Word words[16];
        std::memcpy(words, blocks, sizeof words);
        Word const first[] = {a, b, c, d};
        Step<Round1, 7>(a, b, c, d, words[0] + 0xD76AA478u);
        Step<Round1, 12>(d, a, b, c, words[1] + 0xE8C7B756u);
        Step<Round1, 17>(c, d, a, b, words[2] + 0x242070DBu);
        Step<Round1, 22>(b, c, d, a, words[3] + 0xC1BDCEEEu);
        Step<Round1, 7>(a, b, c, d, words[4] + 0xF57C0FAFu);
        Step<Round1, 12>(d, a, b, c, words[5] + 0x4787C62Au);
        Step<Round1, 17>(c, d, a, b, words[6] + 0xA8304613u);
        Step<Round1, 22>(b, c, d, a, words[7] + 0xFD469501u);
        Step<Round1, 7>(a, b, c, d, words[8] + 0x698098D8u);
        Step<Round1, 12>(d, a, b, c, words[9] + 0x8B44F7AFu);
        Step<Round1, 17>(c, d, a, b, words[10] + 0xFFFF5BB1u);
        Step<Round1, 22>(b, c, d, a, words[11] + 0x895CD7BEu);
        Step<Round1, 7>(a, b, c, d, words[12] + 0x6B901122u);
        Step<Round1, 12>(d, a, b, c, words[13] + 0xFD987193u);
        Step<Round1, 17>(c, d, a, b, words[14] + 0xA679438Eu);
        Step<Round1, 22>(b, c, d, a, words[15] + 0x49B40821u);
        Step<Round2, 5>(a, b, c, d, words[1] + 0xF61E2562u);
        Step<Round2, 9>(d, a, b, c, words[6] + 0xC040B340u);
        Step<Round2, 14>(c, d, a, b, words[11] + 0x265E5A51u);
        Step<Round2, 20>(b, c, d, a, words[0] + 0xE9B6C7AAu);
        Step<Round2, 5>(a, b, c, d, words[5] + 0xD62F105Du);
        Step<Round2, 9>(d, a, b, c, words[10] + 0x02441453u);
        Step<Round2, 14>(c, d, a, b, words[15] + 0xD8A1E681u);
        Step<Round2, 20>(b, c, d, a, words[4] + 0xE7D3FBC8u);
        Step<Round2, 5>(a, b, c, d, words[9] + 0x21E1CDE6u);
        Step<Round2, 9>(d, a, b, c, words[14] + 0xC33707D6u);
        Step<Round2, 14>(c, d, a, b, words[3] + 0xF4D50D87u);
        Step<Round2, 20>(b, c, d, a, words[8] + 0x455A14EDu);
        Step<Round2, 5>(a, b, c, d, words[13] + 0xA9E3E905u);
        Step<Round2, 9>(d, a, b, c, words[2] + 0xFCEFA3F8u);
        Step<Round2, 14>(c, d, a, b, words[7] + 0x676F02D9u);
        Step<Round2, 20>(b, c, d, a, words[12] + 0x8D2A4C8Au);
        Step<Round3, 4>(a, b, c, d, words[5] + 0xFFFA3942u);
        Step<Round3, 11>(d, a, b, c, words[8] + 0x8771F681u);
        Step<Round3, 16>(c, d, a, b, words[11] + 0x6D9D6122u);
        Step<Round3, 23>(b, c, d, a, words[14] + 0xFDE5380Cu);
        Step<Round3, 4>(a, b, c, d, words[1] + 0xA4BEEA44u);
        Step<Round3, 11>(d, a, b, c, words[4] + 0x4BDECFA9u);
        Step<Round3, 16>(c, d, a, b, words[7] + 0xF6BB4B60u);
        Step<Round3, 23>(b, c, d, a, words[10] + 0xBEBFBC70u);
        Step<Round3, 4>(a, b, c, d, words[13] + 0x289B7EC6u);
        Step<Round3, 11>(d, a, b, c, words[0] + 0xEAA127FAu);
        Step<Round3, 16>(c, d, a, b, words[3] + 0xD4EF3085u);
        Step<Round3, 23>(b, c, d, a, words[6] + 0x04881D05u);
        Step<Round3, 4>(a, b, c, d, words[9] + 0xD9D4D039u);
        Step<Round3, 11>(d, a, b, c, words[12] + 0xE6DB99E5u);
        Step<Round3, 16>(c, d, a, b, words[15] + 0x1FA27CF8u);
        Step<Round3, 23>(b, c, d, a, words[2] + 0xC4AC5665u);
        Step<Round4, 6>(a, b, c, d, words[0] + 0xF4292244u);
        Step<Round4, 10>(d, a, b, c, words[7] + 0x432AFF97u);
        Step<Round4, 15>(c, d, a, b, words[14] + 0xAB9423A7u);
        Step<Round4, 21>(b, c, d, a, words[5] + 0xFC93A039u);
        Step<Round4, 6>(a, b, c, d, words[12] + 0x655B59C3u);
        Step<Round4, 10>(d, a, b, c, words[3] + 0x8F0CCC92u);
        Step<Round4, 15>(c, d, a, b, words[10] + 0xFFEFF47Du);
        Step<Round4, 21>(b, c, d, a, words[1] + 0x85845DD1u);
        Step<Round4, 6>(a, b, c, d, words[8] + 0x6FA87E4Fu);
        Step<Round4, 10>(d, a, b, c, words[15] + 0xFE2CE6E0u);
        Step<Round4, 15>(c, d, a, b, words[6] + 0xA3014314u);
        Step<Round4, 21>(b, c, d, a, words[13] + 0x4E0811A1u);
        Step<Round4, 6>(a, b, c, d, words[4] + 0xF7537E82u);
        Step<Round4, 10>(d, a, b, c, words[11] + 0xBD3AF235u);
        Step<Round4, 15>(c, d, a, b, words[2] + 0x2AD7D2BBu);
        Step<Round4, 21>(b, c, d, a, words[9] + 0xEB86D391u);
        a += first[0];
        b += first[1];
        c += first[2];
        d += first[3];
    }
    chain[0] = a;
    chain[1] = b;
    chain[2] = c;
    chain[3] = d;
}
} // namespace

void Md5Digest::Update(std::span<std::uint8_t const> data)
{
    BlockInput{m_block, m_bits}.Take(data, m_chain, TakeBlocks);
}

Md5Digest::Value Md5Digest::Final()
{
    BlockInput{m_block, m_bits}.Close(m_chain, TakeBlocks, std::endian::little);
    Value value;
    std::memcpy(value.data(), m_chain, value.size());
    return value;
}
} // namespace kvx::hash
