#include "Service.h"

#include "kvx/platform/host.h"
#include "tests/support/OneHost.h"

#include <filesystem>
#include <fstream>

namespace
{
using Rows = std::vector<Strings>;
using testing::HasSubstr;
using testing::StartsWith;
namespace fs = std::filesystem;

class Call : public ServiceTest
{
protected:
    Response Ask(std::string const & command, Strings const & params) const
    {
        return m_service.Call(Join({command}, params));
    }
};

TEST_F(Call, TellsOfTheHost)
{
    RowSet const info = m_service.Call({"host.info.get"}).rowSets.at(0);
    EXPECT_EQ(info.columns,
              (Strings{"name", "system", "release", "machine", "cpus", "pid", "uptime_s", "library_version"}));
    ASSERT_EQ(info.rows.size(), 1u);
    SYSTEM_INFO system{};
    GetSystemInfo(&system);
    EXPECT_EQ(info.rows[0][4], std::to_string(system.dwNumberOfProcessors));
    EXPECT_EQ(info.rows[0][5], std::to_string(m_service.process.GetId()));
    EXPECT_GT(std::stoll(info.rows[0][6]), 0);
    EXPECT_EQ(info.rows[0][7], KVX_PROGRAM_VERSION);
}

TEST_F(Call, ListsAFolder)
{
    fs::path const folder = host::MakeFolder("kvx-e2e");
    fs::create_directories(folder / "b-folder");
    std::ofstream(folder / "a.txt") << "abc";
    std::ofstream(folder / host::ToPath("\u00FC.txt")) << "";
    std::ofstream(folder / "C.bin") << std::string(70000, 'x');
    fs::last_write_time(folder / "a.txt", fs::file_time_type::clock::from_sys(
                                              std::chrono::sys_seconds(std::chrono::seconds(1000000000))));
    Rows oneHost;
    if (!host::IsWindows()) // which has no pipes among files, and links for few (2026-11-22)
    {
        fs::create_symlink("a.txt", folder / "d-link");
        EXPECT_EQ(std::system(("mkfifo " + (folder / "e-pipe").string()).c_str()), 0);
        oneHost = {{"d-link", "link"}, {"e-pipe", "other"}};
    }
    std::string const path = "path=" + folder.string();
    auto const list = [&](Strings const & params)
    { return Ask("host.files.list", Join({path}, params)).rowSets.at(0).rows; };

    Rows const rows = list({});
    Rows expected{{"C.bin", "file"}, {"a.txt", "file"}, {"b-folder", "directory"}, {"\u00FC.txt", "file"}};
    expected.insert(expected.end() - 1, oneHost.begin(), oneHost.end());
    Rows kinds;
    for (Strings const & row : rows)
    {
        kinds.push_back({row[0], row[3]});
    }
    EXPECT_EQ(kinds, expected);
    EXPECT_EQ(rows[0][1], "70000");
    Strings const text{"a.txt", "3", "2001-09-09 01:46:40", "file"}; // the service runs in UTC
    EXPECT_EQ(list({"pattern=*.txt", "limit=1"}), Rows{text});
    EXPECT_EQ(list({"pattern=nothing*"}), Rows{});

    EXPECT_EQ(Ask("host.files.list", {path + "/none"}).nCode, 3);
    EXPECT_EQ(Ask("host.files.list", {path + "/a.txt"}).nCode, 267);
    for (Strings const & bad : {Strings{}, Strings{path, "pattern=../*"}, Strings{path, "limit=few"}})
    {
        EXPECT_EQ(Ask("host.files.list", bad).nCode, 87);
    }
    fs::remove_all(folder);
}

TEST_F(Call, ShowsRowsInThreeFormats)
{
    auto const show = [&](std::string const & format, Strings const & params) {
        return RunKvx(Join({"call", m_service.strAddress, "--format", format, "host.echo"}, params)).strOut;
    };
    Strings const params{"n=-7", "text=a \"b\", c", "name=\u6F22\u5B57\t\u00FC", "empty="};
    EXPECT_EQ(show("json", params), R"({"code":0,"text":"","rowsets":[{"name":"echo","columns":["n","text","name",)"
                                    R"("empty"],"rows":[["-7","a \"b\", c","漢字\tü",""]]}]})"
                                    "\n");
    EXPECT_EQ(show("csv", params), "n,text,name,empty\r\n-7,\"a \"\"b\"\", c\",\u6F22\u5B57\t\u00FC,\r\n");
    EXPECT_EQ(show("table", params), " n  text      name     empty\n"
                                     "--  --------  -------  -----\n"
                                     "-7  a \"b\", c  \u6F22\u5B57\\t\u00FC\n");
    // Options end at "--"; of a parameter given twice the last one counts.
    EXPECT_EQ(show("csv", {"--", "-x=1", "-x=a=b"}), "-x\r\na=b\r\n");
}

