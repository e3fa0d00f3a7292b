#include "HashPaths.h"

#include "tests/support/Raised.h"
#include "tests/support/TestFolder.h"

#include "kvx/hash/DigestPaths.h"
#include "kvx/hash/MD5Checksum.h"
#include "kvx/hash/SHA1.h"
#include "kvx/hash/SHA256.h"
#include "kvx/text/StringFile.h"

#include <string>

namespace
{
std::string Hex(CString const & text)
{
    return kvx::ToUtf8(text);
}

template <class DIGEST>
std::string InPieces(std::string text, std::size_t piece)
{
    DIGEST digest;
    for (std::size_t at = 0; at < text.size(); at += piece)
    {
        auto * const bytes = reinterpret_cast<unsigned char *>(text.data()) + at;
        digest.Update(bytes, static_cast<unsigned int>(std::min(piece, text.size() - at)));
    }
    return Hex(digest.Final());
}

/// A file that fails in its own way.
class BadFile : public CMemFile
{
public:
    UINT Read(void *, UINT) override { AfxThrowNotSupportedException(); }
};
} // namespace

TEST(Digests, PublishedExamples)
{
    std::string const two = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    EXPECT_EQ(InPieces<CMD5Checksum>("", 1), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(InPieces<CMD5Checksum>("abc", 1), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(
        InPieces<CMD5Checksum>("12345678901234567890123456789012345678901234567890123456789012345678901234567890", 7),
        "57edf4a22be3c955ac49da2e2107b67a");
    EXPECT_EQ(InPieces<CSHA1>("abc", 3), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(InPieces<CSHA1>(two, 55), "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    EXPECT_EQ(InPieces<CSHA1>("", 1), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(InPieces<CSHA256>("abc", 2), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(InPieces<CSHA256>(two, 56), "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    std::string const million(1000000, 'a');
    for (std::size_t const piece : {std::size_t(63), std::size_t(64), std::size_t(65), million.size()})
    {
        EXPECT_EQ(InPieces<CMD5Checksum>(million, piece), "7707d6ae4e027c70eea2a935c2296f21");
        EXPECT_EQ(InPieces<CSHA1>(million, piece), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
        EXPECT_EQ(InPieces<CSHA256>(million, piece),
                  "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    }
}

TEST(Digests, LengthsThatDontFitInOneWord)
{
    // 512 MiB and a little: the number of bits needs its second word.
    std::vector<unsigned char> zeros(1 << 20);
    CSHA256 digest;
    for (int i = 0; i < 513; ++i)
    {
        digest.Update(zeros.data(), static_cast<unsigned int>(zeros.size()));
    }
    EXPECT_EQ(Hex(digest.Final()), "a3e2acbb469e4e59dde406f912e754c933c1ac0fb0092a3634d61d5073309c0c");
}

TEST(Digests, WhatFinalLeaves)
{
    unsigned char data[] = {'a', 'b', 'c'};
    CSHA256 sha256;
    CString const none = sha256.Final();
    sha256.Update(data, 3);
    CString const abc = sha256.Final();
    EXPECT_EQ(abc, CSHA256::GetSHA256(data, 3));
    EXPECT_EQ(sha256.Final(), none);

    CSHA1 sha1;
    sha1.Update(data, 3);
    CString const first = sha1.Final();
    unsigned char kept[20] = {};
    EXPECT_TRUE(sha1.GetHash(kept));
    EXPECT_EQ(kept[0], 0xA9);
    EXPECT_FALSE(sha1.GetHash(nullptr));
    sha1.Reset();
    sha1.Update(data, 3);
    EXPECT_EQ(sha1.Final(), first);

    CMD5Checksum md5;
    md5.Update(data, 3);
    CString const once = md5.Final();
    md5.Update(data, 3);
    EXPECT_NE(md5.Final(), once);
}

using DigestsOfFiles = TestFolder;

TEST_F(DigestsOfFiles, AreThoseOfTheirBytes)
{
    std::string const content(200001, 'k');
    Put("data", content);
    std::string const expected = InPieces<CSHA256>(content, 1 << 20);
    CString const wide = kvx::FromUtf8(Host("data"));
    EXPECT_EQ(Hex(CSHA256::GetSHA256(wide)), expected);
    CFile file(wide, CFile::modeRead | CFile::shareDenyNone);
    file.Seek(77, CFile::begin);
    EXPECT_EQ(Hex(CSHA256::GetSHA256(file)), expected);
    EXPECT_EQ(file.GetPosition(), 0u);
    EXPECT_EQ(CMD5Checksum::GetMD5(wide), CMD5Checksum::GetMD5(file));
    EXPECT_EQ(CSHA1::GetSHA1(wide), CSHA1::GetSHA1(file));

    EXPECT_EQ(CMD5Checksum::GetMD5(wide + _T("-missing")), _T(""));
    EXPECT_EQ(CMD5Checksum::GetMD5(kvx::FromUtf8(Host(""))), _T(""));
    EXPECT_EQ(CSHA1::GetSHA1(CString(_T('x'), 100000)), _T(""));
    file.Close();
    EXPECT_EQ(CauseOf([&] { CSHA1::GetSHA1(file); }), CFileException::invalidFile);
    BadFile bad;
    EXPECT_EQ(CMD5Checksum::GetMD5(bad), _T("MD5 EXCEPTION FILE"));
    EXPECT_EQ(CSHA256::GetSHA256(bad), _T("SHA256 EXCEPTION FILE"));
    EXPECT_EQ(CSHA1::GetSHA1(nullptr, 1), _T("SHA1 EXCEPTION"));
    EXPECT_EQ(CMD5Checksum::GetMD5(nullptr, 0), _T("d41d8cd98f00b204e9800998ecf8427e"));
    CString text(_T('t'), 100000);
    CStringFile wideFile(text); // counts characters, where a digest is of bytes
    EXPECT_EQ(CSHA256::GetSHA256(wideFile), _T("SHA256 EXCEPTION FILE"));
    EXPECT_EQ(CSHA256::GetSHA256(wide + CString(WCHAR(), 1)), _T(""));
}

TEST(Digests, EveryPathIsAsThePortableOne)
{
    using namespace kvx::hash;
    auto const data = SomeBytes(64 * 8 + 64);
    auto const check = [&](auto const & paths, DigestBlocks portable)
    {
        for (auto const & path : OpenPaths(paths))
        {
            for (std::size_t offset = 0; offset < 64; ++offset)
            {
                for (std::size_t count = 0; count <= 8; ++count)
                {
                    std::uint32_t expected[8] = {1, 2, 3, 0x80000000, 5, 6, 7, 0xFFFFFFFF};
                    std::uint32_t found[8] = {1, 2, 3, 0x80000000, 5, 6, 7, 0xFFFFFFFF};
                    portable(expected, data.data() + offset, count);
                    path.pFunction(found, data.data() + offset, count);
                    ASSERT_EQ(std::to_array(found), std::to_array(expected)) << path.pszName;
                }
            }
        }
    };
    check(SHA1_PATHS, Sha1Portable);
    check(SHA256_PATHS, Sha256Portable);
}
