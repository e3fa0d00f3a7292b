/// Values of an open registry key, against prepared point queries of the database below, on a table of the same size.

#include "MicroReport.h"

#include "kvx/platform/host.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <vector>

namespace
{
constexpr double TARGET = 1.1;
constexpr int VALUES = 20000;  // more than an open key keeps in memory
constexpr DWORD LARGE = 65536; // bytes

std::u16string ValueName(int number)
{
    std::string const digits = std::to_string(number);
    return u"value" + std::u16string(digits.begin(), digits.end());
}

/// The names of the values that one benchmark reads in turns. A repetition goes on where the one before ended.
struct Names
{
    std::vector<std::u16string> names;
    std::size_t nNext = 0;

    explicit Names(int count)
    {
        for (int i = 0; i < count; ++i)
        {
            names.push_back(ValueName(static_cast<int>(i * 7919LL % VALUES)));
        }
    }
    std::u16string const & Next()
    {
        nNext = nNext + 1 >= names.size() ? 0 : nNext + 1;
        return names[nNext];
    }
};

void Check(bool bGood, char const * what)
{
    if (!bGood)
    {
        bench::Fail(what);
    }
}

/// A folder for both stores.
class Folder
{
public:
    Folder()
    {
        std::string path = (std::filesystem::temp_directory_path() / "kvx-bench-XXXXXX").string();
        Check(mkdtemp(path.data()) != nullptr, "no folder");
        m_path = path;
        setenv("KVX_REGISTRY", (m_path / "registry.db").c_str(), 1);
    }
    Folder(Folder const &) = delete;
    Folder & operator=(Folder const &) = delete;
    ~Folder() { std::filesystem::remove_all(m_path); }

    std::filesystem::path m_path;
};

class Plain
{
public:
    explicit Plain(std::filesystem::path const & path)
    {
        Check(sqlite3_open((path / "plain.db").c_str(), &m_pDatabase) == SQLITE_OK, "no database");
        Run("PRAGMA journal_mode=WAL");
        Run("PRAGMA synchronous=NORMAL");
        Run("CREATE TABLE vals(id INTEGER PRIMARY KEY, key INTEGER, name BLOB, type INTEGER, data BLOB, UNIQUE(key, "
            "name))");
        Prepare(m_pInsert, "INSERT INTO vals(key, name, type, data) VALUES(1, ?1, 4, ?2)"
                           " ON CONFLICT(key, name) DO UPDATE SET type=excluded.type, data=excluded.data");
        Prepare(m_pSelect, "SELECT type, data FROM vals WHERE key=1 AND name=?1");
    }
    Plain(Plain const &) = delete;
    Plain & operator=(Plain const &) = delete;
    ~Plain()
    {
        sqlite3_finalize(m_pInsert);
        sqlite3_finalize(m_pSelect);
        sqlite3_close(m_pDatabase);
    }