TEST_F(Call, CountsFailsAndSleeps)
{
    EXPECT_EQ(m_service.CallForValue({"host.count"}), "0");
    EXPECT_EQ(m_service.CallForValue({"host.count", "add=9223372036854775807"}), "9223372036854775807");
    EXPECT_EQ(m_service.CallForValue({"host.count", "add=1"}), "-9223372036854775808");
    EXPECT_EQ(Ask("host.count", {"add=1x"}).nCode, 87);

    Response failed = Ask("host.fail", {"code=4294967295", "text=50%s; rc:=1;"});
    EXPECT_EQ(failed.nCode, 4294967295);
    EXPECT_EQ(failed.strText, "50%s; rc:=1;");
    EXPECT_NE(Ask("host.fail", {"code=3"}).strText, "");
    EXPECT_EQ(Ask("host.fail", {}).nCode, 87);

    EXPECT_EQ(Ask("host.sleep", {"ms=1"}).nCode, 0);
    EXPECT_EQ(Ask("host.sleep", {"ms=600001"}).nCode, 87);
    EXPECT_EQ(Ask("host.sleep", {"ms=600000", "--timeout", "50"}).nCode, 1460);
    EXPECT_EQ(Ask("host.sleep", {"ms=1", "--timeout", "10000"}).nCode, 0);
}

TEST_F(Call, MakesTables)
{
    Strings const size{"rows=2000", "columns=4"};
    Rows const rows = Ask("host.table.get", size).rowSets.at(0).rows;
    EXPECT_EQ(rows.size(), 2000u);
    EXPECT_EQ(rows.back().size(), 4u);
    EXPECT_NE(rows.front().front(), rows.back().front());
    EXPECT_EQ(Ask("host.table.get", size).rowSets.at(0).rows, rows);
    for (Strings const & bad : {Strings{"rows=-1", "columns=2"}, Strings{"rows=5000001", "columns=2"},
                                Strings{"rows=4294967297", "columns=4294967296"}, Strings{"rows=1"}})
    {
        EXPECT_EQ(Ask("host.table.get", bad).nCode, 87) << bad[0];
    }
}

TEST_F(Call, ReportsFailures)
{
    auto const call = [](std::string const & address) { return RunKvx({"call", address, "host.nothing", "a=1"}); };
    Result const unknown = call(m_service.strAddress);
    EXPECT_EQ(unknown.nStatus, 1);
    EXPECT_EQ(unknown.strErr, "error 50: Unsupported command: host.nothing\n");
    EXPECT_EQ(unknown.strOut, "");
    for (std::string const address : {"tcp:127.0.0.1:1", "tcp:kvx.invalid:4100", "tcp:127.0.0.1"})
    {
        EXPECT_EQ(call(address).nStatus, 1);
        EXPECT_THAT(call(address).strErr, StartsWith("error 1243: "));
    }
}

