#include "kvx/cabinet/lzx/LzxParser.h"

#include <algorithm>
#include <bit>
#include <limits>

namespace kvx::cabinet::lzx
{
namespace
{
constexpr unsigned LAZY_DEPTH = 8;
constexpr unsigned LAZY_GOOD = 12; ///< with such a match, a better one is sought less deep
constexpr unsigned LAZY_NICE = 64;
constexpr std::uint32_t MAX_LAZY_THREE = 16384; ///< farther matches of three bytes cost as much as the bytes

constexpr Price UNREACHED = 0x3FFFFFFF;

// A match as it is kept: the offset, and from this bit on the length. A step has the offset with its bias, or the index
// of a recent one; and if a byte and then another match at the same offset belong to it, that one's length.
constexpr unsigned LENGTH_SHIFT = 22;
constexpr unsigned SECOND_SHIFT = 32;
constexpr std::uint32_t OFFSET_MASK = (1u << LENGTH_SHIFT) - 1;

struct Step
{
    unsigned length; ///< 1 of a literal
    std::uint32_t formatted;
    unsigned second; ///< or 0

    explicit Step(std::uint64_t packed)
        : length(static_cast<std::uint32_t>(packed) >> LENGTH_SHIFT),
          formatted(static_cast<std::uint32_t>(packed) & OFFSET_MASK),
          second(static_cast<unsigned>(packed >> SECOND_SHIFT))
    {
    }
    unsigned GetSize() const { return second == 0 ? length : length + 1 + second; }
    void Remember(Recent & recent) const
    {
        if (length == 1)
        {
            return;
        }
        if (formatted < 3)
        {
            recent.Use(formatted);
        }
        else
        {
            recent.Push(formatted - OFFSET_BIAS);
        }
    }
};
/// Matches kept for each byte, on average.
constexpr std::size_t KEPT_MATCHES = 8;
constexpr std::size_t RECENT_RING = 1024;
static_assert(RECENT_RING > 2 * MAX_MATCH + 1);

/// The bits that a match saves, roughly.
int Worth(unsigned length, std::uint32_t offset)
{
    return static_cast<int>(length) * 5 - static_cast<int>(std::bit_width(offset));
}
} // namespace

LazyParser::LazyParser(unsigned windowBits, std::pmr::memory_resource * memory)
    : m_finder(windowBits, LAZY_NICE, memory)
{
}

void LazyParser::Parse(std::uint8_t const * buffer, std::uint32_t begin, std::uint32_t end, std::uint32_t available,
                       Recent & recent, std::pmr::vector<Item> & items)
{
    struct Choice
    {
        Item item;
        std::uint32_t offset; ///< or 0 and the index of a recent one
        unsigned index;
        int worth; ///< 0 for none
    };
    auto const canFind = [&](std::uint32_t place) { return available - place >= 8; };
    auto const look = [&](std::uint32_t place, unsigned least, unsigned maxDepth)
    {
        Choice choice{Item::Literal(buffer[place]), 0, 0, 0};
        unsigned const limit = std::min<std::uint32_t>(MAX_MATCH, end - place);
        if (!canFind(place))
        {
            return choice;
        }
        for (unsigned i = 0; i < 3; i++)
        {
            std::uint32_t const offset = recent.offsets[i];
            if (offset <= place && buffer[place] == buffer[place - offset])
            {
                unsigned const length = EqualBytes(buffer + place, buffer + place - offset, limit);
                int const worth = Worth(length, 1);
                if (length >= MIN_MATCH && length > least && worth > choice.worth)
                {
                    choice = {Item::Repeat(i, length), 0, i, worth};
                    least = length;
                }
            }
        }
        Found const found = m_finder.Find(buffer, place, limit, least, maxDepth);
        if (found.length != 0)
        {
            int const worth = Worth(found.length, found.offset);
            if (worth > choice.worth && (found.length > 3 || found.offset < MAX_LAZY_THREE))
            {
                choice = {Item::AtOffset(found.offset, found.length), found.offset, 0, worth};
            }
        }
        return choice;
    };

    std::uint32_t place = begin;
    while (place < end)
    {
        Choice choice = look(place, 0, LAZY_DEPTH);
        if (choice.worth == 0)
        {
            items.push_back(choice.item);
            place++;
            continue;
        }
        std::uint32_t searched = place + 1;
        while (choice.item.length < LAZY_NICE && place + 1 < end)
        {
            Choice const next = look(place + 1, 0, choice.item.length >= LAZY_GOOD ? LAZY_DEPTH / 4 : LAZY_DEPTH);
            searched = place + 2;
            if (next.worth <= choice.worth + 4)
            {
                break;
            }
            items.push_back(Item::Literal(buffer[place]));
            place++;
            choice = next;
        }
        items.push_back(choice.item);
        if (choice.offset != 0)
        {
            recent.Push(choice.offset);
        }
        else
        {
            recent.Use(choice.index);
        }
        place += choice.item.length;
        for (std::uint32_t i = searched; i < place && canFind(i); i++)
        {
            m_finder.Skip(buffer, i);
        }
    }
}

OptimalParser::OptimalParser(unsigned windowBits, Effort effort, std::size_t maxSize,
                             std::pmr::memory_resource * memory)
    : m_finder(windowBits, effort.maxDepth, effort.niceLength, memory), m_niceLength(effort.niceLength),
      m_first(maxSize + 1, memory), m_found(maxSize * KEPT_MATCHES, memory), m_prices(FRAME_SIZE + 1, memory),
      m_steps(FRAME_SIZE + 1, memory), m_recents(RECENT_RING, memory)
{
}

void OptimalParser::FindMatches(std::uint8_t const * buffer, std::uint32_t begin, std::uint32_t end,
                                std::uint32_t available)
{
    m_begin = begin;
    std::uint32_t kept = 0;
    auto const room = static_cast<std::uint32_t>(m_found.size());
    std::uint32_t skipTo = begin;
    for (std::uint32_t place = begin; place < end; place++)
    {
        m_first[place - begin] = kept;
        if (place < skipTo)
        {
            m_finder.Skip(buffer, place, available - place);
            continue;
        }
        Found found[BinaryTrees::MAX_FOUND];
        Found const * const foundEnd = m_finder.Find(buffer, place, available - place, found);
        for (Found const * match = found; match < foundEnd && kept < room; match++)
        {
            m_found[kept++] = match->length << LENGTH_SHIFT | match->offset;
        }
        if (foundEnd > found && foundEnd[-1].length >= m_niceLength)
        {
            skipTo = place + foundEnd[-1].length;
        }
    }
    m_first[end - begin] = kept;
}

void OptimalParser::Parse(std::uint8_t const * buffer, std::uint32_t begin, std::uint32_t end, Prices const & prices,
                          Recent & recent, std::pmr::vector<Item> & items)
{
    std::uint32_t const size = end - begin;
    Price * const costs = m_prices.data();
    std::uint64_t * const steps = m_steps.data();
    std::fill_n(costs, size + 1, UNREACHED);
    costs[0] = 0;
    m_recents[0] = recent;

    // Offers ways to the places `from` to `to` bytes on, all with the same offset.
    auto const offer =
        [&](std::uint32_t at, unsigned from, unsigned to, unsigned slot, Price base, std::uint32_t formatted)
    {
        Price const * const main = prices.main + LITERALS + 8 * slot;
        unsigned length = from;
        for (; length <= to && length < LONG_MATCH; length++)
        {
            Price const cost = base + main[length - MIN_MATCH];
            if (cost < costs[at + length])
            {
                costs[at + length] = cost;
                steps[at + length] = length << LENGTH_SHIFT | formatted;
            }
        }
        base += main[LONG_MATCH - MIN_MATCH];
        for (; length <= to; length++)
        {
            Price const cost = base + prices.length[length];
            if (cost < costs[at + length])
            {
                costs[at + length] = cost;
                steps[at + length] = length << LENGTH_SHIFT | formatted;
            }
        }
    };

    // And those that go on with one other byte and the same offset again: the cheapest ways to the places between may
    // have forgotten it.
    auto const offerSecond =
        [&](std::uint32_t at, unsigned length, unsigned slot, Price base, std::uint32_t offset, std::uint32_t formatted)
    {
        std::uint32_t const rest = size - at;
        if (length + 1 + MIN_MATCH > rest)
        {
            return;
        }
        std::uint8_t const * const there = buffer + begin + at + length + 1;
        unsigned const second =
            EqualBytes(there, there - offset, std::min<std::uint32_t>(rest - length - 1, MAX_MATCH));
        if (second < MIN_MATCH)
        {
            return;
        }
        auto const priceOf = [&](unsigned i, unsigned size)
        { return prices.main[LITERALS + 8 * i + std::min(size, LONG_MATCH) - MIN_MATCH] + prices.length[size]; };
        Price const cost = base + priceOf(slot, length) + prices.main[there[-1]] + priceOf(0, second);
        std::uint32_t const to = at + length + 1 + second;
        if (cost < costs[to])
        {
            costs[to] = cost;
            steps[to] = std::uint64_t{second} << SECOND_SHIFT | length << LENGTH_SHIFT | formatted;
        }
    };

    for (std::uint32_t at = 0; at < size;)
    {
        std::uint32_t const place = begin + at;
        if (at > 0)
        {
            Step const step(steps[at]);
            Recent now = m_recents[(at - step.GetSize()) % RECENT_RING];
            step.Remember(now);
            m_recents[at % RECENT_RING] = now;
        }
        Price const base = costs[at];
        Price const literal = base + prices.main[buffer[place]];
        if (literal < costs[at + 1])
        {
            costs[at + 1] = literal;
            steps[at + 1] = 1u << LENGTH_SHIFT;
        }
        unsigned const limit = std::min<std::uint32_t>(MAX_MATCH, size - at);
        if (limit < MIN_MATCH)
        {
            break;
        }
        Recent const & recents = m_recents[at % RECENT_RING];
        unsigned longest = 0;
        for (unsigned i = 0; i < 3; i++)
        {
            std::uint32_t const offset = recents.offsets[i];
            if (offset > place || buffer[place] != buffer[place - offset] ||
                buffer[place + 1] != buffer[place + 1 - offset])
            {
                continue;
            }
            unsigned const length = EqualBytes(buffer + place, buffer + place - offset, limit);
            offer(at, MIN_MATCH, length, i, base, i);
            offerSecond(at, length, i, base, offset, i);
            longest = std::max(longest, length);
        }
        if (longest < m_niceLength)
        {
            unsigned next = MIN_MATCH;
            for (std::uint32_t k = m_first[place - m_begin]; k < m_first[place - m_begin + 1]; k++)
            {
                unsigned const length = std::min<unsigned>(m_found[k] >> LENGTH_SHIFT, limit);
                std::uint32_t const offset = m_found[k] & OFFSET_MASK;
                std::uint32_t const formatted = offset + OFFSET_BIAS;
                unsigned const slot = SlotOf(offset);
                Price const price = base + prices.OfOffset(slot, formatted);
                offer(at, next, length, slot, price, formatted);
                offerSecond(at, length, slot, price, offset, formatted);
                next = std::max(next, length + 1);
                longest = std::max(longest, length);
            }
        }
        at += longest >= m_niceLength ? longest : 1;
    }

    // The way back, and then the items in order.
    std::size_t first = size + 1;
    for (std::uint32_t at = size; at > 0;)
    {
        std::uint64_t const step = steps[at];
        at -= Step(step).GetSize();
        steps[--first] = step;
    }
    std::uint32_t place = begin;
    for (; first <= size; first++)
    {
        Step const step(steps[first]);
        if (step.length == 1)
        {
            items.push_back(Item::Literal(buffer[place]));
        }
        else
        {
            items.push_back(step.formatted < 3 ? Item::Repeat(step.formatted, step.length)
                                               : Item::AtOffset(step.formatted - OFFSET_BIAS, step.length));
            step.Remember(recent);
        }
        if (step.second != 0)
        {
            items.push_back(Item::Literal(buffer[place + step.length]));
            items.push_back(Item::Repeat(0, step.second));
        }
        place += step.GetSize();
    }
}
} // namespace kvx::cabinet::lzx