    void Run(char const * sql) { Check(sqlite3_exec(m_pDatabase, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql); }
    void Write(std::u16string const & name, void const * data, int size)
    {
        sqlite3_bind_blob(m_pInsert, 1, name.data(), static_cast<int>(2 * name.size()), SQLITE_STATIC);
        sqlite3_bind_blob(m_pInsert, 2, data, size, SQLITE_STATIC);
        Check(sqlite3_step(m_pInsert) == SQLITE_DONE, "insert");
        sqlite3_reset(m_pInsert);
    }
    DWORD Read(std::u16string const & name, BYTE * data)
    {
        sqlite3_bind_blob(m_pSelect, 1, name.data(), static_cast<int>(2 * name.size()), SQLITE_STATIC);
        Check(sqlite3_step(m_pSelect) == SQLITE_ROW, "select");
        benchmark::DoNotOptimize(sqlite3_column_int(m_pSelect, 0));
        auto const * const from = static_cast<BYTE const *>(sqlite3_column_blob(m_pSelect, 1));
        DWORD const size = static_cast<DWORD>(sqlite3_column_bytes(m_pSelect, 1));
        std::copy_n(from, size, data);
        sqlite3_reset(m_pSelect);
        return size;
    }

private:
    sqlite3 * m_pDatabase = nullptr;
    sqlite3_stmt * m_pInsert = nullptr;
    sqlite3_stmt * m_pSelect = nullptr;

    void Prepare(sqlite3_stmt *& statement, char const * sql)
    {
        Check(sqlite3_prepare_v3(m_pDatabase, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) == SQLITE_OK,
              sql);
    }
};

void ReadOurs(benchmark::State & state, HKEY hKey, Names & names)
{
    std::vector<BYTE> data(LARGE);
    for (auto _ : state)
    {
        DWORD type = 0;
        DWORD size = LARGE;
        Check(RegQueryValueExW(hKey, names.Next().c_str(), nullptr, &type, data.data(), &size) == 0, "RegQueryValueEx");
        benchmark::DoNotOptimize(data.data());
    }
}

void ReadPlain(benchmark::State & state, Plain & plain, Names & names)
{
    std::vector<BYTE> data(LARGE);
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(plain.Read(names.Next(), data.data()));
        benchmark::DoNotOptimize(data.data());
    }
}

void RegisterReads(std::string const & name, HKEY hKey, Plain & plain, Names const & names)
{
    auto const ours = std::make_shared<Names>(names);
    auto const limit = std::make_shared<Names>(names);
    benchmark::RegisterBenchmark((name + "/ours").c_str(),
                                 [=](benchmark::State & state) { ReadOurs(state, hKey, *ours); });
    benchmark::RegisterBenchmark((name + "/limit").c_str(),
                                 [=, &plain](benchmark::State & state) { ReadPlain(state, plain, *limit); });
}
} // namespace

int main(int argc, char ** argv)
{
    bench::PinTo(0);
    Folder const folder;
    Plain plain(folder.m_path);
    HKEY hKey = nullptr;
    Check(RegCreateKeyExW(HKEY_CURRENT_USER, _T("Software\\Bench"), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &hKey,
                          nullptr) == 0,
          "RegCreateKeyEx");
    plain.Run("BEGIN");
    for (int i = 0; i < VALUES; ++i)
    {
        auto const name = ValueName(i);
        Check(RegSetValueExW(hKey, name.c_str(), 0, REG_DWORD, reinterpret_cast<BYTE const *>(&i), sizeof(i)) == 0,
              "RegSetValueEx");
        plain.Write(name, &i, sizeof(i));
    }
    std::vector<BYTE> const data(LARGE, 'x');
    RegSetValueExW(hKey, _T("large"), 0, REG_BINARY, data.data(), LARGE);
    plain.Write(u"large", data.data(), static_cast<int>(LARGE));
    Names large(1);
    large.names.front() = u"large";
    plain.Run("COMMIT");

    RegisterReads("read one value", hKey, plain, Names(1));
    RegisterReads("read 100 values in turns", hKey, plain, Names(100));
    RegisterReads("read 20,000 values in turns", hKey, plain, Names(VALUES));
    RegisterReads("read 64 KiB", hKey, plain, large);
    bench::RunPairs(argc, argv, TARGET);

    // A write reads no more than it must: a limit to know, none to keep.
    benchmark::RegisterBenchmark("write one value/ours",
                                 [=](benchmark::State & state)
                                 {
                                     DWORD number = 0;
                                     for (auto _ : state)
                                     {
                                         ++number;
                                         RegSetValueExW(hKey, _T("value1"), 0, REG_DWORD,
                                                        reinterpret_cast<BYTE const *>(&number), sizeof(number));
                                     }
                                 });
    benchmark::RegisterBenchmark("write one value/limit",
                                 [&](benchmark::State & state)
                                 {
                                     DWORD number = 0;
                                     for (auto _ : state)
                                     {
                                         ++number;
                                         plain.Write(u"value1", &number, sizeof(number));
                                     }
                                 });
    bench::RunPairs(argc, argv, 0);
    RegCloseKey(hKey);
    return 0;
}
