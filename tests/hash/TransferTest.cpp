#include "kvx/files/PagedMemFile.h"
#include "kvx/foundation/Utilities.h"

#include <gtest/gtest.h>

TEST(Transfer, TextsAndNumbers)
{
    CString const many(_T('\u20AC'), 100000);
    CPagedMemFile file;
    CUtilities::Write(file, CString());
    EXPECT_EQ(file.GetLength(), 4u);
    CUtilities::Write(file, 0xFEDCBA98u);
    CUtilities::Write(file, many);
    {
        CArchive archive(&file, CArchive::store);
        CUtilities::Write(archive, CString(_T("a\0b"), 3));
        CUtilities::Write(archive, 5u);
        CUtilities::Write(archive, 0x7FFFFFF0u); // a false length
    }
    file.Seek(0, CFile::begin);
    CString text = _T("old");
    ULONG value = 0;
    EXPECT_EQ(CUtilities::Read(file, text), 1);
    EXPECT_EQ(text, _T(""));
    EXPECT_EQ(CUtilities::Read(file, value), 1);
    EXPECT_EQ(value, 0xFEDCBA98u);
    EXPECT_EQ(CUtilities::Read(file, text), 1);
    EXPECT_EQ(text, many);
    CArchive archive(&file, CArchive::load);
    EXPECT_EQ(CUtilities::Read(archive, text), 1);
    EXPECT_EQ(text, CString(_T("a\0b"), 3));
    EXPECT_EQ(CUtilities::Read(archive, value), 1);
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(CUtilities::Read(archive, text), 0);
    EXPECT_EQ(CUtilities::Read(archive, value), 0);
    EXPECT_EQ(text.GetLength() + value, 8u);
}
