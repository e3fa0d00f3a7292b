#include "kvx/foundation/Utilities.h"

#include "tests/support/KeptLog.h"
#include "tests/support/OneHost.h"
#include "tests/support/PrivateHome.h"

#include <gtest/gtest.h>

#include <set>

namespace
{
namespace fs = std::filesystem;

/// One that isn't UTF-8, where that is possible.
char const * const NAME_OF_ITS_OWN = host::IsWindows() ? "s/\xF0\x9F\x98\x80.txt" : "s/\xFE\xFF.txt";

class Folder : public testing::Test
{
protected:
    ~Folder() override
    {
        CUtilities::SetFileExistsProc(nullptr);
        CUtilities::SetDeleteFileProc(nullptr);
        EXPECT_TRUE(CUtilities::ClearDirectory(_T("c:\\t"), 1) || !fs::exists(PrivateHome::Host("c/t")));
    }

    static std::multiset<std::string> Names(CStringList const & list)
    {
        std::multiset<std::string> names;
        for (POSITION position = list.GetHeadPosition(); position;)
        {
            names.insert(kvx::ToUtf8(list.GetNext(position)));
        }
        return names;
    }
};

TEST_F(Folder, CreatesTheWayAndTellsWhatFails)
{
    KeptLog log;
    EXPECT_TRUE(CUtilities::CreateDirectoryW(_T("c:\\t\\a\\b\\")));
    EXPECT_TRUE(CUtilities::DirectoryExists(_T("c:\\T\\A\\B")));
    EXPECT_TRUE(CUtilities::CreateDirectoryW(_T("")));
    CString deep = _T("c:\\t");
    for (int i = 0; i < 20; ++i)
    {
        deep += _T("\\a folder with a name of some length");
    }
    EXPECT_TRUE(CUtilities::CreateDirectoryW(deep));
    EXPECT_TRUE(CUtilities::DirectoryExists(deep));
    EXPECT_TRUE(log.Take().empty());
    EXPECT_FALSE(CUtilities::CreateDirectoryW(_T("\\\\server\\share\\x")));
    std::vector<std::string> const lines = log.Take();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0].find("E CUtilities::CreateDirectory - ::CreateDirectory(\\\\server, NULL) failed ["), 0U);
    PrivateHome::Put("c/t/file");
    EXPECT_TRUE(CUtilities::CreateDirectoryW(_T("c:\\t\\file")));
    EXPECT_FALSE(CUtilities::CreateDirectoryW(_T("c:\\t\\file\\x")));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
}

TEST_F(Folder, SingleFilesAndHooks)
{
    PrivateHome::Put("c/t/one.txt");
    fs::permissions(PrivateHome::Host("c/t/one.txt"), fs::perms::owner_read);
    EXPECT_TRUE(CUtilities::FileExists(_T("c:\\t\\*.t*")) && CUtilities::FileExists(_T("c:\\t")));
    EXPECT_FALSE(CUtilities::FileExists(_T("c:\\t\\none")) || CUtilities::DirectoryExists(_T("c:\\t\\one.txt")));
    if (host::MakeLink("one.txt", PrivateHome::Host("c/t/link")) &&
        host::MakeLink("nowhere", PrivateHome::Host("c/t/broken")))
    {
        EXPECT_TRUE(CUtilities::DeleteFileW(_T("c:\\t\\link"), 1) && CUtilities::DeleteFileW(_T("c:\\t\\broken"), 1));
    }
    EXPECT_FALSE(CUtilities::DeleteFileW(_T("c:\\t\\one.txt"), 0)); // the link's going hasn't changed it
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(CUtilities::TestFileOpen(_T("c:\\t\\one.txt")));
    EXPECT_TRUE(CUtilities::DeleteFileW(_T("c:\\t\\one.txt"), 1));
    EXPECT_FALSE(CUtilities::DeleteFileW(_T("c:\\t\\one.txt"), 1) || CUtilities::TestFileOpen(_T("c:\\t\\one.txt")));

    EXPECT_EQ(CUtilities::SetFileExistsProc(
                  [](LPCTSTR path, int & result) -> int
                  {
                      result = 5;
                      return CString::View(path) != CString::View(_T("q:\\x"));
                  }),
              nullptr);
    EXPECT_EQ(CUtilities::FileExists(_T("q:\\x")), 5);
    EXPECT_FALSE(CUtilities::FileExists(_T("q:\\y")));
    CUtilities::SetDeleteFileProc(
        [](LPCTSTR, int force, int & result) -> int
        {
            result = force + 7;
            return 0;
        });
    EXPECT_EQ(CUtilities::DeleteFileW(_T("q:\\y"), 1), 8);
}

