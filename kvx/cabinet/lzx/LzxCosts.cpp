#include "kvx/cabinet/lzx/LzxCosts.h"

#include <array>
#include <bit>
#include <numeric>

namespace kvx::cabinet::lzx
{
namespace
{
constexpr unsigned LOG_SHIFT = 16; ///< of logarithms in fixed point
constexpr unsigned LOG_STEPS = 9;  ///< bits of the mantissa that the table knows

/// Binary logarithms of 1 to 2, by squaring.
constexpr auto LOGS = []
{
    std::array<std::uint32_t, (1 << LOG_STEPS) + 1> logs{};
    for (std::size_t i = 0; i <= 1 << LOG_STEPS; i++)
    {
        std::uint64_t x = ((std::uint64_t{1} << LOG_STEPS) + i) << (30 - LOG_STEPS);
        std::uint32_t log = 0;
        if (i == 1 << LOG_STEPS)
        {
            log = 1 << LOG_SHIFT;
        }
        else
        {
            for (unsigned bit = 0; bit < LOG_SHIFT; bit++)
            {
                x = x * x >> 30;
                log *= 2;
                if (x >= std::uint64_t{2} << 30)
                {
                    x >>= 1;
                    log++;
                }
            }
        }
        logs[i] = log;
    }
    return logs;
}();

std::uint32_t Log(std::uint32_t value)
{
    unsigned const whole = static_cast<unsigned>(std::bit_width(value)) - 1;
    std::uint32_t const mantissa = whole >= LOG_STEPS ? value >> (whole - LOG_STEPS) : value << (LOG_STEPS - whole);
    return (whole << LOG_SHIFT) + LOGS[mantissa - (1u << LOG_STEPS)];
}

std::uint32_t Sum(std::span<std::uint32_t const> frequencies)
{
    return std::accumulate(frequencies.begin(), frequencies.end(), std::uint32_t{0});
}

Price FromLog(std::uint32_t log)
{
    return (log * std::uint64_t{BIT} + (1u << (LOG_SHIFT - 1))) >> LOG_SHIFT;
}

/// A symbol that doesn't occur costs more than the rarest one does.
void SetPrices(std::span<std::uint32_t const> frequencies, Price * prices)
{
    std::uint32_t const total = Log(Sum(frequencies) + 1);
    for (std::size_t i = 0; i < frequencies.size(); i++)
    {
        std::uint32_t const log = frequencies[i] == 0 ? 0 : Log(frequencies[i]);
        Price const price = FromLog(total > log ? total - log : 0) + (frequencies[i] == 0 ? BIT : 0);
        prices[i] = std::max(price, BIT / 2);
    }
}

/// Entropy, in 1 / 2^LOG_SHIFT bits.
std::uint64_t Entropy(std::span<std::uint32_t const> frequencies, unsigned & used)
{
    std::uint64_t bits = 0;
    std::uint32_t total = 0;
    for (std::uint32_t frequency : frequencies)
    {
        if (frequency != 0)
        {
            bits += std::uint64_t{frequency} * Log(frequency);
            total += frequency;
            used++;
        }
    }
    return total == 0 ? 0 : std::uint64_t{total} * Log(total) - bits;
}
} // namespace

Prices::Prices() : bAligned(false)
{
    std::fill_n(main, LITERALS, 8 * BIT);
    for (unsigned slot = 0; slot < MAX_SLOTS; slot++)
    {
        std::fill_n(main + LITERALS + 8 * slot, 8, slot < 3 ? 6 * BIT : 8 * BIT);
        extra[slot] = ExtraBits(slot) * BIT;
    }
    for (unsigned size = 0; size <= MAX_MATCH; size++)
    {
        length[size] = size < LONG_MATCH ? 0 : (size < 2 * LONG_MATCH ? 5 : 7) * BIT;
    }
    std::fill_n(aligned, ALIGNED_SYMBOLS, 3 * BIT);
}

Prices::Prices(Histogram const & histogram)
{
    SetPrices(histogram.main, main);
    std::fill_n(length, LONG_MATCH, 0);
    SetPrices(histogram.length, length + LONG_MATCH);
    unsigned used = 0;
    std::uint32_t const matches = Sum(histogram.aligned);
    bAligned = Entropy(histogram.aligned, used) + (std::uint64_t{3 * ALIGNED_SYMBOLS} << LOG_SHIFT) <
               std::uint64_t{3} * matches << LOG_SHIFT;
    SetPrices(histogram.aligned, aligned);
    for (unsigned slot = 0; slot < MAX_SLOTS; slot++)
    {
        unsigned const bits = ExtraBits(slot);
        extra[slot] = (bAligned && bits >= 3 ? bits - 3 : bits) * BIT;
    }
}

std::uint64_t EstimateBlock(Histogram const & histogram)
{
    unsigned used = 0;
    std::uint64_t bits = Entropy(histogram.main, used) + Entropy(histogram.length, used);
    std::uint64_t extraBits = 0;
    for (unsigned slot = 4; slot < MAX_SLOTS; slot++)
    {
        extraBits += std::uint64_t{Sum({histogram.main + LITERALS + 8 * slot, 8})} * ExtraBits(slot);
    }
    unsigned usedAligned = 0;
    std::uint64_t const aligned = Entropy(histogram.aligned, usedAligned);
    std::uint64_t const plain = std::uint64_t{Sum(histogram.aligned)} * 3 << LOG_SHIFT;
    bits += (extraBits << LOG_SHIFT) - (aligned < plain ? plain - aligned : 0);
    constexpr std::uint64_t HEADER_BITS = 350;
    constexpr std::uint64_t LENGTH_BITS_X2 = 7; // of each symbol that occurs
    bits += (HEADER_BITS + used * LENGTH_BITS_X2 / 2) << LOG_SHIFT;
    return bits * BIT >> LOG_SHIFT;
}
} // namespace kvx::cabinet::lzx
