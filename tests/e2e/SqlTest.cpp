#include "SqlService.h"

#include "tests/support/OneHost.h"

#include "kvx/sql/SqlCommand.h"
#include "kvx/xml/XMLDocumentKVX.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <random>

#include <sqlite3.h>

namespace
{
using Rows = std::vector<Strings>;
using testing::HasSubstr;

/// Texts that break what is put together carelessly.
class HostileTexts
{
public:
    CString Make()
    {
        if (Below(5000) == 0)
        {
            return CString(static_cast<WCHAR>('\''), 100 * 1024);
        }
        CString text;
        for (unsigned i = Below(6); i > 0; --i)
        {
            static constexpr std::array PIECES{
                _T("'"),  _T("''"),   _T("\""),         _T("\\"),     _T("--"),       _T(";"),
                _T("0"),  _T("7"),    _T("NULL"),       _T("null"),   _T("\"NULL\""), _T("\r\n"),
                _T("\t"), _T("\x1B"), _T("\U0001F600"), _T("\uFFFF"), _T("/*"),       _T("%s"),
                _T(" "),  _T("?1"),   _T(":a"),         _T("x'"),     _T("-1"),       _T("99999999999999999999")};
            unsigned const which = Below(PIECES.size() + 2);
            text += which < PIECES.size()    ? CString(PIECES[which])
                    : which == PIECES.size() ? CString(WCHAR{0}, 1)
                                             : CString(static_cast<WCHAR>(0xD800 + Below(0x800)), 1);
        }
        return text;
    }

private:
    std::mt19937 m_random{1};

