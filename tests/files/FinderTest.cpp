#include "kvx/files/FileFinder.h"
#include "kvx/foundation/Utilities.h"

#include "tests/support/PrivateHome.h"

#include <gtest/gtest.h>

#include <set>

namespace
{
TEST(FileFinder, GoesThroughWhatMatches)
{
    std::string const longName(255, 'n');
    std::filesystem::create_directories(PrivateHome::Host("c/f/Folder"));
    PrivateHome::Put("c/f/a.txt", "text");
    PrivateHome::Put("c/f/" + longName);
    std::set<std::string> names;
    CFileFinder finder(_T("c:\\f\\*"), FindExSearchNameMatch);
    while (finder.FindNext())
    {
        names.insert(kvx::ToUtf8(finder.GetFileName()) + (finder.IsDots() ? "!" : "") + (finder.IsFile() ? "" : "/") +
                     (finder.IsEmptyFile() ? "" : "+"));
    }
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_FILES));
    EXPECT_EQ(names, (std::set<std::string>{".!/", "..!/", "Folder/", "a.txt+", longName}));
    EXPECT_FALSE(finder.FindNext());

    EXPECT_TRUE(finder.FindFirst(_T("c:\\f\\A.*")));
    EXPECT_EQ(finder->nFileSizeLow, 4U);
    EXPECT_FALSE(finder.FindFirst(_T("c:\\f\\none")));

    CFileFinder folders(FindExSearchLimitToDirectories);
    WIN32_FIND_DATAW data;
    EXPECT_TRUE(folders.FindFirst(_T("c:\\f\\*o*"), data));
    EXPECT_EQ(kvx::ToUtf8(data.cFileName), "Folder");
    EXPECT_FALSE(folders.FindNext(data));
    EXPECT_FALSE(folders.FindFirst(_T("c:\\f\\a.txt")));
    EXPECT_TRUE(CFileFinder::Find(_T("c:\\f\\a.txt"), data) && CFileFinder::IsFile(data));
}

TEST(FileFinder, HostMayReplaceTheFunctions)
{
    static int s_nOpen = 0;
    _tagFILEFINDERFUNCS functions{[](LPCTSTR path, WIN32_FIND_DATAW * data) -> HANDLE
                                  {
                                      ++s_nOpen;
                                      data->cFileName[0] = path[0];
                                      data->cFileName[1] = 0;
                                      return &s_nOpen;
                                  },
                                  [](HANDLE, WIN32_FIND_DATAW *) -> BOOL { return FALSE; },
                                  [](HANDLE) -> BOOL { return --s_nOpen == 0; }};
    CFileFinder::SetFindFunctions(&functions);
    {
        CFileFinder finder(_T("q:\\"));
        EXPECT_TRUE(finder.FindNext());
        EXPECT_EQ(finder.GetFileName(), CString(_T("q")));
        EXPECT_FALSE(finder.FindNext());
        EXPECT_TRUE(finder.FindFirst(_T("r:\\")));
    }
    CFileFinder::SetFindFunctions(nullptr);
    EXPECT_EQ(s_nOpen, 0);
    EXPECT_FALSE(CFileFinder().FindFirst(_T("q:\\")));
}

TEST(FileFinder, FindsAllAlongTheFixedList)
{
    PrivateHome::Put("c/Windows/System32/found.me");
    PrivateHome::Put("c/Windows/found.me");
    PrivateHome::Put("bin/found.me");
    PrivateHome::Put("c/extra1/found.me");
    PrivateHome::Put("c/extra2/found.me");
    CStringList out;
    EXPECT_EQ(CFileFinder::FindAllFiles(_T("found.me"), out, _T("c:\\extra1;c:\\extra2")), 4);
    EXPECT_EQ(kvx::ToUtf8(out.GetHead().MakeLower()), "c:\\windows\\system32\\found.me");
    EXPECT_EQ(kvx::ToUtf8(out.GetTail()), "c:\\extra1\\found.me");
}
} // namespace