TEST(Usage, IsExplained)
{
    Strings const echo{"call", "inproc", "host.echo"};
    for (Strings const & wrong :
         {Strings{}, Strings{"reg"}, Strings{"call", "inproc"}, Strings{"call", "inproc", ""}, Join(echo, {"word"}),
          Join(echo, {"=1"}), Join(echo, {"--format", "xml"}), Join(echo, {"--timeout", "0"}), Join(echo, {"--bogus"}),
          Strings{"serve"}, Strings{"serve", "tcp:127.0.0.1:0", "--provider", "path"},
          Strings{"serve", "tcp:127.0.0.1:0", "--provider", "a..b=inproc:x@y"}, Strings{"watch", "tcp:127.0.0.1:1"},
          Strings{"watch", "tcp:127.0.0.1:1", "host.tick", "--count", "0"},
          Strings{"watch", "tcp:127.0.0.1:1", "host.tick", "--format", "csv"},
          Strings{"bench", "inproc", "host.echo", "--count", "0", "--clients", "1"}})
    {
        Result const result = RunKvx(wrong);
        EXPECT_EQ(result.nStatus, 2) << testing::PrintToString(wrong);
        EXPECT_EQ(result.strOut, "");
        EXPECT_THAT(result.strErr, IsLike("kvx[ a-z]*: .*\nRun 'kvx[ a-z]* --help' for more.\n"));
    }
    for (auto const & [words, told] : std::initializer_list<std::pair<Strings, std::string>>{
             {{"dance", "--help"},
              "kvx: 'dance' is no command: use serve, call, watch, bench, reg, hash, path, sql, xml or cab\n"},
             {{"sevre", "tcp:127.0.0.1:0"}, "kvx: 'sevre' is no command: did you mean 'serve'?\n"},
             {Join(echo, {"--frmat", "csv"}), "kvx call: '--frmat' is no option: did you mean '--format'?\n"},
             {{"reg", "lisst"}, "kvx reg: 'lisst' is no command: did you mean 'list'?\n"},
             {Join(echo, {"--format", "x\x1B"}), "'x\\x1B' is none of its words: use table, json or csv\n"}})
    {
        EXPECT_THAT(RunKvx(words).strErr, HasSubstr(told));
    }
    for (Strings const & command : {Strings{}, Strings{"serve"}, Strings{"call"}, Strings{"bench"}, Strings{"watch"},
                                    Strings{"reg"}, Strings{"reg", "set"}, Strings{"reg", "delete"}})
    {
        Result const result = RunKvx(Join(command, {"--help"}));
        EXPECT_EQ(result.nStatus, 0);
        EXPECT_THAT(result.strOut, HasSubstr("\nUsage: kvx"));
        EXPECT_THAT(result.strOut, testing::Not(HasLike("[^\n]{81}")));
    }
    EXPECT_EQ(RunKvx({"--version"}).strOut, "kvx " KVX_PROGRAM_VERSION "\n");
}

TEST(Output, ThatCantBeWrittenIsOneThingForAllCommands)
{
    OwnRegistry const registry;
    Service service;
    for (Strings const & words :
         {Strings{"--help"}, Strings{"--version"}, Strings{"reg", "tree", "HKCU"}, Strings{"reg", "list", "HKCU"},
          Strings{"call", "inproc", "host.table.get", "rows=20000", "columns=4"},
          Strings{"bench", "inproc", "host.echo", "--count", "1", "--clients", "1"},
          Strings{"watch", service.strAddress, "host.tick"}, Strings{"serve", "tcp:127.0.0.1:0"}})
    {
        SCOPED_TRACE(testing::PrintToString(words));
        Result result;
        if (!host::IsWindows()) // where no disk is always full (2026-11-22)
        {
            result = RunKvx(words, Stdout::Full);
            EXPECT_EQ(result.nStatus, 1);
            EXPECT_THAT(result.strErr, StartsWith("error 29: "));
        }
        result = RunKvx(words, Stdout::Closed);
        EXPECT_EQ(result.nStatus, 1);
        EXPECT_THAT(result.strErr, StartsWith("error 6: stdout is closed"));
        if (words[0] != "serve") // which serves on
        {
            result = RunKvx(words, Stdout::Abandoned);
            EXPECT_EQ(result.nStatus, 0);
            EXPECT_EQ(result.strErr, "");
        }
    }
    EXPECT_EQ(service.Stop(), 0);
}

