#include "HashPaths.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/hash/Base64.h"
#include "kvx/hash/Base64Paths.h"

#include <string>

using namespace kvx::hash;

namespace
{
std::string Encode(std::string const & data, ULONG flags = 0)
{
    return kvx::ToUtf8(CUtilities::ToBase64(data.data(), data.size(), flags));
}

/// What the decoder makes of it, with the room for exactly that.
std::string Decode(std::string_view text)
{
    int size = 0;
    EXPECT_EQ(CUtilities::Base64Decode(text.data(), static_cast<int>(text.size()), nullptr, &size), 0);
    std::string data(static_cast<std::size_t>(size) + 1, '#');
    auto * const out = reinterpret_cast<unsigned char *>(data.data());
    EXPECT_EQ(CUtilities::Base64Decode(text.data(), static_cast<int>(text.size()), out, &size), 1);
    EXPECT_EQ(data.back(), '#');
    data.pop_back();
    return data;
}
} // namespace

TEST(Base64, PublishedExamplesAndLines)
{
    EXPECT_EQ(Encode("") + Encode("f") + Encode("fo") + Encode("foo") + Encode("foob") + Encode("fooba"),
              "Zg==Zm8=Zm9vZm9vYg==Zm9vYmE=");
    EXPECT_EQ(Encode("f", BASE64_NO_FILL) + Encode("fo", BASE64_NO_FILL), "ZgZm8");
    std::string const line = Encode(std::string(57, 'x'));
    EXPECT_EQ(line.size(), 76u);
    EXPECT_EQ(Encode(std::string(58, 'x')), line + "\r\neA==");
    EXPECT_EQ(Encode(std::string(114, 'x')), line + "\r\n" + line);
    EXPECT_EQ(Encode(std::string(114, 'x'), BASE64_NO_LINES), line + line);
    EXPECT_EQ(Encode(std::string(112, 'x')).substr(78), line.substr(0, 73) + "A==");
}

TEST(Base64, RequiredLengthsBoundWhatIsWritten)
{
    EXPECT_EQ(CUtilities::Base64EncodeGetRequiredLength(57, 0), 80);
    EXPECT_EQ(CUtilities::Base64EncodeGetRequiredLength(1, 0), 6);
    EXPECT_EQ(CUtilities::Base64EncodeGetRequiredLength(1, 3), 4);
    EXPECT_EQ(CUtilities::Base64EncodeGetRequiredLength(-1, 0), 0);
    EXPECT_EQ(CUtilities::Base64EncodeGetRequiredLength(0x7FFFFFFF, 0), 0);
    auto const data = SomeBytes(400);
    for (ULONG flags = 0; flags < 4; ++flags)
    {
        for (int size = 1; size <= 400; ++size)
        {
            int const required = CUtilities::Base64EncodeGetRequiredLength(size, flags);
            std::string narrow(static_cast<std::size_t>(required), '#');
            int length = required - 1;
            ASSERT_EQ(CUtilities::Base64Encode(data.data(), size, narrow.data(), &length, flags), 0);
            length = required;
            ASSERT_EQ(CUtilities::Base64Encode(data.data(), size, narrow.data(), &length, flags), 1);
            ASSERT_LE(length, required);
            ASSERT_EQ(narrow.find('#') == std::string::npos ? required : narrow.find('#'), length);
            CString wide;
            int wideLength = 0;
            ASSERT_EQ(CUtilities::Base64Encode(data.data(), size, wide.GetBufferSetLength(length), &wideLength, flags),
                      1);
            ASSERT_EQ(wideLength, length);
            ASSERT_EQ(CStringA(wide), CStringA(narrow.data(), length));
            ASSERT_EQ(Decode(std::string_view(narrow).substr(0, static_cast<std::size_t>(length))),
                      std::string(data.begin(), data.begin() + size));
        }
    }
    int length = 10;
    EXPECT_EQ(CUtilities::Base64Encode(nullptr, 1, CString().GetBuffer(8), &length, 0), 0);
    EXPECT_EQ(CUtilities::Base64Encode(data.data(), 1, static_cast<char *>(nullptr), &length, 0), 0);
}

TEST(Base64, TheDecoderPassesOverWhatIsNoDigit)
{
    EXPECT_EQ(Decode("Zm\r\n 9v=Yg"), "foob");
    EXPECT_EQ(Decode("Zg==Zm9v"), "f\x06"
                                  "f\xF6"); // the fill character parts nothing
    EXPECT_EQ(Decode("Zm9vZ"), "foo");
    EXPECT_EQ(Decode(std::string_view("Zm9v\0Zm9v", 9)), "foo");
    EXPECT_EQ(Decode(std::string_view("Zm8\0Zm9v", 8)), "fo");
    EXPECT_EQ(Decode("\x80\xFF-_Z\x7Fg"), "f");
    unsigned char out[6] = "#####";
    int size = 4;
    EXPECT_EQ(CUtilities::Base64Decode("Zm9vYmFyZm8", 11, out, &size), 0);
    EXPECT_EQ(size, 8);
    EXPECT_STREQ(reinterpret_cast<char *>(out), "foo##");
}

