#include "kvx/files/PagedMemFile.h"

#include "tests/support/Raised.h"

#include <gtest/gtest.h>

#include <numeric>
#include <vector>

namespace
{
std::vector<BYTE> Numbered(std::size_t size)
{
    std::vector<BYTE> bytes(size);
    std::iota(bytes.begin(), bytes.end(), BYTE{1});
    return bytes;
}

TEST(PagedBuffer, KeepsBytesAcrossPages)
{
    std::vector<BYTE> const bytes = Numbered(3000);
    for (unsigned int const pageSize : {0U, 1U, 7U, 1024U, 3000U, 5000U})
    {
        CPagedBuffer buffer(pageSize);
        for (int at = 0, piece = 0; at < 3000; at += piece)
        {
            piece = std::min(1 + at % 97, 3000 - at);
            EXPECT_EQ(buffer.Write(bytes.data() + at, piece), piece);
        }
        EXPECT_EQ(buffer.GetLength(), 3000U);
        EXPECT_FALSE(buffer.SetPosition(3001));
        EXPECT_EQ(buffer.GetPosition(), 3000U);
        BYTE out[3000] = {};
        EXPECT_EQ(buffer.Read(out, 1), -1);
        ASSERT_TRUE(buffer.SetPosition(10));
        EXPECT_EQ(buffer.Read(out, 5000), 2990);
        EXPECT_TRUE(std::equal(bytes.begin() + 10, bytes.end(), out));
        buffer.SetLength(20);
        EXPECT_EQ(buffer.GetPosition(), 20U);
        CStringA text;
        buffer.ToString(text);
        EXPECT_EQ(text, CStringA(reinterpret_cast<char const *>(bytes.data()), 20));
    }
}

TEST(PagedBuffer, CountsBelowZeroAndBeyondTheEndAreRefused)
{
    CPagedBuffer buffer("abcdef", 6);
    char out[8] = {};
    ASSERT_TRUE(buffer.SetPosition(4));
    EXPECT_EQ(buffer.Read(out, -3), -3);
    EXPECT_EQ(buffer.GetPosition(), 1U);
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { buffer.Read(out, -2); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { buffer.Write(out, -2); }));
    EXPECT_EQ(buffer.GetPosition(), 1U);
    EXPECT_EQ(buffer.GetLength(), 6U);
    CPagedMemFile file;
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { file.SetLength(ULONGLONG{1} << 32); }));
}

TEST(PagedBuffer, TextFormsGiveWhatTheyAreKnownFor)
{
    CPagedBuffer buffer(64);
    CString text = _T("kept");
    EXPECT_EQ(buffer.Write(_T("a text")), 0);
    EXPECT_EQ(buffer.GetLength(), 4U);
    buffer.SetPosition(0);
    EXPECT_EQ(buffer.Read(text), 0);
    EXPECT_EQ(text, _T("kept"));
    EXPECT_NE(buffer.Read(text), 0);

    buffer.FromString(CString(_T("wide")));
    buffer.ToString(text);
    EXPECT_EQ(buffer.GetLength(), 8U);
    EXPECT_EQ(text.Left(2), _T("wi"));
    EXPECT_NE(text, _T("wide"));

    buffer.Reset(64);
    buffer.SetText(_T("wide"));
    buffer.ToString(text);
    EXPECT_EQ(text, _T("wide"));
    buffer.SetPosition(8);
    buffer.WriteText(text + CString(_T('x'), 100));
    buffer.SetPosition(8);
    EXPECT_TRUE(buffer.ReadText(text));
    EXPECT_EQ(text.GetLength(), 104);
    buffer.SetPosition(12); // no length there that could be one
    EXPECT_FALSE(buffer.ReadText(text));
    EXPECT_EQ(buffer.GetPosition(), 12U);
}

TEST(PagedMemFile, CarriesFilesAndArchives)
{
    std::vector<BYTE> bytes = Numbered(2500);
    CMemFile source(bytes.data(), 2500);
    CPagedMemFile file;
    file.FromFile(source);
    CMemFile copy;
    file.ToFile(copy);
    EXPECT_EQ(copy.GetLength(), 2500U);
    BYTE first = 0;
    copy.SeekToBegin();
    copy.Read(&first, 1);
    EXPECT_EQ(first, bytes[2048]); // of the last piece

    source.SeekToBegin();
    file.LoadFile(source);
    CStringA text;
    file.ToString(text);
    EXPECT_EQ(text, CStringA(reinterpret_cast<char const *>(bytes.data()), 2500));
    EXPECT_EQ(file.Seek(10, CFile::end), 1U);
    EXPECT_EQ(file.GetPosition(), 2490U);
    EXPECT_EQ(file.Seek(1, CFile::current), 1U);
    EXPECT_EQ(file.Seek(2501, CFile::begin), 0U);
    EXPECT_EQ(file.Seek(-2492, CFile::current), 0U);
    EXPECT_EQ(file.Seek(LLONG_MIN, CFile::end), 0U);
    EXPECT_EQ(file.GetPosition(), 2491U);

    file.LoadFile(file); // from its own position on
    EXPECT_EQ(file.GetLength(), 9U);

    file.Close();
    CString const sent(_T('\u20ac'), 3000);
    {
        CArchive archive(&file, CArchive::store);
        archive << sent;
    }
    file.Seek(0, CFile::begin);
    CString received;
    CArchive archive(&file, CArchive::load);
    archive >> received;
    EXPECT_EQ(received, sent);
}
} // namespace