TEST(Output, DoesntDeceiveTheReaderOfATerminal)
{
    // Controls of both kinds, an override, a joiner, a separator of lines, a tag, and an innocent emoji.
    std::string const text = "a\x1B[2J\u009B1m\u202Eb\u200Dc\u2028\U000E0041\r\t\U0001F600";
    std::string const shown = "a\\x1B[2J\\x9B1m\\u202Eb\\u200Dc\\u2028\\U000E0041\\r";
    std::string const json = R"(a\u001B[2J\u009B1m\u202Eb\u200Dc\u2028\uDB40\uDC41\r\t)"
                             "\U0001F600";
    auto const show = [&](std::string const & format, Stdout out) {
        return RunKvx({"call", "inproc", "host.echo", "x=" + text, "--format", format}, out).strOut;
    };
    EXPECT_EQ(show("csv", Stdout::Pipe), "x\r\n\"" + text + "\"\r\n");
    EXPECT_THAT(show("table", Stdout::Pipe), HasSubstr("\\x9B1m\u202Eb\u200Dc\u2028\U000E0041\\r\\t\U0001F600\n"));
    EXPECT_THAT(show("json", Stdout::Pipe), HasSubstr("[[\"" + json + "\"]]"));
    if (host::IsWindows()) // whose consoles no test can read as a stream (2026-11-22)
    {
        return;
    }
    EXPECT_THAT(show("table", Stdout::Terminal), testing::EndsWith("\n" + shown + "\\t\U0001F600\n"));
    EXPECT_EQ(show("csv", Stdout::Terminal), "x\r\n" + shown + "\t\U0001F600\r\n");
    EXPECT_EQ(show("json", Stdout::Pipe), show("json", Stdout::Terminal));
    EXPECT_EQ(RunKvx({"call", "inproc", "host.fail", "code=5", "text=" + text}, Stdout::Terminal).strOut,
              "error 5: " + shown + "\\t\U0001F600\n");
}

class Bench : public ServiceTest
{
protected:
    static Result Run(std::string const & address, Strings const & words)
    {
        return RunKvx(Join({"bench", address, "--count", "203", "--clients", "4"}, words));
    }
};

TEST_F(Bench, MakesEachCallOnce)
{
    Strings const words{"host.count", "add=1"};
    Result result = Run(m_service.strAddress, words);
    EXPECT_EQ(result.nStatus, 0);
    EXPECT_EQ(result.strErr, "");
    EXPECT_THAT(result.strOut, IsLike("calls +203\nfailed +0\nclients +4\nmedian_us +[0-9.]+\np90_us +[0-9.]+\n"
                                      "p99_us +[0-9.]+\nworst_us +[0-9.]+\ncalls/s +[0-9]+\nbytes/s +[0-9]+\n"));
    EXPECT_EQ(m_service.CallForValue({"host.count"}), "203");

    result = Run(m_service.strAddress, Join(words, {"--oneway"}));
    EXPECT_EQ(result.nStatus, 0) << result.strErr;
    // One-way requests are served behind the client's back.
    EXPECT_TRUE(Becomes([&] { return m_service.CallForValue({"host.count"}) == "406"; }));
}

TEST_F(Bench, CountsFailures)
{
    Result result = Run(m_service.strAddress, {"host.fail", "code=5", "text=no"});
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_EQ(result.strErr, "error 5: no (203 of 203 calls failed)\n");
    EXPECT_THAT(result.strOut, HasSubstr("failed      203\n"));
    result = Run("tcp:127.0.0.1:1", {"host.info.get"});
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strErr, StartsWith("error 1243: "));
    EXPECT_EQ(Run("inproc", {"host.echo", "a=b"}).nStatus, 0);
}
} // namespace
