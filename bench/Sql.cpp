/// SQL over TCP, side by side with a table that is no database's plus what the engine itself takes.

#include "Harness.h"
#include "Services.h"

#include "../tools/kvx/SqlProvider.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/sql/SqlCommand.h"

#include <filesystem>
#include <sqlite3.h>
#include <thread>

namespace
{
using namespace bench;

constexpr int ROWS = 10'000;
constexpr int COLUMNS = 4;
constexpr int WRITERS = 4;

/// A file of this process's own, which goes with its folder.
class Folder
{
public:
    Folder() { std::filesystem::create_directories(m_path); }
    Folder(Folder const &) = delete;
    ~Folder() { std::filesystem::remove_all(m_path); }

    std::string GetFile() const { return m_path / "bench.sqlite"; }

private:
    std::filesystem::path m_path =
        std::filesystem::temp_directory_path() / ("kvx-bench-sql-" + std::to_string(getpid()));
};

int RunService(Options const & options)
{
    auto * const provider = new CSqlProvider(options.Get("file", ""), SqlLimits());
    if (provider->Open())
    {
        Fail("no database");
    }
    CMsgDispatcher::GetInstance()->RegisterProvider(_T("host.db"), provider, 1);
    SayLine(std::to_string(StartServices()));
    WaitForParent();
    provider->StopProvider();
    StopServices();
    return 0;
}

CMsgResults Checked(CMsgResults results)
{
    if (results.Failed())
    {
        Fail(kvx::ToUtf8(results.GetErrorText()));
    }
    return results;
}

double TimeTable(LPCTSTR command)
{
    CMsgRequest request;
    FillTableRequest(request, ROWS, COLUMNS);
    auto const start = Clock::now();
    if (!request.Execute(command))
    {
        Fail("no table");
    }
    return Since(start);
}

double TimeSelect()
{
    CSqlCommand command(_T("host.db"), 1);
    auto const start = Clock::now();
    CMsgResults const results = Checked(command.Select(_T("t"), _T("*")));
    return Since(start);
}

/// The same rows from the engine, in this process.
class Engine
{
public:
    explicit Engine(std::string const & file)
    {
        if (sqlite3_open(file.c_str(), &m_database) != SQLITE_OK)
        {
            Fail("no database");
        }
        sqlite3_exec(m_database, "pragma synchronous=normal", nullptr, nullptr, nullptr);
    }
    Engine(Engine const &) = delete;
    ~Engine() { sqlite3_close(m_database); }

    double Time(char const * sql)
    {
        auto const start = Clock::now();
        sqlite3_stmt * statement = nullptr;
        sqlite3_prepare_v2(m_database, sql, -1, &statement, nullptr);
        std::size_t bytes = 0;
        int const columns = sqlite3_column_count(statement);
        while (sqlite3_step(statement) == SQLITE_ROW)
        {
            for (int i = 0; i < columns; ++i)
            {
                bytes += sqlite3_column_text(statement, i)
                             ? static_cast<std::size_t>(sqlite3_column_bytes(statement, i))
                             : 0;
            }
        }
        if (sqlite3_finalize(statement) != SQLITE_OK || (columns > 0 && bytes == 0))
        {
            Fail("the engine fails");
        }
        return Since(start);
    }

private:
    sqlite3 * m_database = nullptr;
};

/// A table of the service's own kind goes into the database, so that both have the same texts.
void FillDatabase()
{
    CMsgRequest table;
    FillTableRequest(table, ROWS, COLUMNS);
    table.Execute(_T("host.table.get"));
    CMsgCursor rows(table.GetResponse());
    CSqlCommand command(_T("host.db"), 1);
    CString columns;
    for (int i = 0; i < COLUMNS; ++i)
    {
        columns += (i > 0 ? _T(", ") : _T("")) + rows.GetColumnName(i) + _T(" text");
    }
    Checked(command.Execute(_T("create table t(") + columns + _T(")")));
    Checked(command.Execute(CString(_T("create table w(a text)"))));
    CMsgRequest script;
    script[_T("script")] = 1;
    CString & text = script[_T("sql")];
    while (rows.NextRow())
    {
        command.SetParams(rows);
        text += command.Insert(_T("t"), 1)[_T("sql")] + _T(";");
    }
    Checked(CMsgResults(script.Execute(_T("host.db.exec_sql"))));
}

/// Nanoseconds a statement.
double TimeInserts(int clients, int calls)
{
    std::vector<std::thread> threads;
    auto const start = Clock::now();
    for (int i = 0; i < clients; ++i)
    {
        threads.emplace_back(
            [calls]
            {
                CSqlCommand command(_T("host.db"), 0);
                command[_T("a")] = _T("some words");
                for (int n = 0; n < calls; ++n)
                {
                    Checked(command.Insert(_T("w")));
                }
            });
    }
    for (std::thread & thread : threads)
    {
        thread.join();
    }
    return Since(start) / (clients * calls);
}

double TimeCounts(int calls)
{
    auto const start = Clock::now();
    for (int n = 0; n < calls; ++n)
    {
        CMsgRequest request;
        request.Execute(_T("host.count.add"));
    }
    return Since(start) / calls;
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    if (!options.Get("serve", "").empty())
    {
        return RunService(options);
    }
    Folder const folder;
    {
        Child const service({"--serve=sql", "--file=" + folder.GetFile()});
        ConnectServices(std::stoi(service.ReadLine()));
        FillDatabase();
        Engine engine(folder.GetFile());
        int const rounds = options.IsBrief() ? 2 : 60;
        int const calls = options.IsBrief() ? 50 : 2000;
        Compare({"10,000 x 4 cells: CSqlCommand / table.get and the engine", 0, 0, Target::AtMost, 1.3}, rounds,
                &TimeSelect, [&] { return TimeTable(_T("host.table.get")) + engine.Time("select * from t"); });
        Compare({"10,000 x 4 cells: CSqlCommand / a kept table and the engine", 0, 0, Target::AtMost, 0}, rounds,
                &TimeSelect, [&] { return TimeTable(_T("host.table.kept")) + engine.Time("select * from t"); });
        Compare(
            {"an insert: CSqlCommand / a small call and the engine", 0, 0, Target::AtMost, 0}, rounds / 2,
            [&] { return TimeInserts(1, calls); },
            [&]
            {
                double own = 0;
                for (int n = 0; n < calls; ++n)
                {
                    own += engine.Time("insert into w values('some words')");
                }
                return TimeCounts(calls) + own / calls;
            });
        Compare(
            {"inserts of 4 clients at once / those of one", 0, 0, Target::AtMost, 0}, rounds / 2,
            [&] { return TimeInserts(WRITERS, calls / WRITERS); }, [&] { return TimeInserts(1, calls); });
        LeaveServices();
    }
    EndLibrary();
    return 0;
}
