#include "kvx/text/StringFile.h"

#include "tests/support/Raised.h"

#include <gtest/gtest.h>

namespace
{
TEST(StringFile, ReadsAndWritesInCharacters)
{
    CString text = _T("0123456789");
    CStringFile file(text);
    file.Write(_T("ab"), 2);
    EXPECT_EQ(text, _T("ab23456789"));
    EXPECT_EQ(file.Seek(2, CFile::end), 8U);
    file.Write(_T("xyz"), 3);
    EXPECT_EQ(text, _T("ab234567xyz"));
    WCHAR out[20] = {};
    EXPECT_EQ(file.Read(out, 20), 0U);
    file.SeekToBegin();
    EXPECT_EQ(file.Read(out, 20), 11U);
    EXPECT_EQ(CString(out), text);

    file.Seek(2, CFile::current);
    EXPECT_TRUE(Raises<CFileException>([&] { file.Read(out, 1); }));
    file.Write(_T("!"), 1);
    EXPECT_EQ(text, CString(CString::View(_T("ab234567xyz\0\0!"), 14)));
    file.Seek(1, CFile::begin);
    file.Write(text, 14); // of itself
    EXPECT_EQ(text.Left(4), _T("aab2"));
    EXPECT_EQ(text.GetLength(), 15);
    file.SetLength(3);
    EXPECT_EQ(text, _T("aab"));
    EXPECT_TRUE(Raises<CMemoryException>([&] { file.SetLength(ULONGLONG{1} << 31); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { CArchive(&file, CArchive::load); })); // it works in bytes
}

TEST(StringFile, ASharedTextIsNotWrittenTo)
{
    CStringA text = "shared";
    CStringA const other = text;
    CStringFileA file(text);
    {
        CArchive archive(&file, CArchive::store);
        archive << DWORD{0x64636261};
    }
    EXPECT_EQ(text, "abcded");
    EXPECT_EQ(other, "shared");
}
} // namespace
