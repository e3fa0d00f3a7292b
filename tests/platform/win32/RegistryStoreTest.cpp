/// The file behind the registry, and what becomes of it when processes are killed or others have written to it.

#include "RegistryFixture.h"

#include <csignal>

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
namespace fs = std::filesystem;

/// The worker program at work on a store.
class Worker : public host::Process
{
public:
    Worker(std::string const & strStore, std::vector<std::string> words)
        : Process((words.insert(words.begin(), KVX_REGISTRY_WORKER), words), host::Stdout::Pipe,
                  {{"KVX_REGISTRY", strStore}})
    {
    }
};

using RegistryRoots = Registry;

TEST_F(RegistryRoots, AreTheUsersAndStay)
{
    EXPECT_EQ(Open(_T("S-1-22-1-") + kvx::FromUtf8(std::to_string(getuid())), HKEY_USERS), 0);
    EXPECT_EQ(Open(_T(""), HKEY_PERFORMANCE_DATA), ERROR_NOT_SUPPORTED);
    EXPECT_EQ(SHDeleteKeyW(HKEY_LOCAL_MACHINE, nullptr), ERROR_ACCESS_DENIED);
    EXPECT_EQ(SHDeleteKeyW(HKEY_LOCAL_MACHINE, _T("Software")), ERROR_ACCESS_DENIED);
    EXPECT_EQ(Open(_T("")), 0);
}

class RegistryProcesses : public Registry
{
protected:
    HKEY m_hWork = Create(HKEY_CURRENT_USER, _T("Work"));

    ~RegistryProcesses() override
    {
        EXPECT_EQ(SHDeleteKeyW(HKEY_CURRENT_USER, _T("Work")), 0);
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
    {
        ASSERT_EQ(put(), 0);
    }
    for (Worker * const pWorker : {&watcher, &a, &b})
    {
        EXPECT_EQ(pWorker->Wait(), 0);
    }
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
        {
            strLast = writer.ReadLine();
        }
        EXPECT_EQ(writer.Kill(), -SIGKILL);
        for (std::string strLine; !(strLine = writer.ReadLine()).empty();)
        {
            strLast = strLine;
        }

        CString const strName = kvx::FromUtf8("k" + std::to_string(i) + "-" + strLast);
        DWORD nSize = 0;
        EXPECT_EQ(RegQueryValueExW(m_hWork, strName, nullptr, nullptr, nullptr, &nSize), 0);
        EXPECT_EQ(nSize, i % 2 == 0 ? 4u : 20000u);
        // The next write finds its way, and is seen.
        EXPECT_EQ(RegSetValueExW(m_hWork, strName, 0, REG_SZ, nullptr, 0), 0);
        EXPECT_EQ(RegQueryValueExW(m_hWork, strName, nullptr, nullptr, nullptr, &nSize), 0);
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
        {
            fs::remove(Host("bad") + pszSuffix);
        }
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
    {
        fs::permissions(Host("store") + strSuffix, static_cast<fs::perms>(0444));
    }
    fs::permissions(m_strHost, static_cast<fs::perms>(0555));
    EXPECT_EQ(Probe("store", "unprivileged"), strExpected);
    fs::permissions(m_strHost, fs::perms::all);
    fs::remove(Host("store-lock"));
    EXPECT_EQ(Probe("store", "unprivileged"), strExpected);
    fs::permissions(Host("store"), static_cast<fs::perms>(0000));
    EXPECT_EQ(Probe("store", "unprivileged"), "open 5 query 5=7 set 5 remove 5 list 5");
}
} // namespace
