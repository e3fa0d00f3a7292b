/// A backup of 100,000 registry values, written and read back, against what the database below takes for the same reads
/// and writes alone, in one transaction.

#include "Harness.h"

#include "kvx/platform/RegistryValues.h"
#include "kvx/registry/Registry.h"
#include "kvx/registry/RegistryBackup.h"

#include <cstdlib>
#include <filesystem>
#include <sqlite3.h>
#include <string>
#include <vector>

namespace
{
using namespace bench;

constexpr double MOST = 2;
constexpr int PER_KEY = 100;
CString const ROOT = _T("HKCU\\Software\\Bench");

void Check(bool bGood, char const * what)
{
    if (!bGood)
    {
        Fail(what);
    }
}

std::vector<BYTE> DataOf(int number)
{
    return std::vector<BYTE>(static_cast<std::size_t>(4 + number % 60), static_cast<BYTE>(number));
}

void Fill(int keys)
{
    for (int key = 0; key < keys; ++key)
    {
        CString path;
        path.Format(_T("%s\\Group %d\\Key %d"), ROOT, key % 10, key);
        CRegistry opened;
        Check(opened.CreateKey(path) == 0, "no key");
        std::vector<kvx::RegistryValue> values(PER_KEY);
        for (int i = 0; i < PER_KEY; ++i)
        {
            values[static_cast<std::size_t>(i)] = {u"value " + std::u16string(1, static_cast<char16_t>(u'A' + i)),
                                                   REG_BINARY, DataOf(key + i), opened};
        }
        Check(kvx::SetRegistryValues(values) == 0, "no values");
    }
}

/// The same values in a table of their own.
class Plain
{
public:
    explicit Plain(std::string const & path)
    {
        Check(sqlite3_open(path.c_str(), &m_pDatabase) == SQLITE_OK, "no database");
        Run("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL");
        // The registry's own table, with its indexes and the folded names by which it finds values.
        Run("CREATE TABLE vals(id INTEGER PRIMARY KEY, key INTEGER NOT NULL, folded BLOB NOT NULL, name BLOB NOT NULL,"
            " type INTEGER NOT NULL, data BLOB NOT NULL, UNIQUE(key, folded)) STRICT;"
            "CREATE INDEX vals_key ON vals(key)");
    }
    Plain(Plain const &) = delete;
    Plain & operator=(Plain const &) = delete;
    ~Plain() { sqlite3_close(m_pDatabase); }

    double Write(int keys)
    {
        Run("DELETE FROM vals");
        auto const start = Clock::now();
        Run("BEGIN");
        sqlite3_stmt * const insert =
            Prepare("INSERT INTO vals(key, folded, name, type, data) VALUES(?1, ?2, ?2, 3, ?3)");
        for (int key = 0; key < keys; ++key)
        {
            for (int i = 0; i < PER_KEY; ++i)
            {
                std::u16string const name = u"value " + std::u16string(1, static_cast<char16_t>(u'A' + i));
                std::vector<BYTE> const data = DataOf(key + i);
                sqlite3_bind_int(insert, 1, key);
                sqlite3_bind_blob(insert, 2, name.data(), static_cast<int>(2 * name.size()), SQLITE_STATIC);
                sqlite3_bind_blob(insert, 3, data.data(), static_cast<int>(data.size()), SQLITE_STATIC);
                Check(sqlite3_step(insert) == SQLITE_DONE, "insert");
                sqlite3_reset(insert);
            }
        }
        sqlite3_finalize(insert);
        Run("COMMIT");
        return Since(start) / (keys * PER_KEY);
    }
    double Read(int keys)
    {
        auto const start = Clock::now();
        Run("BEGIN");
        sqlite3_stmt * const select = Prepare("SELECT name, type, data FROM vals WHERE key=?1 ORDER BY id");
        int rows = 0;
        std::size_t bytes = 0;
        for (int key = 0; key < keys; ++key)
        {
            sqlite3_bind_int(select, 1, key);
            for (; sqlite3_step(select) == SQLITE_ROW; ++rows)
            {
                std::string const data(static_cast<char const *>(sqlite3_column_blob(select, 2)),
                                       static_cast<std::size_t>(sqlite3_column_bytes(select, 2)));
                bytes += data.size() + static_cast<std::size_t>(sqlite3_column_bytes(select, 0));
            }
            sqlite3_reset(select);
        }
        sqlite3_finalize(select);
        Run("COMMIT");
        Check(rows == keys * PER_KEY && bytes > 0, "rows are missing");
        return Since(start) / rows;
    }

private:
    sqlite3 * m_pDatabase = nullptr;

    void Run(char const * sql) { Check(sqlite3_exec(m_pDatabase, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql); }
    sqlite3_stmt * Prepare(char const * sql)
    {
        sqlite3_stmt * statement = nullptr;
        Check(sqlite3_prepare_v2(m_pDatabase, sql, -1, &statement, nullptr) == SQLITE_OK, sql);
        return statement;
    }
};
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    int const keys = options.IsBrief() ? 10 : 1000;
    std::string folder = (std::filesystem::temp_directory_path() / "kvx-bench-XXXXXX").string();
    Check(mkdtemp(folder.data()) != nullptr, "no folder");
    setenv("KVX_REGISTRY", (folder + "/registry.db").c_str(), 1);
    Fill(keys);
    {
        Plain plain(folder + "/plain.db");
        plain.Write(keys);
        CString const path = CString(kvx::FromUtf8(folder + "/backup.xml"));
        auto const save = [&]
        {
            auto const start = Clock::now();
            CFile file(path, CFile::modeCreate | CFile::modeWrite);
            CRegistryBackup backup;
            Check(backup.Export(ROOT, file) == 0, "no export");
            return Since(start) / static_cast<double>(backup.GetValueCount());
        };
        auto const restore = [&]
        {
            CRegistry::DeleteKey(HKEY_CURRENT_USER, _T("Software\\Bench"));
            auto const start = Clock::now();
            CFile file(path, CFile::modeRead);
            CRegistryBackup backup;
            Check(backup.Import(file) == 0, "no import");
            return Since(start) / static_cast<double>(backup.GetValueCount());
        };
        int const rounds = options.IsBrief() ? 1 : 5;
        Compare({"export, a value", 0, 0, Target::AtMost, MOST}, rounds, save, [&] { return plain.Read(keys); });
        Compare({"import, a value", 0, 0, Target::AtMost, MOST}, rounds, restore, [&] { return plain.Write(keys); });
        Compare(
            {"export and import, a value", 0, 0, Target::AtMost, MOST}, rounds, [&] { return save() + restore(); },
            [&] { return plain.Read(keys) + plain.Write(keys); });
    }
    std::filesystem::remove_all(folder);
    return 0;
}
