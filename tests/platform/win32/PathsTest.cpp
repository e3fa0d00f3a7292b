#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/codepages.h"
#include "kvx/platform/win32/modules.h"

#include "tests/support/Fails.h"
#include "tests/support/TestFolder.h"

#include <vector>

#include <unistd.h>

using namespace kvx::win32;

namespace
{

/// Drive C of the whole test program: it is looked up once, so it is set before anything runs.
struct DriveC
{
    DriveC()
    {
        char szPath[] = "/tmp/kvx-drive-XXXXXX";
        strRoot = mkdtemp(szPath);
        setenv("KVX_DRIVE_C", (strRoot + "/made/here/").c_str(), 1);
    }
    ~DriveC() { std::filesystem::remove_all(strRoot); }
    std::string strRoot;
} const g_driveC;

class Paths : public TestFolder
{
protected:
    Paths() { m_strBefore = std::filesystem::current_path(); }
    ~Paths() override { std::filesystem::current_path(m_strBefore); }
    std::filesystem::path m_strBefore;

    std::string Find(LPCWSTR pszName, LastComponent last = LastComponent::AnyCase) const
    {
        return ToHost(Path(pszName).AsView(), last);
    }
};

TEST_F(Paths, ToHostKnowsAllShapes)
{
    std::string const strC = GetDriveCRoot();
    EXPECT_EQ(strC, std::filesystem::canonical(g_driveC.strRoot).string() + "/made/here");
    EXPECT_TRUE(std::filesystem::is_directory(strC));
    std::filesystem::current_path(m_strHost);
    struct Case
    {
        char16_t const * pszPath;
        std::string strHost;
    };
    std::vector<Case> const cases = {
        {u"/usr/none", "/usr/none"},
        {u"/usr\\none", "/usr/none"},
        {u"/usr/../none", "/usr/../none"}, // the host's own rules
        {u"/", "/"},
        {u"Z:\\usr\\none", "/usr/none"},
        {u"z:/usr//.\\none\\", "/usr/none/"},
        {u"Z:\\", "/"},
        {u"Z:\\..\\..\\none", "/none"},
        {u"C:\\Windows", strC + "/Windows"},
        {u"c:/a/../../../etc/none", strC + "/etc/none"},
        {u"C:\\", strC},
        {u"C:", strC},
        {u"C:none", strC + "/none"},
        {u"Z:none", "none"},
        {u"Z:", "."},
        {u"\\none\\x", "/none/x"},
        {u"\\\\?\\Z:\\none", "/none"},
        {u"\\\\?\\C:\\none", strC + "/none"},
        {u"\\\\?\\/none", "/none"},
        {u"none\\b/c", "none/b/c"},
        {u".\\none\\..\\b", "b"},
        {u".", "."},
        {u"a\\..", "."},
        {u"..\\none", "/tmp/none"},
        {u"..\\..\\..\\..\\none", "/none"},
        {u"n\u00E4m\U0001F600", "n\xC3\xA4m\xF0\x9F\x98\x80"},
        {u"ab:c", "ab:c"},
    };
    for (Case const & test : cases)
    {
        EXPECT_EQ(ToHost(test.pszPath), test.strHost) << ToUtf8(test.pszPath);
    }

    std::filesystem::create_directories(strC + "/deep/er");
    std::filesystem::current_path(strC + "/deep/er");
    EXPECT_EQ(ToHost(u"C:none"), "none");
    EXPECT_EQ(ToHost(u"Z:none"), "/none");
    EXPECT_EQ(ToHost(u"\\none"), strC + "/none");
    EXPECT_EQ(ToHost(u"..\\..\\..\\..\\..\\etc\\passwd"), strC + "/etc/passwd"); // no way out of the drive
}

TEST_F(Paths, ToHostRefusesWhatIsNoPath)
{
    struct Case
    {
        std::u16string strPath;
        DWORD dwError;
    };
    std::vector<Case> const cases = {
        {u"", ERROR_PATH_NOT_FOUND},
        {u"D:\\x", ERROR_PATH_NOT_FOUND},
        {u"\\\\?\\", ERROR_INVALID_NAME},
        {u"\\\\?\\UNC\\server\\share", ERROR_BAD_NETPATH},
        {u"\\\\server\\share\\x", ERROR_BAD_NETPATH},
        {u"\\\\.\\pipe\\x", ERROR_INVALID_NAME},
        {std::u16string(u"/tmp/a\0b", 8), ERROR_INVALID_NAME},
        {u"/tmp/" + std::u16string(1, 0xD800), ERROR_INVALID_NAME},
        {u"/tmp/" + std::u16string(1, 0xDC41), ERROR_INVALID_NAME}, // would stand for an ASCII byte
        {u"/" + std::u16string(5000, u'a'), ERROR_FILENAME_EXCED_RANGE},
        {std::u16string(100000, u'\\') + u"a", ERROR_FILENAME_EXCED_RANGE},
    };
    for (Case const & test : cases)
    {
        SetLastError(0);
        EXPECT_TRUE(Fails(ToHost(test.strPath), test.dwError)) << ToUtf8(test.strPath).substr(0, 50);
    }
    EXPECT_EQ(ToHost(static_cast<LPCWSTR>(nullptr)), "");
    EXPECT_TRUE(Fails(CreateDirectoryW(Path(CString(u'a', 300)), nullptr), ERROR_FILENAME_EXCED_RANGE));
}

TEST_F(Paths, MissingComponentsAreFoundInAnyCase)
{
    std::filesystem::create_directories(Host("Data/Inner"));
    Put("Data/Inner/File.TXT");
    Put("Data/one");
    Put("Data/ONE");
    EXPECT_EQ(Find(u"data\\INNER\\file.txt"), Host("Data/Inner/File.TXT"));
    EXPECT_EQ(Find(u"data\\INNER\\new.txt"), Host("Data/Inner/new.txt"));
    EXPECT_EQ(Find(u"data\\none\\FILE.txt"), Host("Data/none/FILE.txt"));
    EXPECT_EQ(Find(u"data\\one"), Host("Data/one")); // the exact one wins
    EXPECT_EQ(Find(u"DATA\\One"), Host("Data/ONE"));
    EXPECT_EQ(Find(u"DATA\\one", LastComponent::Exact), Host("Data/one"));
    EXPECT_EQ(Find(u"DATA\\inner", LastComponent::Exact), Host("Data/inner"));
    std::filesystem::current_path(m_strHost);
    EXPECT_EQ(ToHost(u"data\\inner\\"), "Data/Inner/");
}

TEST_F(Paths, FullAndHostPathsComeBackWindowsShaped)
{
    std::string const strC = GetDriveCRoot();
    EXPECT_EQ(FromHost("/"), u"Z:\\");
    EXPECT_EQ(FromHost("/usr/x"), u"Z:\\usr\\x");
    EXPECT_EQ(FromHost(strC), u"C:\\");
    EXPECT_EQ(FromHost(strC + "/a"), u"C:\\a");
    EXPECT_TRUE(FromHost(strC + "2/a").starts_with(u"Z:\\"));
    // Any bytes find their file again, and none of them makes a separator.
    std::string const strOdd = "/a\xFF\xE2\x82\\..\\b";
    EXPECT_EQ(FromHost(strOdd).find_last_of(u"\\/"), 2u);
    EXPECT_EQ(ToHost(FromHost(strOdd)), strOdd);

    std::filesystem::create_directories(strC + "/cwd");
    ASSERT_TRUE(SetCurrentDirectoryW(u"C:\\CWD"));
    struct Case
    {
        char16_t const * pszPath;
        std::u16string strFull;
        std::u16string strName;
    };
    for (Case const & test : {Case{u"x", u"C:\\cwd\\x", u"x"}, Case{u"..\\..\\x\\", u"C:\\x\\", u""},
                              Case{u"/usr/./a/../b", u"Z:\\usr\\b", u"b"}, Case{u"D:\\a\\..\\b", u"D:\\b", u"b"},
                              Case{u"\\x", u"C:\\x", u"x"}, Case{u"Z:/", u"Z:\\", u""}})
    {
        char16_t szFull[100];
        LPWSTR pszName = nullptr;
        DWORD const nLength = static_cast<DWORD>(test.strFull.size());
        EXPECT_EQ(GetFullPathNameW(test.pszPath, 100, szFull, &pszName), nLength);
        EXPECT_EQ(std::u16string(szFull), test.strFull) << ToUtf8(test.strFull) << " for " << ToUtf8(test.pszPath);
        EXPECT_EQ(std::u16string(pszName ? pszName : u""), test.strName);
        EXPECT_EQ(GetFullPathNameW(test.pszPath, nLength, szFull, nullptr), nLength + 1);
    }
    EXPECT_EQ(ToFullPath(FromUtf8(strC + "/q")), u"C:\\q"); // the host's name for a file on drive C
    char16_t szCurrent[100];
    EXPECT_EQ(GetCurrentDirectoryW(100, szCurrent), 6u);
    EXPECT_EQ(std::u16string(szCurrent), u"C:\\cwd");
    EXPECT_EQ(GetCurrentDirectoryW(6, szCurrent), 7u);
    EXPECT_TRUE(Fails(SetCurrentDirectoryW(u"C:\\none"), ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(Fails(SetCurrentDirectoryW(u"C:\\none\\x"), ERROR_PATH_NOT_FOUND));
    // There is no absolute name for what lies in a folder that is gone.
    std::filesystem::remove_all(strC + "/cwd");
    EXPECT_TRUE(Fails(GetFullPathNameW(u"x", 100, szCurrent, nullptr), ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(GetFullPathNameW(u"/x", 100, szCurrent, nullptr), 4u);
}

} // namespace
