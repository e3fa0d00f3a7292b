#include "kvx/cabinet/lzx/HuffmanCode.h"

#include <algorithm>

namespace kvx::cabinet
{
namespace
{
constexpr unsigned LONGEST_WORD = 16;

/// Turns `weights`, in rising order, into the lengths of their words, in place (A. Moffat, J. Katajainen, "In-Place
/// Calculation of Minimum-Redundancy Codes", 1995).
void WeightsToLengths(std::span<std::uint32_t> weights)
{
    std::size_t const count = weights.size();
    // Weights of inner nodes take the place of leaves that have found their parent; then parents' indices theirs.
    std::size_t leaf = 0;
    std::size_t root = 0;
    for (std::size_t next = 0; next + 1 < count; next++)
    {
        std::uint32_t sum = 0;
        for (int child = 0; child < 2; child++)
        {
            if (leaf >= count || (root < next && weights[root] < weights[leaf]))
            {
                sum += weights[root];
                weights[root++] = static_cast<std::uint32_t>(next);
            }
            else
            {
                sum += weights[leaf++];
            }
        }
        weights[next] = sum;
    }
    // Parents become depths of the inner nodes.
    weights[count - 2] = 0;
    for (std::size_t next = count - 2; next-- > 0;)
    {
        weights[next] = weights[weights[next]] + 1;
    }
    // What room the inner nodes of a depth leave there belongs to leaves.
    std::size_t room = 1;
    std::size_t used = 0;
    std::uint32_t depth = 0;
    std::size_t inner = count - 1; // nodes not looked at yet
    std::size_t next = count;
    while (room > 0)
    {
        while (inner > 0 && weights[inner - 1] == depth)
        {
            used++;
            inner--;
        }
        for (; room > used; room--)
        {
            weights[--next] = depth;
        }
        room = 2 * used;
        depth++;
        used = 0;
    }
}

/// Shortens words that are too long, and makes others longer for it, until the code is complete again.
void LimitLengths(std::span<unsigned> counts, unsigned maxBits, std::uint64_t used)
{
    // In units of the longest word's share.
    std::uint64_t const whole = std::uint64_t{1} << maxBits;
    while (used > whole)
    {
        unsigned length = maxBits - 1;
        while (counts[length] == 0)
        {
            length--;
        }
        counts[length]--;
        counts[length + 1]++;
        used -= whole >> (length + 1);
    }
    while (used < whole)
    {
        unsigned length = maxBits;
        while (counts[length] == 0 || (whole >> length) > whole - used)
        {
            length--;
        }
        counts[length]--;
        counts[length - 1]++;
        used += whole >> length;
    }
}
} // namespace

void MakeCodeLengths(std::span<std::uint32_t const> frequencies, unsigned maxBits, std::span<std::uint8_t> lengths)
{
    std::uint64_t sorted[MAX_CODE_SYMBOLS]; // frequency, symbol
    std::size_t count = 0;
    for (std::size_t symbol = 0; symbol < frequencies.size(); symbol++)
    {
        lengths[symbol] = 0;
        if (frequencies[symbol] != 0)
        {
            sorted[count++] = std::uint64_t{frequencies[symbol]} << 32 | symbol;
        }
    }
    if (count == 0)
    {
        return;
    }
    if (count == 1)
    {
        std::size_t const symbol = sorted[0] & 0xFFFFFFFF;
        lengths[symbol] = 1;
        lengths[symbol == 0 ? 1 : 0] = 1;
        return;
    }
    std::sort(sorted, sorted + count);
    std::uint32_t weights[MAX_CODE_SYMBOLS];
    std::transform(sorted, sorted + count, weights,
                   [](std::uint64_t entry) { return static_cast<std::uint32_t>(entry >> 32); });
    WeightsToLengths({weights, count});

    unsigned counts[LONGEST_WORD + 1] = {};
    std::uint64_t used = 0;
    for (std::size_t i = 0; i < count; i++)
    {
        unsigned const length = std::min<unsigned>(weights[i], maxBits);
        counts[length]++;
        used += (std::uint64_t{1} << maxBits) >> length;
    }
    LimitLengths(counts, maxBits, used);
    std::size_t next = 0;
    for (unsigned length = maxBits; length > 0; length--)
    {
        for (unsigned i = 0; i < counts[length]; i++)
        {
            lengths[sorted[next++] & 0xFFFFFFFF] = static_cast<std::uint8_t>(length);
        }
    }
}

void MakeCodeWords(std::span<std::uint8_t const> lengths, std::span<std::uint16_t> words)
{
    unsigned counts[LONGEST_WORD + 1] = {};
    for (std::uint8_t length : lengths)
    {
        counts[length]++;
    }
    counts[0] = 0;
    unsigned next[LONGEST_WORD + 1] = {};
    for (unsigned length = 1; length <= LONGEST_WORD; length++)
    {
        next[length] = (next[length - 1] + counts[length - 1]) << 1;
    }
    for (std::size_t symbol = 0; symbol < lengths.size(); symbol++)
    {
        words[symbol] = lengths[symbol] == 0 ? 0 : static_cast<std::uint16_t>(next[lengths[symbol]]++);
    }
}
} // namespace kvx::cabinet
