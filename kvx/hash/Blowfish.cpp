#include "kvx/hash/Blowfish.h"

#include "kvx/hash/BlockInput.h"

namespace kvx::hash
{
namespace
{
using Word = std::uint32_t;

struct Halves
{
    Word left;
    Word right;
};

/// Enciphers, or deciphers with the subkeys in reverse, several blocks in step: none waits for another, and the
/// look-ups of one fill the time in which the others wait for theirs.
template <bool REVERSE, std::size_t COUNT>
void Run(Word const (&subkeys)[18], Word const (&boxes)[4][256], Halves (&blocks)[COUNT])
{
    auto const subkey = [&](int i) { return subkeys[REVERSE ? 17 - i : i]; };
    auto const mix = [&](Word word) {
        return ((boxes[0][word >> 24] + boxes[1][word >> 16 & 0xFF]) ^ boxes[2][word >> 8 & 0xFF]) +
               boxes[3][word & 0xFF];
    };
    for (int round = 0; round < 16; round += 2)
    {
        for (Halves & block : blocks)
        {
            block.left ^= subkey(round);
            block.right ^= mix(block.left);
        }
        for (Halves & block : blocks)
        {
            block.right ^= subkey(round + 1);
            block.left ^= mix(block.right);
        }
    }
    for (Halves & block : blocks)
    {
        block = {block.right ^ subkey(17), block.left ^ subkey(16)};
    }
}

template <bool REVERSE, std::size_t COUNT>
void RunBytes(Word const (&subkeys)[18], Word const (&boxes)[4][256], std::uint8_t const * in, std::uint8_t * out)
{
    Halves blocks[COUNT];
    std::memcpy(blocks, in, sizeof blocks);
    for (Halves & block : blocks)
    {
        block = {SwapBytes(block.left), SwapBytes(block.right)};
    }
    Run<REVERSE>(subkeys, boxes, blocks);
    for (Halves & block : blocks)
    {
        block = {SwapBytes(block.left), SwapBytes(block.right)};
    }
    std::memcpy(out, blocks, sizeof blocks);
}

template <bool REVERSE>
void RunAll(Word const (&subkeys)[18], Word const (&boxes)[4][256], std::uint8_t const * in, std::uint8_t * out,
            std::size_t blocks)
{
    constexpr std::size_t AT_ONCE = 4;
    for (; blocks >= AT_ONCE; blocks -= AT_ONCE)
    {
        RunBytes<REVERSE, AT_ONCE>(subkeys, boxes, in, out);
        in += AT_ONCE * Blowfish::BLOCK;
        out += AT_ONCE * Blowfish::BLOCK;
    }
    for (; blocks > 0; --blocks)
    {
        RunBytes<REVERSE, 1>(subkeys, boxes, in, out);
        in += Blowfish::BLOCK;
        out += Blowfish::BLOCK;
    }
}
} // namespace

Blowfish::Blowfish(std::span<std::uint8_t const> key) : m_schedule(INITIAL)
{
    std::size_t at = 0;
    for (Word & subkey : m_schedule.subkeys)
    {
        Word word = 0;
        for (int i = 0; i < 4; ++i)
        {
            word = word << 8 | key[at];
            at = at + 1 < key.size() ? at + 1 : 0;
        }
        subkey ^= word;
    }
    Halves block[1] = {};
    auto const replace = [&](Word * words, std::size_t count)
    {
        for (std::size_t i = 0; i < count; i += 2)
        {
            Run<false>(m_schedule.subkeys, m_schedule.boxes, block);
            words[i] = block[0].left;
            words[i + 1] = block[0].right;
        }
    };
    replace(m_schedule.subkeys, std::size(m_schedule.subkeys));
    for (auto & box : m_schedule.boxes)
    {
        replace(box, std::size(box));
    }
}

Blowfish::~Blowfish()
{
    Wipe(&m_schedule, sizeof m_schedule);
}

void Blowfish::Encrypt(std::uint8_t const * in, std::uint8_t * out, std::size_t blocks) const
{
    RunAll<false>(m_schedule.subkeys, m_schedule.boxes, in, out, blocks);
}

void Blowfish::Decrypt(std::uint8_t const * in, std::uint8_t * out, std::size_t blocks) const
{
    RunAll<true>(m_schedule.subkeys, m_schedule.boxes, in, out, blocks);
}
} // namespace kvx::hash
