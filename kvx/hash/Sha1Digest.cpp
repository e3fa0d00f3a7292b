#include "kvx/hash/Sha1Digest.h"

#include "kvx/hash/DigestPaths.h"

namespace kvx::hash
{
namespace
{
using Word = std::uint32_t;

DigestBlocks GetSha1Blocks()
{
    static DigestBlocks const s_blocks = ChoosePath(SHA1_PATHS);
    return s_blocks;
}

Word Choose(Word b, Word c, Word d)
{
    return d ^ (b & (c ^ d));
}

Word Parity(Word b, Word c, Word d)
{
    return b ^ c ^ d;
}

Word Majority(Word b, Word c, Word d)
{
    return (b & c) | (d & (b | c));
}
} // namespace

void Sha1Portable(std::uint32_t * chain, std::uint8_t const * blocks, std::size_t count)
{
    for (; count > 0; --count, blocks += DIGEST_BLOCK)
    {
        Word words[16]; // the last 16 of the schedule
        std::memcpy(words, blocks, sizeof words);
        Word a = chain[0];
        Word b = chain[1];
        Word c = chain[2];
        Word d = chain[3];
        Word e = chain[4];
        auto const rounds = [&](int first, int end, Word (*mix)(Word, Word, Word), Word constant)
        {
            for (int i = first; i < end; ++i)
            {
                Word & word = words[i % 16];
                word = i < 16 ? SwapBytes(word)
                              : std::rotl(word ^ words[(i + 13) % 16] ^ words[(i + 8) % 16] ^ words[(i + 2) % 16], 1);
                Word const next = std::rotl(a, 5) + mix(b, c, d) + e + word + constant;
                e = d;
                d = c;
                c = std::rotl(b, 30);
                b = a;
                a = next;
            }
        };
        rounds(0, 20, Choose, 0x5A827999);
        rounds(20, 40, Parity, 0x6ED9EBA1);
        rounds(40, 60, Majority, 0x8F1BBCDC);
        rounds(60, 80, Parity, 0xCA62C1D6);
        chain[0] += a;
        chain[1] += b;
        chain[2] += c;
        chain[3] += d;
        chain[4] += e;
    }
}

void Sha1Digest::Update(std::span<std::uint8_t const> data)
{
    BlockInput{m_block, m_bits}.Take(data, m_chain, GetSha1Blocks());
}

Sha1Digest::Value Sha1Digest::Final()
{
    BlockInput{m_block, m_bits}.Close(m_chain, GetSha1Blocks(), std::endian::big);
    Value value;
    for (std::size_t i = 0; i < 5; ++i)
    {
        Word const word = SwapBytes(m_chain[i]);
        std::memcpy(value.data() + 4 * i, &word, sizeof word);
    }
    // One more block runs the input out of whatever the loop has left in registers and on the stack.
    Wipe(this, sizeof *this);
    GetSha1Blocks()(m_chain, m_block, 1);
    return value;
}
} // namespace kvx::hash
