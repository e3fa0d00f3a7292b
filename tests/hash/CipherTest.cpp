#include "HashPaths.h"

#include "tests/support/Raised.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/hash/Blowfish.h"
#include "kvx/hash/Crc32.h"
#include "kvx/hash/Crc32Paths.h"

#include <array>
#include <bit>

using namespace kvx::hash;

namespace
{
using Block = std::array<unsigned char, 8>;

Block ToBlock(std::uint64_t value)
{
    return std::bit_cast<Block>(__builtin_bswap64(value));
}
} // namespace

TEST(Cipher, PublishedExamples)
{
    struct Example
    {
        std::uint64_t key;
        std::uint64_t plain;
        std::uint64_t cipher;
    };
    constexpr Example EXAMPLES[] = {
        {0x0000000000000000, 0x0000000000000000, 0x4EF997456198DD78},
        {0xFFFFFFFFFFFFFFFF, 0xFFFFFFFFFFFFFFFF, 0x51866FD5B85ECB8A},
        {0x0123456789ABCDEF, 0x1111111111111111, 0x61F9C3802281B096},
        {0x7CA110454A1A6E57, 0x01A1D6D039776742, 0x59C68245EB05282B},
        {0x07A1133E4A0B2686, 0x0248D43806F67172, 0x1730E5778BEA1DA4},
    };
    EXPECT_EQ(CUtilities::BlowfishSelfTest(), nullptr);
    for (Example const & example : EXAMPLES)
    {
        Block key = ToBlock(example.key);
        Block plain = ToBlock(example.plain);
        Block out{};
        CUtilities::BlowfishEncrypt(key.data(), 8, out.data(), plain.data(), 8);
        EXPECT_EQ(out, ToBlock(example.cipher));
        CUtilities::BlowfishDecrypt(key.data(), 8, out.data(), out.data(), 8);
        EXPECT_EQ(out, plain);
    }
}

TEST(Cipher, BlocksAreEncipheredEachByItselfAndTheTailIsLeft)
{
    auto const plain = SomeBytes(8 * 13 + 7);
    unsigned char key[] = "key";
    for (LONG size = 0; size <= static_cast<LONG>(plain.size()); ++size)
    {
        auto data = plain;
        CUtilities::BlowfishEncrypt(key, 3, data.data(), data.data(), size);
        auto expected = plain;
        for (LONG at = 0; at + 8 <= size; at += 8)
        {
            CUtilities::BlowfishEncrypt(key, 3, expected.data() + at, expected.data() + at, 8);
        }
        ASSERT_EQ(data, expected) << size;
        CUtilities::BlowfishDecrypt(key, 3, data.data(), data.data(), size);
        ASSERT_EQ(data, plain) << size;
    }
    Block block{};
    EXPECT_TRUE(
        Raises<CInvalidArgException>([&] { CUtilities::BlowfishEncrypt(key, 0, block.data(), block.data(), 8); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { CUtilities::BlowfishDecrypt(key, 3, nullptr, block.data(), 8); }));
}

TEST(Checksums, Crc32)
{
    char digits[] = "123456789";
    EXPECT_EQ(CUtilities::ComputeCRC32(digits, 9), 0xCBF43926u);
    char high[] = "\xFF\xFF\xFF\xFF";
    EXPECT_EQ(CUtilities::ComputeCRC32(high, 4), 0xFFFFFFFFu);
    EXPECT_EQ(CUtilities::ComputeCRC32(digits, 0), 0u);
    auto const data = SomeBytes(5000);
    std::uint32_t const whole = Crc32(data);
    for (std::size_t part = 0; part <= data.size(); part += 97)
    {
        ASSERT_EQ(Crc32(std::span(data).subspan(part), Crc32(std::span(data).first(part))), whole);
    }
    for (auto const & path : OpenPaths(CRC_PATHS))
    {
        for (std::size_t offset = 0; offset < 64; ++offset)
        {
            for (std::size_t size = 0; size <= 300; ++size)
            {
                ASSERT_EQ(path.pFunction(~0u, data.data() + offset, size), CrcPortable(~0u, data.data() + offset, size))
                    << path.pszName << " " << size;
            }
            for (std::size_t size = 500; size <= 4900; size += 61)
            {
                ASSERT_EQ(path.pFunction(7, data.data() + offset, size), CrcPortable(7, data.data() + offset, size))
                    << path.pszName << " " << size;
            }
        }
    }
}

TEST(Checksums, HashSizes)
{
    for (auto const & [entries, size] :
         {std::pair(0, 29), {144, 29}, {145, 127}, {5000, 1024}, {5120, 2017}, {10000000, 800011}, {-1, 29}})
    {
        EXPECT_EQ(CUtilities::GetHashSize(entries), size) << entries;
    }
}