TEST(Base64, StrictlyReadTextsSayWhereTheyAreWrong)
{
    CByteArray bytes;
    auto const fault = [&](LPCTSTR text) { return CUtilities::FromBase64(text, bytes); };
    EXPECT_EQ(fault(_T("Zm9v\r\nYg==")), -1);
    EXPECT_EQ(CStringA(reinterpret_cast<char *>(bytes.GetData()), static_cast<int>(bytes.GetSize())), "foob");
    EXPECT_EQ(fault(_T("Zm9vYg\n")), -1);
    EXPECT_EQ(bytes.GetSize(), 4);
    EXPECT_EQ(fault(_T("")), -1);
    EXPECT_EQ(fault(_T("Zm9v?m9v")), 4);
    EXPECT_EQ(bytes.GetSize(), 3);
    EXPECT_EQ(fault(_T("Zm9\u0176")), 3); // whose lower byte is a digit
    EXPECT_EQ(fault(_T("Zm9vY")), 5);
    EXPECT_EQ(fault(_T("Zm9vYg=")), 7);
    EXPECT_EQ(fault(_T("Zg==Zm9v")), 4);
    EXPECT_EQ(fault(_T("Z===")), 1);
    EXPECT_EQ(fault(_T("Zh==\r\n")), 1); // unused bits
    EXPECT_EQ(fault(_T("Zm9=")), 2);
    EXPECT_EQ(fault(_T("Zm\r9v")), 2);
}

TEST(Base64, EveryPathEncodesAsThePortableOne)
{
    constexpr std::size_t MOST = 6;
    auto const data = SomeBytes(MOST * BASE64_LINE_DATA + 64);
    auto const check = [&]<class UNIT>(auto const & paths, auto portable, UNIT mark)
    {
        for (auto const & path : OpenPaths(paths))
        {
            for (std::size_t offset = 0; offset < 64; ++offset)
            {
                for (std::size_t lines = 0; lines <= MOST; ++lines)
                {
                    bool const ends = offset % 2 == 0;
                    // Exact memory, for the sanitizer to see what goes beyond.
                    std::vector<std::uint8_t> const in(
                        data.begin() + static_cast<std::ptrdiff_t>(offset),
                        data.begin() + static_cast<std::ptrdiff_t>(offset + lines * BASE64_LINE_DATA));
                    std::vector<UNIT> expected(lines * (BASE64_LINE + 2) + 1, mark);
                    std::vector<UNIT> found = expected;
                    portable(in.data(), lines, expected.data(), ends);
                    path.pFunction(in.data(), lines, found.data(), ends);
                    ASSERT_EQ(found, expected) << path.pszName << " " << lines << " lines";
                }
            }
        }
    };
    check(ENCODE_NARROW_PATHS, EncodeNarrowPortable, '#');
    check(ENCODE_WIDE_PATHS, EncodeWidePortable, WCHAR('#'));
}

TEST(Base64, EveryPathDecodesAsThePortableOne)
{
    auto const data = SomeBytes(300);
    std::string const clean = Encode(std::string(data.begin(), data.end()), BASE64_NO_LINES);
    auto const check = [](auto const & path, std::string_view text, std::size_t room)
    {
        std::vector<char> const exact(text.begin(), text.end());
        std::vector<std::uint8_t> expected(room, 0xEE);
        std::vector<std::uint8_t> found = expected;
        auto const wanted = DecodeBase64On(DecodePortable, exact.data(), exact.size(), expected.data(), room);
        auto const got = DecodeBase64On(path.pFunction, exact.data(), exact.size(), found.data(), room);
        ASSERT_EQ(got.nSize, wanted.nSize) << path.pszName << " " << text;
        ASSERT_EQ(got.nWritten, wanted.nWritten) << path.pszName << " " << text;
        expected.resize(wanted.nWritten);
        found.resize(wanted.nWritten);
        ASSERT_EQ(found, expected) << path.pszName << " " << text;
    };
    for (auto const & path : OpenPaths(DECODE_PATHS))
    {
        for (std::size_t length = 0; length <= 300; ++length)
        {
            check(path, std::string_view(clean).substr(0, length), length / 4 * 3 + 3);
            check(path, std::string_view(clean).substr(0, 300), length); // all kinds of too little room
        }
        for (int c = 0; c < 256; ++c)
        {
            for (std::size_t at = 0; at < 64; ++at)
            {
                std::string text = clean.substr(at, 200);
                text[at] = static_cast<char>(c);
                check(path, text, 200);
                text.insert(at + 3, at % 2 ? "\r\n" : std::string(at, '='));
                check(path, text, 300);
            }
        }
    }
}