    unsigned Below(std::size_t end) { return static_cast<unsigned>(m_random() % end); }
};

bool IsWhole(CString const & text)
{
    return kvx::FromUtf8(kvx::ToUtf8(text)) == text;
}

/// As the table of CSqlCommand has it.
bool SurvivesQuoting(CString const & text)
{
    std::string const bytes = kvx::ToUtf8(text);
    bool const bDigits = bytes.find_first_not_of("0123456789") == bytes.npos;
    bool const bCanonical = bytes == "0" || (!bytes.starts_with('0') && bytes.size() < 19);
    bool const bNull = text.CompareNoCase(_T("NULL")) == 0 || text.CompareNoCase(_T("\"NULL\"")) == 0;
    return !bNull && (!bDigits || bCanonical) && !bytes.empty() && bytes.find('\0') == bytes.npos;
}

TEST_F(Sql, HostileTextsComeBackUnchanged)
{
    int const COUNT = host::IsWine() ? 20'000 : 100'000; // where each request takes ten times as long (2026-11-22)
    constexpr int BATCH = 1'000;
    Serve({"--sql-max-rows", "1000000"});
    CSqlCommand command(_T("there.db"), 1);
    ASSERT_TRUE(command.Execute(CString(_T("create table t(n integer primary key, v text)"))).Succeeded());
    HostileTexts texts;
    std::vector<CString> sent;
    CString const bound = _T("insert into t values(:n, :v)");
    int failures = 0;
    CString script;
    for (int n = 0; n < COUNT; ++n)
    {
        sent.push_back(texts.Make());
        bool const bQuoted = SurvivesQuoting(sent.back());
        command[bQuoted ? _T("n") : _T(":n")] = n;
        command[bQuoted ? _T("v") : _T(":v")] = sent.back();
        if (!IsWhole(sent.back()))
        {
            CMsgResults const refused = bQuoted ? command.Insert(_T("t")) : command.ExecuteWithValues(bound);
            failures += refused.GetErrorCode() != ERROR_INVALID_PARAMETER;
            sent.back() = _T("<refused>");
        }
        else if (bQuoted)
        {
            script += command.Insert(_T("t"), 1)[_T("sql")] + _T(";");
        }
        else
        {
            failures += command.ExecuteWithValues(bound).Failed();
        }
        if ((n + 1) % BATCH == 0)
        {
            CMsgRequest request;
            request[_T("sql")] = std::exchange(script, CString());
            request[_T("script")] = 1;
            EXPECT_TRUE(request.Execute(_T("there.db.exec_sql")).Succeeded())
                << kvx::ToUtf8(request.GetResponse().GetErrorText());
        }
    }
    EXPECT_EQ(failures, 0);
    int seen = 0;
    int other = 0;
    for (int first = 0; first < COUNT; first += 10 * BATCH)
    {
        CString where;
        where.Format(_T("n between %d and %d"), first, first + 10 * BATCH - 1);
        for (CMsgResults rows = command.Select(_T("t"), _T("n,v"), where); rows.NextRow(); ++seen)
        {
            other += rows[_T("v")] != sent[static_cast<std::size_t>(rows[0].ToInteger())];
        }
    }
    EXPECT_EQ(other, 0);
    auto const refused = std::ranges::count(sent, CString(_T("<refused>")));
    EXPECT_EQ(seen, COUNT - refused);
    EXPECT_GT(refused, COUNT / 100);
}

TEST_F(Sql, TablesTravelUnchanged)
{
    auto const toXml = [](CMsgRowSet const & rows)
    {
        tinyxml2::XMLDocumentKVX document("r");
        rows.ToXml(document.RootElement());
        return tinyxml2::ToStringA(&document);
    };
    Serve();
    CSqlCommand command(_T("there.db"), 1);
    command.Execute(CString(_T("create table t(a text, ü real, c blob)")));
    command.Execute(CString(_T("insert into t values('<''\"&>', 1.5, x'00FF'), ('\nä', -1e300, null), ('', 7, '')")));
    CMsgResults found = command.Select(_T("t"), _T("*"));
    ASSERT_TRUE(found.Succeeded());
    CStringA const first = toXml(*found.CurrentRowSet());
    EXPECT_THAT(first.GetString(), HasSubstr("ü=\"1.5\" c=\"X&apos;00FF&apos;\""));
    tinyxml2::XMLDocumentKVX document;
    ASSERT_EQ(document.Parse(first), tinyxml2::XML_SUCCESS);
    CMsgRequest echo;
    kvx::RefPtr<CMsgMultipleRowSets> const sets(new CMsgMultipleRowSets);
    sets->FromXml(document.RootElement());
    ASSERT_TRUE(echo.Execute(_T("there.host.echo"), sets.Get()).Succeeded());
    CMsgCursor back(echo.GetResponse());
    back.FirstRowSet(); // of the request's parameters
    EXPECT_STREQ(toXml(*back.NextRowSet()), first);
}

TEST_F(Sql, ServesStatementsAndTheirValues)
{
    Serve();
    EXPECT_EQ(Run("create table t(a text unique, b integer)").rowSets.at(0).rows, (Rows{{"0", "0"}}));
    RowSet const changes = Run("insert into t values(?, ?2)", {"p1=x' --", "p2=007"}).rowSets.at(0);
    EXPECT_EQ(changes.strName, "changes");
    EXPECT_EQ(changes.columns, (Strings{"changes", "last_insert_rowid"}));
    EXPECT_EQ(changes.rows, (Rows{{"1", "1"}}));
    EXPECT_EQ(CodeOf("insert into t values(@a, $b)", {"@a=", "$b=", "nulls=$b,@a"}), 0);
    RowSet const rows = Run("select *, b, :c as c from t", {"null=-", ":c=00ff", "blobs=:c"}).rowSets.at(0);
    EXPECT_EQ(rows.columns, (Strings{"a", "b", "b_2", "c"}));
    EXPECT_EQ(rows.rows, (Rows{{"x' --", "7", "7", "X'00FF'"}, {"-", "-", "-", "X'00FF'"}}));
    EXPECT_EQ(CodeOf("select :c", {":c=0f0", "blobs=:c"}), 87);
    EXPECT_EQ(Run("select ?5, '?'", {"p5=5"}).rowSets.at(0).rows, (Rows{{"5", "?"}}));
    EXPECT_EQ(CodeOf("select '?', ?"), 87);
    EXPECT_THAT(Run("select :c", {"c=1"}).strText, HasSubstr("no parameter ':c'"));
    EXPECT_THAT(Run("insert into t values('x'' --', 0)").strText, HasSubstr("UNIQUE constraint failed"));
    EXPECT_THAT(Run("selec 1").strText, HasSubstr("near \"selec\": syntax error"));
    EXPECT_EQ(CodeOf(" -- nothing"), 87);
    EXPECT_EQ(CodeOf("select 1;;/*c*/ "), 0);

    // Several are refused before anything is done, unless they are a script: all of it or nothing.
    EXPECT_EQ(CodeOf("delete from t; select 1"), 87);
    EXPECT_EQ(CodeOf("delete from t; insert into none values(1)", {"script=1"}), 87);
    Response const script = Run("insert into t values('y', 1); select count(*) n from t;", {"script=1"});
    ASSERT_EQ(script.rowSets.size(), 2u);
    EXPECT_EQ(script.rowSets[1].rows, (Rows{{"3"}}));

    m_service.reset();
    Serve({"--sql-readonly"});
    EXPECT_EQ(Run("select count(*) from t").rowSets.at(0).rows, (Rows{{"3"}}));
    EXPECT_EQ(CodeOf("delete from t"), 19);
}

TEST_F(Sql, RefusesWhatReachesFurtherThanTheFile)
{
    Serve();
    std::string const other = (m_folder / "other").string();
    for (std::string const & sql :
         {"attach '" + other + "' as x", "vacuum into '" + other + "'", std::string("pragma journal_mode=delete"),
          std::string("select load_extension('x')"), std::string("begin"), std::string("savepoint a"),
          std::string("create temp table x(a)"), std::string("create table temp.q(a)"),
          std::string("create view temp.sqlite as select 1"), std::string("create virtual table temp.y using fts5(a)"),
          std::string("select json_patch('{}', '{}')"), "create virtual table v using csv(filename='" + other + "')",
          "pragma temp_store_directory='" + other + "'", std::string("select * from pragma_database_list")})
    {
        EXPECT_EQ(CodeOf(sql), 5) << sql;
        EXPECT_NE(CodeOf(sql, {"script=1"}), 0) << sql;
    }
    EXPECT_EQ(CodeOf("insert into sqlite_master values(1,2,3,4,5)"), 87);
    EXPECT_FALSE(fs::exists(other));
    EXPECT_EQ(CodeOf("create table t(a)"), 0);
    EXPECT_EQ(CodeOf("create trigger temp.tr after insert on main.t begin select 1; end"), 5);
    EXPECT_EQ(CodeOf("pragma table_info(t)"), 0);
    // These look at what is temporary by themselves.
    EXPECT_EQ(CodeOf("alter table t rename column a to b; alter table t rename to s; alter table s rename to t",
                     {"script=1"}),
              0);
    EXPECT_EQ(CodeOf("create virtual table v using fts5(a)"), 0);
    EXPECT_EQ(CodeOf("insert into v values('some words')"), 0);
    EXPECT_EQ(Run("select a from v('words')").rowSets.at(0).rows, (Rows{{"some words"}}));
    std::ofstream(m_folder / "none.sqlite") << "This is no database, but it is long enough to be one, and more.";
    Result const none = RunKvx({"serve", "tcp:127.0.0.1:0", "--sql", "x=" + (m_folder / "none.sqlite").string()});
    EXPECT_EQ(none.nStatus, 1);
    EXPECT_THAT(none.strErr, HasSubstr("file is not a database"));
    EXPECT_EQ(RunKvx({"serve", "tcp:127.0.0.1:0", "--sql", "x="}).nStatus, 2);
    EXPECT_EQ(RunKvx({"serve", "tcp:127.0.0.1:0", "--sql", "x=" + other, "--sql", "X=" + other}).nStatus, 2);
    EXPECT_EQ(RunKvx({"serve", "tcp:127.0.0.1:0", "--sql", "host=" + other}).nStatus, 2);
    // What one request has counted is nothing for the next one, and a file that has gone isn't served on.
    EXPECT_EQ(CodeOf("insert into t values(1)"), 0);
    EXPECT_EQ(Run("select last_insert_rowid(), changes(), total_changes()").rowSets.at(0).rows,
              (Rows{{"0", "0", "0"}}));
    if (host::IsWindows()) // where such a file can't be moved (2026-11-22)
    {
        return;
    }
    fs::rename(m_folder / "a.sqlite", other);
    EXPECT_THAT(Run("select 1").strText, HasSubstr("has been deleted, moved or replaced"));
}

TEST_F(Sql, OwnFunctionsGiveWhatTheEnginesDo)
{
    Serve();
    sqlite3 * database = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &database), SQLITE_OK);
    std::mt19937 random(1);
    static constexpr std::array PIECES{"a", "B", "ä", "\U0001F600", "%", "_", "*", "?", "[", "]", "^", "-", "!", "ab"};
    auto const text = [&](unsigned longest)
    {
        std::string made;
        for (auto n = random() % (longest + 1); n > 0; --n)
        {
            made += PIECES[random() % PIECES.size()];
        }
        return "'" + made + "'";
    };
    constexpr int COUNT = 300;
    constexpr int COLUMNS = 50;
    for (int i = 0; i < COUNT; ++i)
    {
        std::string sql =
            "select hex(instr(x'01020301', x'0301')), instr('aabaabaaabaabaabb', 'aabaabaabb'), trim(null, 1)";
        for (int column = 0; column < COLUMNS; ++column)
        {
            static constexpr std::array CALLS{"instr(", "replace(", "trim(", "ltrim(",
                                              "rtrim(", "like(",    "glob(", "like("};
            auto const which = random() % CALLS.size();
            sql += std::string(", ") + CALLS[which] + text(which < 5 ? 9 : 6) + ", " + text(which < 5 ? 2 : 9) +
                   (which == 1   ? ", " + text(3)
                    : which == 7 ? ", '!'"
                                 : "") +
                   ")";
        }
        sqlite3_stmt * statement = nullptr;
        ASSERT_EQ(sqlite3_prepare_v2(database, sql.c_str(), -1, &statement, nullptr), SQLITE_OK) << sql;
        ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
        CMsgResults row = Ask(sql);
        ASSERT_TRUE(row.NextRow());
        for (int column = 0; column < COLUMNS + 3; ++column)
        {
            auto const * const given = sqlite3_column_text(statement, column);
            EXPECT_EQ(kvx::ToUtf8(row[column].ToString()), given ? reinterpret_cast<char const *>(given) : "")
                << sql << column;
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close(database);
}

TEST_F(Sql, BoundsWhatAStatementCosts)
{
    std::string const endless = "with recursive r(x) as (select 1 union all select x + 1 from r) select ";
    Serve({"--sql-timeout", "300", "--sql-max-rows", "1000", "--sql-max-bytes", "100K", "--sql-max-value", "50K"});
    EXPECT_EQ(CodeOf(endless + "count(*) from r"), 1460);
    EXPECT_THAT(Run(endless + "x from r").strText, HasSubstr("more than 1000 rows"));
    EXPECT_THAT(Run(endless + "hex(zeroblob(20000)) from r").strText, HasSubstr("more than 102400 bytes"));
    EXPECT_THAT(Run("select zeroblob(60000)").strText, HasSubstr("too big"));
    EXPECT_EQ(Ask("select null union all select null", std::string(60'000, 'x')).GetErrorCode(), 234u);
    // Those that nobody could end, or that took gigabytes before they began.
    std::string matches = "with t(a, p) as materialized (select replace(hex(zeroblob(20000)), '0', 'a'), "
                          "'%' || replace(hex(zeroblob(450)), '0', 'a') || 'b%') select 0";
    std::string doubled = "with a0 as (select 1 x)";
    std::string names = "select 1 n";
    for (int i = 1; i < 300; ++i)
    {
        matches += i < 190 ? "+(a like p)" : "";
        std::string const last = "select * from a" + std::to_string(i - 1);
        doubled += i < 30 ? ", a" + std::to_string(i) + " as (" + last + " union all " + last + ")" : "";
        names += ", 1 \"" + std::string(400, 'n') + '"';
    }
    EXPECT_EQ(CodeOf(matches + " from t"), 1460);
    EXPECT_THAT(CodeOf(doubled + " select * from a29"), testing::AnyOf(8, 1460));
    EXPECT_LT(m_service->process.GetMemory(), 2500);
    EXPECT_EQ(Ask(names).GetErrorCode(), 234u);
    EXPECT_EQ(CodeOf("create table t(a)"), 0);
    EXPECT_EQ(CodeOf("insert into t with recursive r(x) as (select 1 union all select x + 1 from r limit 2000) "
                     "select x from r returning a"),
              234);
    EXPECT_EQ(Run("select count(*) from t").rowSets.at(0).rows, (Rows{{"0"}})); // it was taken back
    EXPECT_EQ(Run("insert into t values(5) returning a").rowSets.at(0).rows, (Rows{{"5"}}));
    sqlite3 * database = nullptr;
    ASSERT_EQ(sqlite3_open((m_folder / "a.sqlite").string().c_str(), &database), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(database, "begin immediate", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(CodeOf("insert into t values(1)"), 170); // busy
    EXPECT_EQ(CodeOf("insert into t values(1)", {"script=1"}), 170);
    EXPECT_EQ(CodeOf("select * from t"), 0);
    sqlite3_close(database);
    EXPECT_EQ(CodeOf("insert into t values(1)"), 0);

    // More endless statements than connections, whose clients go; then some that only the service's end ends.
    m_service.reset();
    Serve({"--sql-timeout", "600000"});
    Strings const forever{"sql", m_service->strAddress, "db", endless + "count(*) from r"};
    std::vector<std::unique_ptr<Process>> clients;
    auto const start = [&]
    {
        for (int i = 0; i < 10; ++i)
        {
            clients.push_back(std::make_unique<Process>(forever));
        }
        EXPECT_TRUE(Becomes([&] { return IsHeldUp("select 1"); }));
    };
    start();
    clients.clear();
    EXPECT_EQ(CodeOf("select 1"), 0);
    start();
    EXPECT_EQ(m_service->Stop(), 0);
    m_service.reset();
    for (auto const & client : clients)
    {
        EXPECT_EQ(client->Wait(), 1);
    }
}

TEST_F(Sql, CommandLineRunsStatements)
{
    Serve();
    auto const run = [&](std::string const & input, Strings const & options)
    {
        std::string const file = (m_folder / "in.sql").string();
        std::ofstream(file, std::ios::binary) << input;
        Result const result = RunKvx(Join({"sql", m_service->strAddress, "db"}, options), Stdout::Pipe, file);
        return std::to_string(result.nStatus) + "\n" + result.strOut + result.strErr;
    };
    EXPECT_EQ(run("create table t(a); -- c;\ncreate trigger tr after insert on t begin\n select 1; end; "
                  "insert into t values('a;b\n'';');\nselect * from t /*;*/",
                  {"--format", "csv"}),
              "0\nchanges,last_insert_rowid\r\n0,0\r\nchanges,last_insert_rowid\r\n0,0\r\n"
              "changes,last_insert_rowid\r\n1,1\r\na\r\n\"a;b\n';\"\r\n");
    EXPECT_THAT(run("delete from t; bad; delete from t;", {}), HasSubstr("syntax error\n"));
    EXPECT_THAT(run("", {"select :n as n, null as x", ":n=5", "--null", "-", "--format", "csv"}), "0\nn,x\r\n5,-\r\n");
    EXPECT_THAT(run("insert into t values(1); insert into none values(2);", {"--script"}), testing::StartsWith("1\n"));
    EXPECT_EQ(Run("select count(*) from t").rowSets.at(0).rows, (Rows{{"0"}}));
}
} // namespace
