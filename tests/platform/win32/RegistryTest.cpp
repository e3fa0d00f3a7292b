#include "kvx/platform/win32/registry.h"

#include "Handle.h"
#include "TestFolder.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/RegistryStore.h"
#include "tests/support/RunThreads.h"

#include <atomic>

#include <sqlite3.h>
#include <sys/stat.h>

namespace
{
using Texts = std::vector<std::u16string>;
namespace fs = std::filesystem;

/// A key for each test, gone at its end.
class Registry : public testing::Test
{
protected:
    HKEY m_hKey = Create(HKEY_LOCAL_MACHINE, _T("Software\\Test"));

    ~Registry() override
    {
        SHDeleteKeyW(HKEY_LOCAL_MACHINE, _T("Software\\Test"));
        RegCloseKey(m_hKey);
    }

    static HKEY Create(HKEY hParent, LPCWSTR pszPath, LONG nExpected = 0, DWORD * pDisposition = nullptr)
    {
        HKEY hKey = nullptr;
        EXPECT_EQ(RegCreateKeyExW(hParent, pszPath, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hKey, pDisposition),
                  nExpected);
        return hKey;
    }
    LONG Open(LPCWSTR pszPath, HKEY hParent = nullptr) const
    {
        HKEY hKey = nullptr;
        LONG const nError = RegOpenKeyExW(hParent ? hParent : m_hKey, pszPath, 0, KEY_READ, &hKey);
        EXPECT_EQ(nError == 0, hKey != nullptr);
        RegCloseKey(hKey);
        return nError;
    }
    LONG Set(LPCWSTR pszName, DWORD dwType, std::string_view data) const
    {
        return RegSetValueExW(m_hKey, pszName, 0, dwType, reinterpret_cast<BYTE const *>(data.data()),
                              static_cast<DWORD>(data.size()));
    }
    /// Type and data, or the code.
    std::pair<long, std::string> Get(LPCWSTR pszName) const
    {
        DWORD dwType = 0;
        DWORD nSize = 0;
        LONG nError = RegQueryValueExW(m_hKey, pszName, nullptr, &dwType, nullptr, &nSize);
        std::string strData(nSize + 4, '#');
        DWORD nRoom = nSize;
        if (nError == 0)
            nError =
                RegQueryValueExW(m_hKey, pszName, nullptr, &dwType, reinterpret_cast<BYTE *>(strData.data()), &nRoom);
        if (nError != 0)
            return {-nError, ""};
        EXPECT_EQ(strData.substr(nSize), "####");
        return {dwType, strData.substr(0, nRoom)};
    }
    /// What RegEnumKeyExW or RegEnumValueW tells.
    template <class ENUM>
    Texts List(ENUM enumerate) const
    {
        Texts names;
        WCHAR szName[256];
        DWORD nName = 256;
        for (DWORD i = 0; enumerate(m_hKey, i, szName, &nName, nullptr, nullptr, nullptr, nullptr) == 0; ++i)
            names.emplace_back(szName, std::exchange(nName, 256));
        return names;
    }
    Texts SubKeys() const { return List(RegEnumKeyExW); }
};

std::string Bytes(std::u16string_view text)
{
    return {reinterpret_cast<char const *>(text.data()), 2 * text.size()};
}

TEST_F(Registry, KeysAreFoundWhateverTheirCase)
{
    DWORD dwDisposition = 0;
    HKEY hKey = nullptr;
    auto const create = [&](LPCWSTR pszPath)
    {
        RegCloseKey(Create(m_hKey, pszPath, 0, &dwDisposition));
        return dwDisposition;
    };
    EXPECT_EQ(create(_T("Beta\\\u00C4\u00DF\\c")), REG_CREATED_NEW_KEY);
    EXPECT_EQ(create(_T("bETA\\\u00E4\u00DF\\C\\")), REG_OPENED_EXISTING_KEY);
    EXPECT_EQ(create(_T("alpha/x")), REG_CREATED_NEW_KEY);
    EXPECT_EQ(create(_T("_")), REG_CREATED_NEW_KEY);
    EXPECT_EQ(create(_T("\xD800lone")), REG_CREATED_NEW_KEY);
    EXPECT_EQ(SubKeys(), (Texts{u"alpha/x", u"Beta", u"_", u"\xD800lone"}));
    EXPECT_EQ(Open(_T("software\\TEST\\\\beta"), HKEY_LOCAL_MACHINE), 0);
    EXPECT_EQ(Open(_T("Beta\\none\\c")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Open(_T("\\Beta")), ERROR_BAD_PATHNAME);
    EXPECT_EQ(Open(_T("")), 0);

    // The two views, and the keys that others stand for.
    EXPECT_EQ(RegOpenKeyExW(m_hKey, _T("Beta"), 0, KEY_READ | KEY_WOW64_64KEY, &hKey), 0);
    RegCloseKey(hKey);
    EXPECT_EQ(RegOpenKeyExW(m_hKey, _T("Beta"), 0, KEY_READ | KEY_WOW64_64KEY | KEY_WOW64_32KEY, &hKey),
              ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SHSetValueW(HKEY_CLASSES_ROOT, _T(".kvx"), nullptr, REG_SZ, _T("x"), 4), 0);
    EXPECT_EQ(Open(_T("Software\\Classes\\.KVX"), HKEY_LOCAL_MACHINE), 0);
    EXPECT_EQ(Open((u"S-1-22-1-" + kvx::win32::FromUtf8(std::to_string(getuid()))).c_str(), HKEY_USERS), 0);
    EXPECT_EQ(Open(_T(""), HKEY_PERFORMANCE_DATA), ERROR_NOT_SUPPORTED);
}

TEST_F(Registry, LimitsOfKeys)
{
    std::u16string const strLongest(255, u'n');
    RegCloseKey(Create(m_hKey, strLongest.c_str()));
    Create(m_hKey, (strLongest + u"n").c_str(), ERROR_INVALID_PARAMETER);
    std::u16string strDeep = u"d"; // Software\Test\d...: 512 in all
    for (int i = 0; i < 509; ++i)
        strDeep += u"\\d";
    RegCloseKey(Create(m_hKey, strDeep.c_str()));
    Create(m_hKey, (strDeep + u"\\d").c_str(), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SHDeleteKeyW(m_hKey, _T("d")), 0);
    EXPECT_EQ(SubKeys(), Texts{strLongest});

    HKEY hKey = nullptr;
    EXPECT_EQ(RegCreateKeyExW(m_hKey, _T("v"), 0, nullptr, 1, KEY_ALL_ACCESS, nullptr, &hKey, nullptr),
              ERROR_NOT_SUPPORTED);
    EXPECT_EQ(RegCreateKeyExW(m_hKey, nullptr, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hKey, nullptr),
              ERROR_INVALID_PARAMETER);
    WCHAR szName[255];
    DWORD nName = 255;
    EXPECT_EQ(RegEnumKeyExW(m_hKey, 0, szName, &nName, nullptr, nullptr, nullptr, nullptr), ERROR_MORE_DATA);
    EXPECT_EQ(RegEnumKeyExW(m_hKey, 1, szName, &nName, nullptr, nullptr, nullptr, nullptr), ERROR_NO_MORE_ITEMS);
}

TEST_F(Registry, DeletedKeysAreGone)
{
    HKEY const hDeep = Create(m_hKey, _T("a\\b\\c"));
    DWORD nSize = 0;
    EXPECT_EQ(RegSetValueExW(hDeep, _T("v"), 0, REG_SZ, nullptr, 0), 0);
    EXPECT_EQ(RegQueryValueExW(hDeep, _T("v"), nullptr, nullptr, nullptr, &nSize), 0);
    EXPECT_EQ(RegDeleteKeyW(m_hKey, _T("a")), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteKeyW(m_hKey, _T("a\\x")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(RegDeleteKeyW(m_hKey, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(SHDeleteKeyW(m_hKey, _T("A")), 0);
    EXPECT_EQ(SHDeleteKeyW(m_hKey, _T("A")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(SubKeys(), Texts{});

    WCHAR szName[8];
    DWORD nName = 8;
    EXPECT_EQ(RegQueryValueExW(hDeep, _T("v"), nullptr, nullptr, nullptr, &nSize), ERROR_KEY_DELETED);
    EXPECT_EQ(RegSetValueExW(hDeep, _T("v"), 0, REG_SZ, nullptr, 0), ERROR_KEY_DELETED);
    EXPECT_EQ(RegDeleteValueW(hDeep, _T("v")), ERROR_KEY_DELETED);
    EXPECT_EQ(RegEnumKeyExW(hDeep, 0, szName, &nName, nullptr, nullptr, nullptr, nullptr), ERROR_KEY_DELETED);
    EXPECT_EQ(Open(_T("x"), hDeep), ERROR_KEY_DELETED);
    EXPECT_EQ(RegCloseKey(hDeep), 0);
    EXPECT_EQ(RegCloseKey(hDeep), ERROR_INVALID_HANDLE);
    EXPECT_EQ(RegQueryValueExW(hDeep, _T("v"), nullptr, nullptr, nullptr, &nSize), ERROR_INVALID_HANDLE);
    EXPECT_EQ(Open(_T("x"), reinterpret_cast<HKEY>(std::uintptr_t{12345})), ERROR_INVALID_HANDLE);

    HKEY const hSelf = Create(m_hKey, _T("self"));
    EXPECT_EQ(RegDeleteKeyW(hSelf, _T("")), 0);
    RegCloseKey(hSelf);
    EXPECT_EQ(SHDeleteKeyW(HKEY_LOCAL_MACHINE, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_EQ(SHDeleteKeyW(HKEY_LOCAL_MACHINE, _T("Software")), ERROR_ACCESS_DENIED);
    EXPECT_EQ(Open(_T("")), 0);
}

TEST_F(Registry, ValuesOfAllTypesAndSizes)
{
    std::string const strLarge = []
    {
        std::string strData(3'000'000, '\0');
        for (std::size_t i = 0; i < strData.size(); ++i)
            strData[i] = static_cast<char>(i * 7 >> 3);
        return strData;
    }();
    std::string_view const contents[] = {"", "x", std::string_view("\0\0", 2), "odd", strLarge};
    for (DWORD dwType = 0; dwType < 14; ++dwType)
    {
        std::u16string const strName = u"Value" + std::u16string(1, static_cast<char16_t>(u'A' + dwType));
        for (std::string_view const data : contents)
        {
            EXPECT_EQ(Set(strName.c_str(), dwType, data), 0);
            EXPECT_EQ(Get(strName.c_str()), (std::pair<long, std::string>(dwType, data)));
        }
    }
    EXPECT_EQ(Set(nullptr, 0xFFFFFFFF, "default"), 0);
    EXPECT_EQ(Get(_T("")), (std::pair<long, std::string>(0xFFFFFFFF, "default")));

    std::u16string strName(16383, u'n');
    EXPECT_EQ(Set(strName.c_str(), REG_SZ, "long"), 0);
    EXPECT_EQ(Get(strName.c_str()).second, "long");
    strName += u'n';
    EXPECT_EQ(Set(strName.c_str(), REG_SZ, "long"), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegSetValueExW(m_hKey, _T("n"), 0, REG_SZ, nullptr, 1), ERROR_NOACCESS);

    DWORD nNames = 0, nLongestName = 0, nLongest = 0, nKeys = 9, nLongestKey = 9;
    EXPECT_EQ(RegQueryInfoKeyW(m_hKey, nullptr, nullptr, nullptr, &nKeys, &nLongestKey, nullptr, &nNames, &nLongestName,
                               &nLongest, nullptr, nullptr),
              0);
    EXPECT_EQ((std::vector{nKeys, nLongestKey, nNames, nLongestName, nLongest}),
              (std::vector<DWORD>{0, 0, 16, 16383, 3'000'000}));
}

TEST_F(Registry, QueriesTellWhatTheyNeed)
{
    EXPECT_EQ(Set(_T("Text"), REG_SZ, Bytes(u"abc")), 0);
    BYTE buffer[16] = {};
    DWORD nSize = 5;
    DWORD dwType = 0;
    EXPECT_EQ(RegQueryValueExW(m_hKey, _T("TEXT"), nullptr, &dwType, buffer, &nSize), ERROR_MORE_DATA);
    EXPECT_EQ(nSize, 6u);
    EXPECT_EQ(dwType, REG_SZ);
    EXPECT_EQ(RegQueryValueExW(m_hKey, _T("Text"), nullptr, nullptr, buffer, nullptr), ERROR_INVALID_PARAMETER);
    EXPECT_EQ(RegQueryValueExW(m_hKey, _T("None"), nullptr, &dwType, nullptr, nullptr), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Set(_T("none"), REG_NONE, "n"), 0); // the absence was kept in mind as well
    EXPECT_EQ(Get(_T("None")).second, "n");
    EXPECT_EQ(RegDeleteValueW(m_hKey, _T("NONE")), 0);
    EXPECT_EQ(RegDeleteValueW(m_hKey, _T("NONE")), ERROR_FILE_NOT_FOUND);
    EXPECT_EQ(Get(_T("None")).first, -ERROR_FILE_NOT_FOUND);

    // With ends and variables.
    setenv("KVX_TEST_NAME", "value", 1);
    auto const query = [&](std::u16string_view text, DWORD dwStored)
    {
        EXPECT_EQ(Set(_T("E"), dwStored, Bytes(text)), 0);
        WCHAR szText[64];
        DWORD nBytes = sizeof szText;
        EXPECT_EQ(SHQueryValueExW(m_hKey, _T("E"), nullptr, &dwType, szText, &nBytes), 0);
        return std::u16string(szText, nBytes / 2);
    };
    EXPECT_EQ(query(u"abc", REG_SZ), std::u16string(u"abc\0", 4));
    EXPECT_EQ(query(u"100%", REG_EXPAND_SZ), std::u16string(u"100%\0", 5));
    EXPECT_EQ(query(u"a%KVX_TEST_NAME%b%KVX_NO%KVX_TEST_NAME%", REG_EXPAND_SZ),
              std::u16string(u"avalueb%KVX_NOvalue\0", 20));
    EXPECT_EQ(dwType, REG_SZ);

    // A handle is good for what it was opened for.
    HKEY hReader = nullptr;
    HKEY hWriter = nullptr;
    EXPECT_EQ(RegOpenKeyExW(m_hKey, nullptr, 0, KEY_READ, &hReader), 0);
    EXPECT_EQ(RegOpenKeyExW(m_hKey, nullptr, 0, KEY_SET_VALUE, &hWriter), 0);
    EXPECT_EQ(RegSetValueExW(hReader, _T("x"), 0, REG_SZ, nullptr, 0), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegQueryValueExW(hWriter, _T("Text"), nullptr, nullptr, nullptr, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegSetValueExW(hWriter, _T("Text"), 0, REG_SZ, nullptr, 0), 0);
    nSize = 16;
    EXPECT_EQ(RegQueryValueExW(hReader, _T("Text"), nullptr, nullptr, buffer, &nSize), 0);
    EXPECT_EQ(nSize, 0u);
    RegCloseKey(hReader);
    RegCloseKey(hWriter);
}

TEST_F(Registry, EnumeratesInOrder)
{
    Texts expected;
    for (int i = 0; i < 1500; ++i) // more than is read at once
    {
        expected.push_back(u"v" + kvx::win32::FromUtf8(std::to_string(5000 - i)));
        ASSERT_EQ(Set(expected.back().c_str(), REG_DWORD, std::string_view(reinterpret_cast<char *>(&i), 4)), 0);
    }
    EXPECT_EQ(Set(_T("V4990"), REG_BINARY, std::string(5000, 'x')), 0); // keeps its place and its name
    EXPECT_EQ(List(RegEnumValueW), expected);

    WCHAR szName[16];
    DWORD nName = 16, dwType = 0, nSize = 4;
    std::string strData(5000, '\0');
    auto const at = [&](DWORD i, DWORD nRoom)
    {
        nName = 16;
        nSize = nRoom;
        return RegEnumValueW(m_hKey, i, szName, &nName, nullptr, &dwType, reinterpret_cast<BYTE *>(strData.data()),
                             &nSize);
    };
    EXPECT_EQ(at(10, 4), ERROR_MORE_DATA);
    EXPECT_EQ(nSize, 5000u);
    EXPECT_EQ(at(10, 5000), 0);
    EXPECT_EQ(strData, std::string(5000, 'x'));
    EXPECT_EQ(at(1499, 4), 0);
    EXPECT_EQ(dwType, REG_DWORD);
    EXPECT_EQ(strData.substr(0, 4), std::string("\xDB\x05\0\0", 4));
    EXPECT_EQ(at(1500, 4), ERROR_NO_MORE_ITEMS);

    // Deleting the first one until there is none meets each.
    std::size_t nDeleted = 0;
    for (; at(0, 5000) == 0; ++nDeleted)
        ASSERT_EQ(RegDeleteValueW(m_hKey, szName), 0);
    EXPECT_EQ(nDeleted, expected.size());
}

TEST_F(Registry, ThreadsShareAHandle)
{
    std::atomic<int> nWrong{0};
    auto const write = [&](LPCWSTR pszName, DWORD nValue)
    { return RegSetValueExW(m_hKey, pszName, 0, REG_DWORD, reinterpret_cast<BYTE *>(&nValue), 4) == 0; };
    auto const read = [&](LPCWSTR pszName)
    {
        DWORD nRead = 0, nSize = 4;
        nWrong += RegQueryValueExW(m_hKey, pszName, nullptr, nullptr, reinterpret_cast<BYTE *>(&nRead), &nSize) != 0;
        return nRead;
    };
    ASSERT_TRUE(write(_T("shared"), 0));
    RunThreads(4,
               [&](std::size_t nThread)
               {
                   std::u16string const strOwn(nThread + 1, u'o');
                   DWORD nLast = 0;
                   for (DWORD i = 1; i <= 150; ++i)
                   {
                       nWrong += !write(strOwn.c_str(), i) || read(strOwn.c_str()) != i;
                       nWrong += nThread == 0 && !write(_T("shared"), i);
                       DWORD const nRead = read(_T("shared"));
                       nWrong += nRead < nLast;
                       nLast = nRead;
                       WCHAR szName[16];
                       DWORD nName = 16;
                       nWrong += RegEnumValueW(m_hKey, i % 2, szName, &nName, nullptr, nullptr, nullptr, nullptr) != 0;
                   }
               });
    EXPECT_EQ(nWrong, 0);
}

TEST_F(Registry, ATerminatedWriterLeavesNoLock)
{
    for (int i = 0; i < 20; ++i)
    {
        std::atomic<int> nWrites{0};
        std::pair<HKEY, std::atomic<int> *> work{m_hKey, &nWrites};
        Handle const hThread = CreateThread(
            nullptr, 0,
            [](void * p) -> DWORD
            {
                auto const & [hKey, pWrites] = *static_cast<std::pair<HKEY, std::atomic<int> *> *>(p);
                for (;; ++*pWrites)
                    RegSetValueExW(hKey, _T("t"), 0, REG_DWORD, reinterpret_cast<BYTE const *>("1234"), 4);
            },
            &work, 0, nullptr);
        while (nWrites < i)
            SwitchToThread();
        EXPECT_TRUE(TerminateThread(hThread, 1));
        WaitForSingleObject(hThread, INFINITE);
        EXPECT_EQ(Set(_T("t"), REG_SZ, "x"), 0);
        EXPECT_EQ(Get(_T("t")).second, "x");
    }
}

/// The worker program at work on a store.
class Worker : public ChildProcess
{
public:
    Worker(std::string const & strStore, std::vector<std::string> words)
        : ChildProcess((words.insert(words.begin(), KVX_REGISTRY_WORKER), words), "KVX_REGISTRY", strStore, 1)
    {
    }
};

class RegistryProcesses : public Registry
{
protected:
    HKEY m_hWork = Create(HKEY_CURRENT_USER, _T("Work"));

    ~RegistryProcesses() override
    {
        EXPECT_EQ(SHDeleteKeyW(m_hWork, nullptr), 0);
        RegCloseKey(m_hWork);
    }
};

TEST_F(RegistryProcesses, WritersOfManyProcessesTakeTurns)
{
    DWORD nValues = 0;
    auto const count = [&]
    {
        EXPECT_EQ(RegQueryInfoKeyW(m_hWork, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &nValues, nullptr,
                                   nullptr, nullptr, nullptr),
                  0);
        return nValues;
    };
    EXPECT_EQ(count(), 0u); // kept in mind, and to be thrown away
    DWORD n = 1;
    auto const put = [&]
    { return RegSetValueExW(HKEY_CURRENT_USER, _T("Number"), 0, REG_DWORD, reinterpret_cast<BYTE *>(&n), 4); };
    EXPECT_EQ(put(), 0);
    // One of them comes by another name of the file.
    std::string const strLink = RegistryStore::GetPath() + "-link";
    fs::create_symlink(fs::path(RegistryStore::GetPath()).filename(), strLink);
    Worker watcher(strLink, {"watch", "300"});
    Worker a(strLink, {"fill", "a", "300", "4"});
    Worker b(RegistryStore::GetPath(), {"fill", "b", "300", "4"});
    for (n = 2; n <= 300; ++n)
        ASSERT_EQ(put(), 0);
    for (Worker * const pWorker : {&watcher, &a, &b})
        EXPECT_EQ(pWorker->Wait(), 0);
    EXPECT_EQ(count(), 600u);
}

TEST_F(RegistryProcesses, AKilledWriterLosesNothingItReported)
{
    for (int i = 0; i < 8; ++i)
    {
        Worker writer(RegistryStore::GetPath(),
                      {"fill", "k" + std::to_string(i) + "-", "1000000", i % 2 == 0 ? "4" : "20000"});
        std::string strLast;
        for (int n = 0; n <= 7 * i; ++n)
            strLast = writer.ReadLine();
        EXPECT_EQ(writer.Kill(), -SIGKILL);
        for (std::string strLine; !(strLine = writer.ReadLine()).empty();)
            strLast = strLine;

        std::u16string const strName = kvx::win32::FromUtf8("k" + std::to_string(i) + "-" + strLast);
        DWORD nSize = 0;
        EXPECT_EQ(RegQueryValueExW(m_hWork, strName.c_str(), nullptr, nullptr, nullptr, &nSize), 0);
        EXPECT_EQ(nSize, i % 2 == 0 ? 4u : 20000u);
        // The next write finds its way, and is seen.
        EXPECT_EQ(RegSetValueExW(m_hWork, strName.c_str(), 0, REG_SZ, nullptr, 0), 0);
        EXPECT_EQ(RegQueryValueExW(m_hWork, strName.c_str(), nullptr, nullptr, nullptr, &nSize), 0);
        EXPECT_EQ(nSize, 0u);
    }
}

class RegistryFiles : public TestFolder
{
protected:
    std::string Probe(std::string const & strName, std::string const & strRights = "privileged") const
    {
        Worker worker(Host(strName), {"probe", strRights});
        std::string strLine = worker.ReadLine();
        EXPECT_EQ(worker.Wait(), 0);
        return strLine;
    }
    static void Query(std::string const & strPath, char const * pszSql)
    {
        sqlite3 * pDatabase = nullptr;
        ASSERT_EQ(sqlite3_open(strPath.c_str(), &pDatabase), SQLITE_OK);
        ASSERT_EQ(sqlite3_exec(pDatabase, pszSql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(pDatabase);
        sqlite3_close(pDatabase);
    }
};

TEST_F(RegistryFiles, ANewStoreIsPrivate)
{
    umask(0);
    EXPECT_EQ(Probe("new"), "open 0 query 2=7 set 0 remove 2 list 259");
    for (auto const & entry : fs::directory_iterator(m_strHost))
    {
        struct stat info;
        ASSERT_EQ(stat(entry.path().c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0600u) << entry.path();
    }
    EXPECT_EQ(Probe("none/new"), "open 3 query 3=7 set 3 remove 3 list 3");
}

TEST_F(RegistryFiles, WhatIsNoStoreIsLeftAlone)
{
    std::string const strBad = "open 1009 query 1009=7 set 1009 remove 1009 list 1009";
    Put("garbage", std::string(5000, 'g'));
    Put("head", std::string("SQLite format 3\0\x10\0\1\1\0", 21) + std::string(4075, '\xFF'));
    fs::create_directory(Host("folder"));
    ASSERT_EQ(mkfifo(Host("fifo").c_str(), 0600), 0);
    Query(Host("other"), "CREATE TABLE keys(id); CREATE TABLE vals(id)");
    Query(Host("later"), "PRAGMA application_id=0x4B565852; PRAGMA user_version=2; CREATE TABLE keys(id)");
    Query(Host("columns"), "PRAGMA application_id=0x4B565852; PRAGMA user_version=1; CREATE TABLE keys(id)");
    for (std::string const strName : {"garbage", "head", "other", "later", "fifo"})
    {
        std::string const strBefore = strName == "fifo" ? "" : Get(strName);
        EXPECT_EQ(Probe(strName), strBad) << strName;
        EXPECT_TRUE(strName == "fifo" || Get(strName) == strBefore) << strName;
    }
    EXPECT_EQ(Probe("columns"), strBad);
    EXPECT_EQ(Probe("folder"), "open 5 query 5=7 set 5 remove 5 list 5");
}

TEST_F(RegistryFiles, DamageGivesCodes)
{
    EXPECT_EQ(Probe("store"), "open 0 query 2=7 set 0 remove 2 list 259");
    {
        Worker filler(Host("store"), {"fill", "v", "200", "3000"});
        EXPECT_EQ(filler.Wait(), 0);
    }
    Query(Host("store"), "PRAGMA wal_checkpoint(TRUNCATE)");
    std::string const strGood = Get("store");
    auto const isTold = [](std::string const & strLine) { return strLine.find("1009") != std::string::npos; };
    int nTold = 0;
    for (std::size_t nPage = 0; nPage < 12; ++nPage)
    {
        std::string strBad = strGood;
        strBad.replace(nPage * 4096 + (nPage == 0 ? 100 : 0), 2000, std::string(2000, '\xA5'));
        Put("bad", strBad);
        std::string const strLine = Probe("bad");
        EXPECT_TRUE(strLine.starts_with("open ")) << nPage; // whatever it says, it lives
        nTold += isTold(strLine);
        for (char const * const pszSuffix : {"-wal", "-shm", "-lock"})
            fs::remove(Host("bad") + pszSuffix);
    }
    EXPECT_GE(nTold, 3);
    Put("bad", strGood.substr(0, 8192));
    EXPECT_TRUE(isTold(Probe("bad")));
    EXPECT_EQ(Get("bad").size(), 8192u);

    // Well-formed, but nonsense: a loop of keys, names that are none.
    Query(Host("store"),
          "UPDATE keys SET parent=6, id=1500 WHERE parent=6; INSERT INTO keys VALUES(1600, 1500, x'41', x'4100');"
          "UPDATE keys SET id=1500, parent=1600, folded=x'0042' WHERE id=1500;"
          "INSERT INTO keys VALUES(1700, 6, x'0000', x'41')");
    EXPECT_EQ(Probe("store"), "open 0 query 2=7 set 0 remove 2 list 1009");
}

TEST_F(RegistryFiles, AStoreWithoutWriteAccessIsRead)
{
    fs::permissions(m_strHost, fs::perms::all);
    EXPECT_EQ(Probe("store"), "open 0 query 2=7 set 0 remove 2 list 259");
    Query(Host("store"),
          "INSERT INTO vals(key, folded, name, type, data) VALUES(6, x'004E0055004D004200450052', x'', 4,"
          " x'2A000000')");
    std::string const strExpected = "open 0 query 0=42 set 5 remove 5 list 259";
    for (std::string const strSuffix : {"", "-lock"})
        fs::permissions(Host("store") + strSuffix, static_cast<fs::perms>(0444));
    fs::permissions(m_strHost, static_cast<fs::perms>(0555));
    EXPECT_EQ(Probe("store", "unprivileged"), strExpected);
    fs::permissions(m_strHost, fs::perms::all);
    fs::remove(Host("store-lock"));
    EXPECT_EQ(Probe("store", "unprivileged"), strExpected);
    fs::permissions(Host("store"), static_cast<fs::perms>(0000));
    EXPECT_EQ(Probe("store", "unprivileged"), "open 5 query 5=7 set 5 remove 5 list 5");
}
} // namespace
