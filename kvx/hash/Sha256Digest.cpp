#include "kvx/hash/Sha256Digest.h"

#include "kvx/hash/DigestPaths.h"

namespace kvx::hash
{
namespace
{
using Word = std::uint32_t;

DigestBlocks GetSha256Blocks()
{
    static DigestBlocks const s_blocks = ChoosePath(SHA256_PATHS);
    return s_blocks;
}
} // namespace

void Sha256Portable(std::uint32_t * chain, std::uint8_t const * blocks, std::size_t count)
{
    for (; count > 0; --count, blocks += DIGEST_BLOCK)
    {
        Word words[16]; // the last 16 of the schedule
        std::memcpy(words, blocks, sizeof words);
        Word s[8];
        std::memcpy(s, chain, sizeof s);
        auto const round = [&words](int i, Word a, Word b, Word c, Word & d, Word e, Word f, Word g, Word & h)
        {
            Word & word = words[i % 16];
            if (i < 16)
            {
                word = SwapBytes(word);
            }
            else
            {
                Word const early = words[(i + 1) % 16];
                Word const late = words[(i + 14) % 16];
                word += (std::rotr(early, 7) ^ std::rotr(early, 18) ^ early >> 3) + words[(i + 9) % 16] +
                        (std::rotr(late, 17) ^ std::rotr(late, 19) ^ late >> 10);
            }
            Word const sum = h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) + (g ^ (e & (f ^ g))) +
                             SHA256_CONSTANTS[i] + word;
            d += sum;
            h = sum + (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) | (c & (a | b)));
        };
        for (int i = 0; i < 64; i += 8)
        {
            round(i, s[0], s[1], s[2], s[3], s[4], s[5], s[6], s[7]);
            round(i + 1, s[7], s[0], s[1], s[2], s[3], s[4], s[5], s[6]);
            round(i + 2, s[6], s[7], s[0], s[1], s[2], s[3], s[4], s[5]);
            round(i + 3, s[5], s[6], s[7], s[0], s[1], s[2], s[3], s[4]);
            round(i + 4, s[4], s[5], s[6], s[7], s[0], s[1], s[2], s[3]);
            round(i + 5, s[3], s[4], s[5], s[6], s[7], s[0], s[1], s[2]);
            round(i + 6, s[2], s[3], s[4], s[5], s[6], s[7], s[0], s[1]);
            round(i + 7, s[1], s[2], s[3], s[4], s[5], s[6], s[7], s[0]);
        }
        for (int i = 0; i < 8; ++i)
        {
            chain[i] += s[i];
        }
    }
}

void Sha256Digest::Update(std::span<std::uint8_t const> data)
{
    BlockInput{m_block, m_bits}.Take(data, m_chain, GetSha256Blocks());
}

Sha256Digest::Value Sha256Digest::Final()
{
    BlockInput{m_block, m_bits}.Close(m_chain, GetSha256Blocks(), std::endian::big);
    Value value;
    for (std::size_t i = 0; i < 8; ++i)
    {
        Word const word = SwapBytes(m_chain[i]);
        std::memcpy(value.data() + 4 * i, &word, sizeof word);
    }
    Wipe(this, sizeof *this);
    Reset();
    return value;
}
} // namespace kvx::hash
