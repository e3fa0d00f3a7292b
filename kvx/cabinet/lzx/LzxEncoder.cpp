#include "kvx/cabinet/lzx/LzxEncoder.h"

#include "kvx/cabinet/lzx/CallTranslation.h"
#include "kvx/cabinet/lzx/LzxBlockWriter.h"
#include "kvx/cabinet/lzx/LzxParser.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>

namespace kvx::cabinet
{
namespace lzx
{
namespace
{
/// Frames are gathered to a stretch, which is parsed and divided into blocks as a whole.
constexpr std::size_t STRETCH_FRAMES = 8;
constexpr std::size_t STRETCH_SIZE = STRETCH_FRAMES * FRAME_SIZE;
/// Block borders lie at these distances.
constexpr std::size_t UNIT = 4096;
constexpr std::size_t MAX_UNITS = STRETCH_SIZE / UNIT;
constexpr std::size_t UNITS_OF_FRAME = FRAME_SIZE / UNIT;
/// Compares read whole words.
constexpr std::size_t BUFFER_SLACK = 16;

struct Plan
{
    unsigned passes; ///< of the optimal parser; 0 for the lazy one
    unsigned step;   ///< in units: blocks begin at its multiples
    OptimalParser::Effort effort;
};

constexpr Plan PlanOf(Level level)
{
    switch (level)
    {
    case Level::Fast:
        return {0, 4, {}};
    case Level::Best:
        return {4, 1, {64, 128}};
    default:
        return {1, 2, {16, 64}};
    }
}

class Encoder final : public FolderEncoder
{
public:
    Encoder(unsigned windowBits, Level level, bool translateCalls, std::pmr::memory_resource * memory)
        : m_windowSize(1u << windowBits), m_translationSize(translateCalls ? CALL_TRANSLATION_SIZE : 0),
          m_plan(PlanOf(level)), m_buffer(3 * m_windowSize + STRETCH_SIZE + 2 * FRAME_SIZE + BUFFER_SLACK, memory),
          m_items(memory), m_blocks(memory), m_blockPrices(MAX_UNITS, memory), m_sums(MAX_UNITS + 1, memory),
          m_writer(windowBits, m_translationSize, STRETCH_FRAMES, memory)
    {
        m_items.reserve(STRETCH_SIZE);
        m_blocks.reserve(MAX_UNITS);
        if (m_plan.passes == 0)
        {
            m_lazy.emplace(windowBits, memory);
        }
        else
        {
            m_optimal.emplace(windowBits, m_plan.effort, STRETCH_SIZE, memory);
        }
    }

    void Encode(std::span<std::uint8_t const> block, Sink & sink) override
    {
        if (m_end + block.size() + BUFFER_SLACK > m_buffer.size())
        {
            Move();
        }
        std::uint8_t * const to = m_buffer.data() + m_end;
        std::memcpy(to, block.data(), block.size());
        if (m_translationSize != 0)
        {
            TranslateCalls({to, block.size()}, m_nFrame, m_translationSize);
        }
        m_nFrame++;
        m_end += static_cast<std::uint32_t>(block.size());
        // A frame more, so that the trees know what follows the last places.
        if (m_end - m_begin >= STRETCH_SIZE + FRAME_SIZE)
        {
            EncodeStretch(STRETCH_SIZE, sink);
        }
    }

    void Finish(Sink & sink) override
    {
        while (m_begin < m_end)
        {
            EncodeStretch(std::min<std::size_t>(m_end - m_begin, STRETCH_SIZE), sink);
        }
    }

private:
    /// A part of the stretch, by bytes and by items.
    struct Block
    {
        std::size_t begin;
        std::size_t end;
        std::size_t firstItem;
        std::size_t endItem;
        bool bRaw;
    };

    std::uint32_t const m_windowSize;
    std::int32_t const m_translationSize;
    Plan const m_plan;
    std::pmr::vector<std::uint8_t> m_buffer; ///< the window, what is to be parsed, and room
    std::uint32_t m_begin = 0;               ///< of what is to be parsed
    std::uint32_t m_end = 0;
    std::uint64_t m_nFrame = 0;
    std::optional<LazyParser> m_lazy;
    std::optional<OptimalParser> m_optimal;
    std::pmr::vector<Item> m_items;
    std::pmr::vector<Block> m_blocks;
    std::pmr::vector<Prices> m_blockPrices;
    std::pmr::vector<Histogram> m_sums;          ///< of all units before each one
    std::size_t m_unitItems[MAX_UNITS + 1] = {}; ///< the first item of each
    std::size_t m_unitPlaces[MAX_UNITS + 1] = {};
    Histogram m_lately; ///< of the last frames
    Prices m_prices;    ///< by it
    Recent m_recent;
    Recent m_recentBehind[STRETCH_FRAMES]; ///< each frame
    bool m_raw[STRETCH_FRAMES] = {};       ///< frames that are better left as they are
    BlockWriter m_writer;

