#include "kvx/files/FilePath.h"
#include "kvx/foundation/Utilities.h"

#include "tests/support/OneHost.h"
#include "tests/support/PrivateHome.h"

#include <gtest/gtest.h>

namespace
{
std::string Utf8(CString const & text)
{
    return kvx::ToUtf8(text);
}

TEST(FilePath, Splits)
{
    struct Case
    {
        LPCTSTR path;
        char const * parts; // with bars between them
    };
    for (Case const & it :
         {Case{_T("c:\\a\\b.txt"), "c:|\\a\\|b|.txt"}, Case{_T("\\\\s\\share\\.rc"), "|\\\\s\\share\\||.rc"},
          Case{_T("a.b/c"), "|a.b/|c|"}, Case{_T("c:x.tar.gz"), "c:||x.tar|.gz"}, Case{_T(".."), "||.|."},
          Case{_T("\\\\?\\c:\\d"), "|\\\\?\\c:\\|d|"}, Case{_T(""), "|||"}, Case{nullptr, "|||"}})
    {
        CFilePath path(it.path);
        EXPECT_EQ(Utf8(path.GetDrive() + _T("|") + path.GetDirectory() + _T("|") + path.GetFile() + _T("|") +
                       path.GetExtension()),
                  it.parts);
        EXPECT_EQ(path.ToString(), CString(it.path));
        EXPECT_EQ(CFilePath::ParseLocation(it.path) + CFilePath::ParseFileName(it.path), path.ToString());
    }
}

TEST(FilePath, CompactPathKeepsTheNameAndItsBounds)
{
    CFilePath const path(_T("c:\\a long folder\\another\\file.txt"));
    EXPECT_EQ(Utf8(path.GetCompactPath(100)), Utf8(path.ToString()));
    EXPECT_EQ(Utf8(path.GetCompactPath(21)), "c:\\a lon...\\file.txt");
    if (!host::IsWindows()) // which measures with the font of a screen (2026-11-22)
    {
        EXPECT_EQ(path.GetCompactPath(HDC(), 140), path.GetCompactPath(21));
    }
    CFilePath const deep(CString(_T('x'), 1000) + _T("\\y"));
    for (unsigned int width = 0; width < 400; ++width)
    {
        EXPECT_LE(path.GetCompactPath(width).GetLength(), static_cast<int>(width));
        EXPECT_LT(deep.GetCompactPath(width).GetLength(), MAX_PATH);
    }
}

TEST(FilePath, LongNameOfWhatDoesNotExistIsWhatWasGiven)
{
    PrivateHome::Put("c/Long/some~1.txt");
    EXPECT_EQ(Utf8(CFilePath::GetLongPathNameW(_T("c:\\long\\some~1.txt"))), "c:\\long\\some~1.txt");
    EXPECT_EQ(Utf8(CFilePath::GetLongPathNameW(_T("\\\\?\\c:\\no\\x~2\\y"))), "c:\\no\\x~2\\y");
    CString const endless = CString(_T('~'), 40000) + _T("\\b");
    EXPECT_EQ(CFilePath::GetLongPathNameW(endless), endless);
    EXPECT_EQ(Utf8(CFilePath::GetShortPathNameW(_T("c:\\long\\some~1.txt")).MakeLower()), "c:\\long\\some~1.txt");
    EXPECT_TRUE(CFilePath::GetShortPathNameW(_T("c:\\none")).IsEmpty());
}

TEST(Paths, LongPrefixBeginsAt260)
{
    CString path = _T("c:\\") + CString(_T('x'), 256);
    EXPECT_EQ(CUtilities::CheckFixLongFilePathPrefix(path), 0);
    path += _T('x');
    EXPECT_EQ(CUtilities::CheckFixLongFilePathPrefix(path), 1);
    EXPECT_EQ(CUtilities::CheckFixLongFilePathPrefix(path), 0);
    EXPECT_EQ(CUtilities::StripLongFilePathPrefix(path), 1);
    EXPECT_EQ(path.GetLength(), 260);
    CString bare = _T("\\\\?\\");
    EXPECT_EQ(CUtilities::StripLongFilePathPrefix(bare), 0);
}

TEST(Paths, AbsoluteAndBuilt)
{
    EXPECT_TRUE(CUtilities::IsAbsolutePath(_T("c:x")) && CUtilities::IsAbsolutePath(_T("\\\\?\\x")));
    EXPECT_FALSE(CUtilities::IsAbsolutePath(nullptr) || CUtilities::IsAbsolutePath(_T("\\\\s\\x")));
    EXPECT_EQ(Utf8(CUtilities::BuildAbsolutePath(_T("c:\\a\\b\\"), _T("..\\x\\..\\y"))), "c:\\a\\x\\..\\y");
    EXPECT_EQ(Utf8(CUtilities::BuildAbsolutePath(_T("c:\\a"), _T("d:\\x"))), "d:\\x");
    EXPECT_EQ(Utf8(CUtilities::BuildAbsolutePath(_T("c:\\a"), _T("..\\..\\x"))), "");
    EXPECT_EQ(Utf8(CUtilities::BuildAbsolutePath(_T("c:\\a"), CString(_T('x'), 32800))), "");
    CString const temp = CUtilities::GetTempDirectory();
    EXPECT_EQ(CUtilities::BuildTempPath(_T("x"), 0), temp + _T("x"));
    EXPECT_TRUE(CUtilities::BuildTempPath(_T("c:\\x"), 0).IsEmpty());
    EXPECT_EQ(CUtilities::BuildTempPath(_T("c:\\x"), 1), temp + _T("c:\\x"));
    EXPECT_EQ(Utf8(CUtilities::BuildSystemPath(_T("x"), 0).MakeLower()), "c:\\windows\\system32\\x");
    EXPECT_EQ(CUtilities::BuildLocalPath(_T("x"), 0, nullptr), CUtilities::GetLocalDirectory(nullptr) + _T("x"));
    EXPECT_EQ(Utf8(CUtilities::BuildCommonAppDataPath(_T("Maker\\x.ini"), 0, 1)), "C:\\ProgramData\\Maker\\x.ini");
    EXPECT_TRUE(CUtilities::DirectoryExists(_T("c:\\programdata\\maker")));
    EXPECT_TRUE(CUtilities::FileExists(CUtilities::BuildTempFileName(_T("kvx"), 0, CString())));
}
} // namespace
