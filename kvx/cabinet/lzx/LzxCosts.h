#pragma once

/// What symbols cost, from how often they occur; in integers, so that the same data cost the same everywhere.

#include "kvx/cabinet/lzx/LzxItems.h"

#include <cstdint>
#include <span>

namespace kvx::cabinet::lzx
{
using Price = std::uint32_t;
/// A bit's price.
inline constexpr Price BIT = 32;

/// The price of each item, going by the frequencies of a block.
struct Prices
{
    Price main[MAIN_SYMBOLS];
    Price length[MAX_MATCH + 1]; ///< of the second symbol of matches of this length, with none 0
    Price extra[MAX_SLOTS];      ///< of the bits of an offset but for what the aligned code has
    Price aligned[ALIGNED_SYMBOLS];
    bool bAligned; ///< whether `aligned` is to be counted

    /// With nothing known.
    Prices();
    explicit Prices(Histogram const & histogram);

    Price OfOffset(unsigned slot, std::uint32_t formatted) const
    {
        return extra[slot] + (bAligned && slot >= 8 ? aligned[formatted & 7] : 0);
    }
};

/// Estimates what a block with these frequencies takes, in 1/BIT bits.
std::uint64_t EstimateBlock(Histogram const & histogram);
} // namespace kvx::cabinet::lzx