    /// Makes room behind the data: all that no match can reach any more goes.
    void Move()
    {
        std::uint32_t const distance = (m_begin - m_windowSize) / m_windowSize * m_windowSize;
        std::memmove(m_buffer.data(), m_buffer.data() + distance, m_end - distance);
        m_begin -= distance;
        m_end -= distance;
        if (m_lazy)
        {
            m_lazy->Move(distance);
        }
        else
        {
            m_optimal->Move(distance);
        }
    }

    void EncodeStretch(std::size_t size, Sink & sink)
    {
        m_blocks.assign(1, {0, size, 0, 0, false});
        if (m_optimal)
        {
            m_optimal->FindMatches(m_buffer.data(), m_begin, m_begin + static_cast<std::uint32_t>(size), m_end);
        }
        Parse(true);
        SumUnits(size);
        ChooseRaw(size);
        ChooseBlocks(size);
        for (unsigned pass = 1; pass < m_plan.passes; pass++)
        {
            TakePrices();
            Parse(false);
        }
        m_recent = m_recentBehind[(size - 1) / FRAME_SIZE];

        m_writer.Begin(size);
        WriteBlocks();
        for (std::size_t frame; (frame = m_writer.FindOversized()) * FRAME_SIZE < size;)
        {
            m_raw[frame] = true;
            SumUnits(size);
            ChooseBlocks(size);
            m_writer.BeginAgain();
            WriteBlocks();
        }
        m_writer.Put(sink);
        m_begin += static_cast<std::uint32_t>(size);
    }

    /// Makes the items anew: with the prices of each block, or, in the first pass, with those of what came last.
    void Parse(bool bFirst)
    {
        Recent recent = m_recent;
        m_items.clear();
        for (std::size_t i = 0; i < m_blocks.size(); i++)
        {
            Block & block = m_blocks[i];
            block.firstItem = m_items.size();
            for (std::size_t at = block.begin; at < block.end;)
            {
                std::size_t const frame = at / FRAME_SIZE;
                std::size_t const end = std::min((frame + 1) * FRAME_SIZE, block.end);
                auto const from = static_cast<std::uint32_t>(m_begin + at);
                auto const to = static_cast<std::uint32_t>(m_begin + end);
                if (m_lazy)
                {
                    m_lazy->Parse(m_buffer.data(), from, to, m_end, recent, m_items);
                }
                else
                {
                    std::size_t const firstItem = m_items.size();
                    m_optimal->Parse(m_buffer.data(), from, to, bFirst ? m_prices : m_blockPrices[i], recent, m_items);
                    if (bFirst)
                    {
                        LearnPrices(firstItem);
                    }
                }
                m_recentBehind[frame] = recent;
                at = end;
            }
            block.endItem = m_items.size();
        }
    }

    /// What came last counts for most.
    void LearnPrices(std::size_t firstItem)
    {
        auto const halve = [](auto & frequencies)
        {
            for (std::uint32_t & frequency : frequencies)
            {
                frequency /= 2;
            }
        };
        halve(m_lately.main);
        halve(m_lately.length);
        halve(m_lately.aligned);
        for (std::size_t item = firstItem; item < m_items.size(); item++)
        {
            m_lately.Add(m_items[item]);
        }
        m_prices = Prices(m_lately);
    }

    std::span<Item const> ItemsOf(Block const & block) const
    {
        return {m_items.data() + block.firstItem, block.endItem - block.firstItem};
    }

    void TakePrices()
    {
        for (std::size_t i = 0; i < m_blocks.size(); i++)
        {
            Histogram histogram;
            for (Item const & item : ItemsOf(m_blocks[i]))
            {
                histogram.Add(item);
            }
            m_blockPrices[i] = Prices(histogram);
        }
    }

    /// Units begin at the first item at or behind a multiple of UNIT; so they do where frames do.
    void SumUnits(std::size_t size)
    {
        std::size_t place = 0;
        std::size_t item = 0;
        for (std::size_t unit = 0; unit * UNIT < size; unit++)
        {
            m_unitItems[unit] = item;
            m_unitPlaces[unit] = place;
            m_sums[unit + 1] = m_sums[unit];
            for (std::size_t const end = std::min((unit + 1) * UNIT, size); place < end; item++)
            {
                m_sums[unit + 1].Add(m_items[item]);
                place += m_items[item].length;
            }
            m_unitItems[unit + 1] = item;
            m_unitPlaces[unit + 1] = place;
        }
    }

