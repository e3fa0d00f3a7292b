#include "kvx/cabinet/lzx/CallTranslation.h"
#include "kvx/cabinet/lzx/HuffmanCode.h"
#include "kvx/cabinet/lzx/LzxBlockWriter.h"
#include "kvx/cabinet/lzx/LzxDecoder.h"
#include "kvx/cabinet/lzx/LzxEncoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>

namespace
{
using namespace kvx::cabinet;
using Bytes = std::vector<std::uint8_t>;

struct Folder : FolderEncoder::Sink
{
    std::vector<Bytes> blocks;
    std::vector<std::size_t> sizes;

    void Put(std::span<std::uint8_t const> data, std::size_t uncompressedSize) override
    {
        blocks.emplace_back(data.begin(), data.end());
        sizes.push_back(uncompressedSize);
    }
    std::size_t GetSize() const
    {
        return std::accumulate(blocks.begin(), blocks.end(), std::size_t{0},
                               [](std::size_t sum, Bytes const & block) { return sum + block.size(); });
    }
};

/// Counts what is taken, all of which is to be given back.
class CountingMemory : public std::pmr::memory_resource
{
public:
    int nTaken = 0;
    int nHeld = 0;

private:
    void * do_allocate(std::size_t bytes, std::size_t alignment) override
    {
        nTaken++;
        nHeld++;
        return std::pmr::new_delete_resource()->allocate(bytes, alignment);
    }
    void do_deallocate(void * memory, std::size_t bytes, std::size_t alignment) override
    {
        nHeld--;
        std::pmr::new_delete_resource()->deallocate(memory, bytes, alignment);
    }
    bool do_is_equal(memory_resource const & other) const noexcept override { return this == &other; }
};

Folder Compress(Bytes const & data, unsigned windowBits, Level level, bool bTranslate)
{
    CountingMemory memory;
    Folder folder;
    {
        auto const encoder = MakeLzxEncoder(windowBits, level, bTranslate, &memory);
        int const nTaken = memory.nTaken;
        std::span<std::uint8_t const> rest(data);
        for (; !rest.empty(); rest = rest.subspan(std::min(rest.size(), BLOCK_SIZE)))
        {
            encoder->Encode(rest.first(std::min(rest.size(), BLOCK_SIZE)), folder);
        }
        encoder->Finish(folder);
        EXPECT_EQ(memory.nTaken, nTaken);
    }
    EXPECT_EQ(memory.nHeld, 0);
    return folder;
}

/// Empty if one of the blocks isn't one.
Bytes Expand(Folder const & folder, unsigned windowBits)
{
    CountingMemory memory;
    auto const decoder = MakeLzxDecoder(windowBits, &memory);
    int const nTaken = memory.nTaken;
    Bytes data;
    for (std::size_t i = 0; i < folder.blocks.size(); i++)
    {
        data.resize(data.size() + folder.sizes[i]);
        if (!decoder->Decode(folder.blocks[i], std::span(data).last(folder.sizes[i])))
        {
            return {};
        }
    }
    EXPECT_EQ(memory.nTaken, nTaken);
    return data;
}

Folder ExpectRoundTrip(Bytes const & data, unsigned windowBits, Level level, bool bTranslate)
{
    Folder const folder = Compress(data, windowBits, level, bTranslate);
    EXPECT_EQ(folder.blocks.size(), (data.size() + BLOCK_SIZE - 1) / BLOCK_SIZE);
    EXPECT_TRUE(std::ranges::all_of(folder.blocks, [](Bytes const & block)
                                    { return block.size() % 2 == 0 && block.size() <= MAX_COMPRESSED_BLOCK; }));
    EXPECT_TRUE(Expand(folder, windowBits) == data)
        << data.size() << " bytes, window " << windowBits << ", level " << static_cast<int>(level);
    return folder;
}

Bytes Random(std::size_t size, unsigned symbols = 256, unsigned seed = 1)
{
    std::mt19937 random(seed);
    Bytes data(size);
    std::ranges::generate(data, [&] { return static_cast<std::uint8_t>(random() % symbols); });
    return data;
}

/// Words and numbers, which come again, with calls of a few functions between.
Bytes Program(std::size_t size, unsigned seed = 1)
{
    std::mt19937 random(seed);
    Bytes data;
    while (data.size() < size)
    {
        if (random() % 4 == 0)
        {
            std::uint32_t const distance = random() % 32 * 4096 - static_cast<std::uint32_t>(data.size());
            data.push_back(0xE8);
            for (int shift = 0; shift < 32; shift += 8)
            {
                data.push_back(static_cast<std::uint8_t>(distance >> shift));
            }
        }
        else if (random() % 16 == 0)
        {
            data.insert(data.end(), random() % 300, static_cast<std::uint8_t>(random()));
        }
        else
        {
            std::string const word = "word" + std::to_string(random() % 500) + " ";
            data.insert(data.end(), word.begin(), word.end());
        }
    }
    data.resize(size);
    return data;
}

Bytes operator+(Bytes left, Bytes const & right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

TEST(Lzx, GivesBackWhatItWasGiven)
{
    Bytes const kinds[] = {{},
                           {42},
                           Program(2),
                           Program(BLOCK_SIZE - 1),
                           Program(BLOCK_SIZE),
                           Program(BLOCK_SIZE + 1),
                           Program(BLOCK_SIZE + 9),
                           Bytes(300'001),
                           Random(100'001),
                           Random(90'000, 3),
                           // Frames that are left as they are, amid others, and more than the encoder looks at at once.
                           Program(150'000) + Random(120'001) + Bytes(50'000) + Random(40'000, 20) +
                               Program(60'001, 2)};
    for (Bytes const & data : kinds)
    {
        for (Level const level : {Level::Fast, Level::Default, Level::Best})
        {
            ExpectRoundTrip(data, 15, level, false);
            ExpectRoundTrip(data, 21, level, true);
        }
    }
}

TEST(Lzx, EveryWindowReachesAsFarAsItMay)
{
    for (unsigned windowBits = 15; windowBits <= 21; windowBits++)
    {
        // The bytes come again at the greatest offset that is used, and in the other case one byte too far away.
        std::size_t const reach = (std::size_t{1} << windowBits) - 4;
        Bytes const again = Random(5000, 256, 2);
        std::size_t sizes[2];
        for (std::size_t extra : {0, 1})
        {
            Bytes const data = again + Random(reach + extra - again.size()) + again + Program(70'000);
            sizes[extra] = ExpectRoundTrip(data, windowBits, Level::Default, false).GetSize();
            ExpectRoundTrip(data, windowBits, Level::Fast, true);
        }
        EXPECT_LT(sizes[0] + 2000, sizes[1]) << windowBits;
    }
}

TEST(Lzx, StreamsAreLongerThanWindowsAndBuffers)
{
    Bytes data;
    for (unsigned seed = 0; seed < 25; seed++)
    {
        data = data + Program(60'000, seed) + Random(3000 * (seed % 4), 256, seed % 3);
    }
    for (Level const level : {Level::Fast, Level::Default})
    {
        Folder const folder = ExpectRoundTrip(data, 15, level, true);
        EXPECT_LT(folder.GetSize(), data.size() / 2);
        EXPECT_TRUE(Compress(data, 15, level, true).blocks == folder.blocks);
    }
}

TEST(Lzx, BetterLevelsAndTranslatedCallsTakeLess)
{
    Bytes const data = Program(400'000);
    std::size_t const best = Compress(data, 18, Level::Best, true).GetSize();
    std::size_t const usual = Compress(data, 18, Level::Default, true).GetSize();
    EXPECT_LT(best, usual);
    EXPECT_LT(usual, Compress(data, 18, Level::Fast, true).GetSize());
    EXPECT_LT(usual, Compress(data, 18, Level::Default, false).GetSize());
}

TEST(Lzx, FramesThatCodesMakeTooLargeAreFound)
{
    // One code for all: what occurs in one frame alone takes many more bits than eight.
    Bytes usual;
    for (int i = 0; i < 4; i++)
    {
        usual = usual + usual + Random(2 * BLOCK_SIZE, 4);
    }
    Bytes const data = usual + Random(BLOCK_SIZE);
    std::vector<lzx::Item> items;
    std::ranges::transform(data, std::back_inserter(items), lzx::Item::Literal);
    std::size_t const frames = items.size() / BLOCK_SIZE;
    lzx::BlockWriter writer(15, 0, frames, std::pmr::get_default_resource());
    writer.Begin(items.size());
    writer.Write(items, items.size());
    ASSERT_EQ(writer.FindOversized(), frames - 1);

    writer.BeginAgain();
    writer.Write(std::span(items).first(items.size() - BLOCK_SIZE), items.size() - BLOCK_SIZE);
    writer.WriteRaw(std::span(data).last(BLOCK_SIZE), {});
    ASSERT_EQ(writer.FindOversized(), frames);
    Folder folder;
    writer.Put(folder);
    EXPECT_TRUE(Expand(folder, 15) == data);
}

TEST(Lzx, WindowsHaveBounds)
{
    for (unsigned windowBits : {0u, 14u, 22u, 64u})
    {
        EXPECT_THROW(MakeLzxDecoder(windowBits, std::pmr::get_default_resource()), std::invalid_argument);
        EXPECT_THROW(MakeLzxEncoder(windowBits, Level::Fast, true, std::pmr::get_default_resource()),
                     std::invalid_argument);
    }
}

/// Writes streams that the encoder doesn't.
class Bits
{
public:
    Bits & operator()(std::uint64_t value, unsigned count)
    {
        while (count-- > 0)
        {
            m_bits.push_back(value >> count & 1);
        }
        return *this;
    }
    Bits & Lengths(std::initializer_list<unsigned> lengths, unsigned bits)
    {
        for (unsigned length : lengths)
        {
            (*this)(length, bits);
        }
        return *this;
    }
    Bytes Words() const
    {
        Bytes bytes((m_bits.size() + 15) / 16 * 2);
        for (std::size_t i = 0; i < m_bits.size(); i++)
        {
            bytes[i / 16 * 2 + (i % 16 < 8)] |= static_cast<std::uint8_t>(m_bits[i] << (7 - i % 8));
        }
        return bytes;
    }

private:
    std::vector<bool> m_bits;
};

bool Decodes(Bytes const & data, Bytes const & expected)
{
    Bytes out(expected.size());
    return MakeLzxDecoder(15, std::pmr::get_default_resource())->Decode(data, out) && out == expected;
}

/// A verbatim block of the one byte 0 and a match: both main symbols have one bit. The match's is `symbol`.
Bits TwoSymbols(unsigned symbol, std::size_t size, bool bFirst = true)
{
    Bits bits;
    bits(0, bFirst)(1, 3)(size, 24);
    // The pre-code: differences 0 and 16 (a length of 1) with two bits, runs of zeros with two and two.
    auto const preCode = [&] { bits.Lengths({2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 2, 2, 0}, 4); };
    auto const zeros = [&](unsigned count)
    {
        for (; count >= 20; count -= std::min(count, 51u))
        {
            bits(3, 2)(std::min(count, 51u) - 20, 5);
        }
        for (; count > 0; count--)
        {
            bits(0, 2);
        }
    };
    preCode();
    bits(1, 2);
    zeros(255);
    preCode();
    zeros(symbol - 256);
    bits(1, 2);
    zeros(256 + 8 * 30 - symbol - 1);
    preCode();
    zeros(249);
    return bits;
}

TEST(Lzx, DecodesWhatOtherWritersMayWrite)
{
    Bytes const byte{7};
    Bytes const offsets{1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0};
    Bytes const head = Bits()(0, 1)(3, 3)(1, 24).Words() + offsets;
    EXPECT_TRUE(Decodes(head + Bytes{7, 0}, byte));
    EXPECT_TRUE(Decodes(head + Bytes{7}, byte));          // the padding byte is missing
    EXPECT_TRUE(Decodes(head + Bytes{7, 0, 1, 2}, byte)); // more behind the end
    EXPECT_FALSE(Decodes(head, byte));

    // The padding byte of a block that ends with its frame may come with the next frame.
    Bytes const data = Random(BLOCK_SIZE);
    Bytes const all = Bits()(0, 1)(3, 3)(BLOCK_SIZE - 1, 24).Words() + offsets + Bytes(data.begin(), data.end() - 1);
    Bytes const second = Bits()(3, 3)(2, 24).Words();
    Folder folder;
    folder.blocks = {all + Bytes{0} + second + offsets + Bytes{data.back()}, Bytes{9}};
    folder.sizes = {BLOCK_SIZE, 1};
    EXPECT_TRUE(Expand(folder, 15) == data + Bytes{9});

    // Two bytes and a match of three at the last offset, 1; the length code is empty, and not asked for.
    EXPECT_TRUE(Decodes(TwoSymbols(256 + 1, 5)(0, 1)(0, 1)(1, 1).Words(), Bytes(5)));
}

TEST(Lzx, BadStreamsAreRefused)
{
    Bytes const five(5);
    EXPECT_FALSE(Decodes({}, five));
    EXPECT_FALSE(Decodes(Bits()(0, 1)(0, 3)(5, 24).Words(), five));                       // no such type
    EXPECT_FALSE(Decodes(Bits()(0, 1)(3, 3)(0, 24).Words() + Bytes(64), five));           // no bytes
    EXPECT_FALSE(Decodes(Bits()(0, 1)(1, 3)(5, 24).Words() + Bytes(64), five));           // an empty pre-code
    EXPECT_FALSE(Decodes(Bits()(0, 1)(1, 3)(5, 24).Words() + Bytes(64, 0x11), five));     // over-subscribed
    EXPECT_FALSE(Decodes(TwoSymbols(256 + 1, 5)(1, 1)(0, 2).Words(), five));              // before the begin
    EXPECT_FALSE(Decodes(TwoSymbols(256 + 1, 5)(0, 1)(1, 1)(1, 1).Words(), five));        // over the end
    EXPECT_FALSE(Decodes(TwoSymbols(256 + 7, 12)(0, 1)(1, 1)(0, 16).Words(), Bytes(12))); // an empty length code
    EXPECT_FALSE(Decodes(TwoSymbols(256 + 1, 6)(0, 1)(0, 1)(1, 1).Words(), Bytes(40)));   // ends early

    // An uncompressed block tells a recent offset, which the next one uses.
    for (std::uint8_t offset : {0, 1, 2})
    {
        Bytes const raw = Bits()(0, 1)(3, 3)(1, 24).Words() + Bytes{offset, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 0, 0};
        EXPECT_EQ(Decodes(raw + TwoSymbols(256 + 1, 3, false)(1, 1).Words(), Bytes(4)), offset == 1);
    }

    // Cut and changed anywhere: refused or decoded to something, and in bounds, which the sanitizers watch.
    Folder const good = Compress(Program(3 * BLOCK_SIZE) + Random(BLOCK_SIZE), 16, Level::Default, true);
    for (std::size_t size = 0; size < good.blocks[0].size(); size += 1 + size / 16)
    {
        Folder cut = good;
        cut.blocks[0].resize(size);
        EXPECT_TRUE(Expand(cut, 16).empty()) << size;
        cut = good;
        cut.blocks[size % 4][size % cut.blocks[size % 4].size()] ^= 1 << size % 8;
        Expand(cut, 16);
    }
}

TEST(Lzx, CallsAreTranslatedFrameByFrame)
{
    // A call at 2, one whose distance is behind the last byte that counts, and one in the last ten bytes.
    Bytes frame(32);
    frame[2] = 0xE8;
    frame[3] = 0x10;
    frame[22] = 0xE8;
    frame[23] = 0x10;
    Bytes translated = frame;
    TranslateCalls(translated, 1, 0x100000);
    Bytes expected = frame;
    expected[3] = 0x12;
    expected[4] = 0x80;
    EXPECT_EQ(translated, expected);
    UntranslateCalls(translated, 1, 0x100000);
    EXPECT_EQ(translated, frame);

    Bytes untouched = frame;
    TranslateCalls(untouched, 32768, 0x100000);
    EXPECT_EQ(untouched, frame);

    // Whatever the distances are: also those that lead out of the translated range.
    for (std::int32_t size : {1, 100, 0x100000, 0x7FFFFFFF})
    {
        for (std::uint64_t number : {0, 1, 500, 32767})
        {
            Bytes data = Random(4000, 4);
            std::ranges::replace(data, std::uint8_t{1}, std::uint8_t{0xE8});
            std::ranges::replace(data, std::uint8_t{2}, std::uint8_t{0xFF});
            Bytes const before = data;
            TranslateCalls(data, number, size);
            UntranslateCalls(data, number, size);
            EXPECT_EQ(data, before) << size << " " << number;
        }
    }
}

TEST(HuffmanCode, IsCompleteAndNotTooLong)
{
    std::vector<std::uint32_t> steep{1, 1};
    while (steep.size() < 40)
    {
        steep.push_back(steep[steep.size() - 1] + steep[steep.size() - 2]);
    }
    for (auto const & frequencies : {std::vector<std::uint32_t>{0, 0, 5, 0}, {3}, {1, 1, 1}, {9, 0, 1, 1, 1}, steep})
    {
        std::size_t const count = std::max<std::size_t>(frequencies.size(), 2);
        std::vector<std::uint32_t> all = frequencies;
        all.resize(count);
        std::vector<std::uint8_t> lengths(count);
        MakeCodeLengths(all, 7, lengths);
        unsigned used = 0;
        for (std::size_t i = 0; i < count; i++)
        {
            EXPECT_LE(lengths[i], 7);
            EXPECT_TRUE(all[i] == 0 || lengths[i] != 0);
            used += lengths[i] == 0 ? 0 : 128 >> lengths[i];
        }
        EXPECT_EQ(used, 128u);
    }
}
} // namespace