TEST_F(Folder, ListsAndCounts)
{
    for (char const * const name : {"1.txt", "2.dat", "s/3.txt", "s/u/4.TXT", NAME_OF_ITS_OWN})
    {
        PrivateHome::Put(std::string("c/t/") + name);
    }
    if (!host::MakeLink("s", PrivateHome::Host("c/t/link"), true))
    {
        PrivateHome::Put("c/t/link"); // what a link is taken for
    }
    CStringList files;
    EXPECT_TRUE(CUtilities::GetFilesInDirectory(_T("c:\\t"), files, 0));
    EXPECT_EQ(Names(files), (std::multiset<std::string>{"c:\\t\\1.txt", "c:\\t\\2.dat", "c:\\t\\link"}));
    files.RemoveAll();
    EXPECT_TRUE(CUtilities::GetFilesInDirectory(_T("c:\\t\\"), files, 1));
    EXPECT_EQ(files.GetCount(), 6);
    for (POSITION position = files.GetHeadPosition(); position;)
    {
        EXPECT_TRUE(CUtilities::FileExists(files.GetNext(position)));
    }
    CStringList folders;
    EXPECT_TRUE(CUtilities::GetSubDirectories(_T("c:\\t"), folders, 1));
    EXPECT_EQ(Names(folders), (std::multiset<std::string>{"c:\\t\\s", "c:\\t\\s\\u"}));
    EXPECT_EQ(CUtilities::GetDirectoryFileCount(_T("c:\\t"), _T("*.txt"), 0), 1);
    EXPECT_EQ(CUtilities::GetDirectoryFileCount(_T("c:\\t"), _T("*.txt"), 1), 4);
    EXPECT_EQ(GetLastError(), 0U);

    EXPECT_FALSE(CUtilities::GetFilesInDirectory(_T("c:\\none"), files, 1));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_FALSE(CUtilities::GetFilesInDirectory(_T(""), files, 1));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

    CStringList found;
    EXPECT_TRUE(CUtilities::FindFile(_T("c:\\t\\*.none"), found));
    EXPECT_TRUE(CUtilities::FindFile(_T("c:\\t\\*"), found));
    EXPECT_EQ(found.GetCount(), 3);
    fs::permissions(PrivateHome::Host("c/t/1.txt"), fs::perms::owner_read);
    EXPECT_TRUE(CUtilities::DeleteUnicodeFile(_T("c:\\t\\?.*"), 0));
    EXPECT_TRUE(CUtilities::DeleteUnicodeFile(_T("c:\\t\\?.*"), 0)); // the folder "s" matches still
    EXPECT_FALSE(CUtilities::DeleteUnicodeFile(_T("c:\\t\\*.none"), 0));
    EXPECT_EQ(CUtilities::GetDirectoryFileCount(_T("c:\\t"), nullptr, 0), 1);
}

TEST_F(Folder, ClearingFollowsNoLinksAndIsToldByItsLastStep)
{
    PrivateHome::Put("c/kept/file");
    PrivateHome::Put(std::string("c/t/") + NAME_OF_ITS_OWN);
    PrivateHome::Put("c/t/s/open");
    fs::permissions(host::ToPath(PrivateHome::Host(std::string("c/t/") + NAME_OF_ITS_OWN)), fs::perms::owner_read);
    host::MakeLink("../../kept", PrivateHome::Host("c/t/s/link"), true);
    HANDLE const open =
        CreateFileW(_T("c:\\t\\s\\open"), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_TRUE(CUtilities::ClearDirectory(_T("c:\\t"), 0));
    EXPECT_FALSE(CUtilities::ClearDirectory(_T("c:\\t"), 1));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_DIR_NOT_EMPTY));
    CloseHandle(open);
    EXPECT_EQ(CUtilities::GetDirectoryFileCount(_T("c:\\t"), nullptr, 1), 1);
    EXPECT_TRUE(CUtilities::ClearDirectory(_T("c:\\t\\"), 0));
    EXPECT_TRUE(fs::is_empty(PrivateHome::Host("c/t")));

    if (host::MakeLink("../kept", PrivateHome::Host("c/t/link"), true))
    {
        EXPECT_TRUE(CUtilities::ClearDirectory(_T("c:\\t\\link\\"), 1));
        EXPECT_FALSE(fs::exists(fs::symlink_status(PrivateHome::Host("c/t/link"))));
    }
    EXPECT_TRUE(fs::exists(PrivateHome::Host("c/kept/file")));
    EXPECT_TRUE(CUtilities::ClearDirectory(_T("c:\\none"), 0));
    EXPECT_FALSE(CUtilities::ClearDirectory(_T("c:\\none"), 1));
    EXPECT_FALSE(CUtilities::ClearDirectory(nullptr, 1));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(Folder, ClearsTreesOfAnyDepth)
{
    host::SpoilFreedMemory(true);
    for (int depth = 1; depth <= 40; ++depth)
    {
        std::string folder = "c/t/";
        for (int i = 1; i <= depth; ++i)
        {
            folder += "src/";
            if (depth % 2 || i == depth)
            {
                PrivateHome::Put(folder + "file");
            }
        }
        EXPECT_TRUE(CUtilities::ClearDirectory(_T("c:\\t"), 1)) << depth;
        EXPECT_FALSE(fs::exists(PrivateHome::Host("c/t"))) << depth;
    }
    host::SpoilFreedMemory(false);
}

TEST_F(Folder, DepthHasNoBound)
{
    int const depth = host::IsWine() ? 300 : 600; // whose paths are as long as the host's below (2026-11-22)
    constexpr char const * NAME = "folder8";
    fs::create_directories(PrivateHome::Host("c/t"));
    host::MakeDeepFolder(PrivateHome::Host("c/t"), NAME, depth);
    CStringList files;
    EXPECT_TRUE(CUtilities::GetFilesInDirectory(_T("c:\\t"), files, 1));
    ASSERT_EQ(files.GetCount(), 1);
    EXPECT_EQ(files.GetHead().GetLength(), 4 + depth * 8 + 5);
    EXPECT_TRUE(CUtilities::ClearDirectory(_T("c:\\t"), 1));
    EXPECT_FALSE(fs::exists(PrivateHome::Host("c/t")));
}
} // namespace