    static std::size_t UnitsIn(std::size_t size) { return (size + UNIT - 1) / UNIT; }

    std::uint64_t EstimateUnits(std::size_t begin, std::size_t end) const
    {
        Histogram histogram;
        auto const subtract = [](auto & to, auto const & from, auto const & less)
        { std::transform(std::begin(from), std::end(from), std::begin(less), std::begin(to), std::minus<>()); };
        subtract(histogram.main, m_sums[end].main, m_sums[begin].main);
        subtract(histogram.length, m_sums[end].length, m_sums[begin].length);
        subtract(histogram.aligned, m_sums[end].aligned, m_sums[begin].aligned);
        return EstimateBlock(histogram);
    }

    /// Finds the frames that codes would only make larger.
    void ChooseRaw(std::size_t size)
    {
        constexpr std::uint64_t RAW_HEADER = 27 + 16 + 3 * 32 + 8;
        for (std::size_t frame = 0; frame * FRAME_SIZE < size; frame++)
        {
            std::size_t const bytes = std::min<std::size_t>(size - frame * FRAME_SIZE, FRAME_SIZE);
            std::size_t const unit = frame * UNITS_OF_FRAME;
            m_raw[frame] = EstimateUnits(unit, unit + UnitsIn(bytes)) > BIT * (8 * bytes + RAW_HEADER);
        }
    }

    /// Divides the stretch so that the blocks' estimates add up to the least.
    void ChooseBlocks(std::size_t size)
    {
        std::size_t const count = UnitsIn(size);
        std::uint64_t costs[MAX_UNITS + 1] = {};
        std::size_t from[MAX_UNITS + 1] = {};
        for (std::size_t end = 1; end <= count; end++)
        {
            if (end % m_plan.step != 0 && end != count)
            {
                continue;
            }
            costs[end] = std::numeric_limits<std::uint64_t>::max();
            for (std::size_t begin = end; begin-- > 0;)
            {
                if (begin % m_plan.step != 0)
                {
                    continue;
                }
                bool const bRaw = m_raw[begin / UNITS_OF_FRAME];
                std::size_t const frameBegin = (end - 1) / UNITS_OF_FRAME * UNITS_OF_FRAME;
                if (bRaw && begin > frameBegin)
                {
                    continue; // raw frames are whole
                }
                if (bRaw && begin < frameBegin)
                {
                    break;
                }
                std::uint64_t const cost = bRaw ? 0 : EstimateUnits(begin, end);
                if (costs[begin] + cost < costs[end])
                {
                    costs[end] = costs[begin] + cost;
                    from[end] = begin;
                }
                if (bRaw)
                {
                    break;
                }
            }
        }
        m_blocks.clear();
        for (std::size_t end = count; end > 0; end = from[end])
        {
            std::size_t const begin = from[end];
            bool const bRaw = m_raw[begin / UNITS_OF_FRAME];
            if (bRaw && !m_blocks.empty() && m_blocks.back().bRaw)
            {
                m_blocks.back().begin = m_unitPlaces[begin];
                m_blocks.back().firstItem = m_unitItems[begin];
                continue;
            }
            m_blocks.push_back({m_unitPlaces[begin], m_unitPlaces[end], m_unitItems[begin], m_unitItems[end], bRaw});
        }
        std::ranges::reverse(m_blocks);
    }

    void WriteBlocks()
    {
        for (Block const & block : m_blocks)
        {
            if (block.bRaw)
            {
                m_writer.WriteRaw({m_buffer.data() + m_begin + block.begin, block.end - block.begin},
                                  m_recentBehind[(block.end - 1) / FRAME_SIZE]);
            }
            else
            {
                m_writer.Write(ItemsOf(block), block.end - block.begin);
            }
        }
    }
};
} // namespace
} // namespace lzx

std::unique_ptr<FolderEncoder> MakeLzxEncoder(unsigned windowBits, Level level, bool translateCalls,
                                              std::pmr::memory_resource * memory)
{
    if (!lzx::IsWindow(windowBits))
    {
        throw std::invalid_argument("LZX has windows of 2^15 to 2^21 bytes");
    }
    return std::make_unique<lzx::Encoder>(windowBits, level, translateCalls, memory);
}
} // namespace kvx::cabinet
