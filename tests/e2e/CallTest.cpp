#include "Service.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{
using Strings = std::vector<std::string>;
using Rows = std::vector<Strings>;
namespace fs = std::filesystem;

class Call : public ServiceTest
{
protected:
    Rows List(Strings const & params) const
    {
        Strings words{"host.files.list"};
        words.insert(words.end(), params.begin(), params.end());
        Response const response = m_service.Call(words);
        EXPECT_EQ(response.nCode, 0) << response.strText;
        return response.rowSets.at(0).rows;
    }
};

TEST_F(Call, TellsOfTheHost)
{
    RowSet const info = m_service.Call({"host.info.get"}).rowSets.at(0);
    EXPECT_EQ(info.columns,
              (Strings{"name", "system", "release", "machine", "cpus", "pid", "uptime_s", "library_version"}));
    ASSERT_EQ(info.rows.size(), 1u);
    Strings const & row = info.rows[0];
    EXPECT_EQ(row[4], std::to_string(sysconf(_SC_NPROCESSORS_ONLN)));
    EXPECT_EQ(row[5], std::to_string(m_service.GetProcess().GetPid()));
    EXPECT_GT(std::stoll(row[6]), 0);
    EXPECT_EQ(row[7], KVX_PROGRAM_VERSION);
}

TEST_F(Call, ListsAFolder)
{
    fs::path const folder = fs::path(testing::TempDir()) / ("kvx-e2e-" + std::to_string(getpid()));
    fs::create_directories(folder / "b-folder");
    std::ofstream(folder / "a.txt") << "abc";
    std::ofstream(folder / "\u00FC.txt") << "";
    std::ofstream(folder / "C.bin") << std::string(70000, 'x');
    timespec const then[2] = {{0, 0}, {1000000000, 0}};
    utimensat(AT_FDCWD, (folder / "a.txt").c_str(), then, 0);
    fs::create_symlink("a.txt", folder / "d-link");
    mkfifo((folder / "e-pipe").c_str(), 0600);
    std::string const path = "path=" + folder.string();

    Rows rows = List({path});
    EXPECT_EQ(rows.at(1), (Strings{"a.txt", "3", "2001-09-09 01:46:40", "file"})); // the service runs in UTC
    Rows seen;
    for (Strings const & row : rows)
    {
        seen.push_back({row[0], row[3]});
    }
    EXPECT_EQ(seen, (Rows{{"C.bin", "file"}, {"a.txt", "file"}, {"b-folder", "directory"}, {"d-link", "link"},
                          {"e-pipe", "other"}, {"\u00FC.txt", "file"}}));
    EXPECT_EQ(rows[0][1], "70000");
    rows = List({path + "/", "pattern=*.txt", "limit=1"});
    EXPECT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0][0], "a.txt");
    EXPECT_TRUE(List({path, "pattern=nothing*"}).empty());
    EXPECT_TRUE(List({path + "/b-folder"}).empty());

    EXPECT_EQ(m_service.Call({"host.files.list", path + "/none"}).nCode, 3);
    EXPECT_EQ(m_service.Call({"host.files.list", path + "/a.txt"}).nCode, 267);
    EXPECT_EQ(m_service.Call({"host.files.list"}).nCode, 87);
    EXPECT_EQ(m_service.Call({"host.files.list", path, "pattern=../*"}).nCode, 87);
    EXPECT_EQ(m_service.Call({"host.files.list", path, "limit=few"}).nCode, 87);
    if (geteuid() != 0)
    {
        fs::permissions(folder / "b-folder", fs::perms::none);
        EXPECT_EQ(m_service.Call({"host.files.list", path + "/b-folder"}).nCode, 5);
    }
    fs::remove_all(folder);
}

TEST_F(Call, ShowsRowsInThreeFormats)
{
    Strings const words{"host.echo", "n=-7", "text=a \"b\", c", "name=\u6F22\u5B57\t\u00FC", "empty="};
    auto const as = [&](std::string const & format)
    {
        Strings all = words;
        all.insert(all.end(), {"--format", format});
        Result const result = m_service.CallRaw(all);
        EXPECT_EQ(result.nStatus, 0);
        EXPECT_EQ(result.strErr, "");
        return result.strOut;
    };
    EXPECT_EQ(as("json"), "{\"code\":0,\"text\":\"\",\"rowsets\":[{\"name\":\"echo\",\"columns\":[\"n\",\"text\",\"name\","
                          "\"empty\"],\"rows\":[[\"-7\",\"a \\\"b\\\", c\",\"\u6F22\u5B57\\t\u00FC\",\"\"]]}]}\n");
    EXPECT_EQ(as("csv"), "n,text,name,empty\r\n-7,\"a \"\"b\"\", c\",\u6F22\u5B57\t\u00FC,\r\n");
    EXPECT_EQ(as("table"), " n  text      name     empty\n"
                           "--  --------  -------  -----\n"
                           "-7  a \"b\", c  \u6F22\u5B57\\t\u00FC\n");
    EXPECT_EQ(m_service.CallRaw(words).strOut, as("table"));
    // Options end at "--"; of a parameter given twice the last one counts.
    EXPECT_EQ(m_service.CallRaw({"--format", "csv", "host.echo", "--", "-x=1", "-x=a=b"}).strOut, "-x\r\na=b\r\n");
}

TEST_F(Call, CountsFailsAndSleeps)
{
    auto const count = [&](Strings const & params)
    {
        Strings words{"host.count"};
        words.insert(words.end(), params.begin(), params.end());
        return m_service.Call(words).rowSets.at(0).rows.at(0).at(0);
    };
    EXPECT_EQ(count({}), "0");
    EXPECT_EQ(count({"add=9223372036854775807"}), "9223372036854775807");
    EXPECT_EQ(count({"add=1"}), "-9223372036854775808");
    EXPECT_EQ(m_service.Call({"host.count", "add=1x"}).nCode, 87);
    EXPECT_EQ(count({"add=-9223372036854775808"}), "0");

    Response failed = m_service.Call({"host.fail", "code=4294967295", "text=50%s; rc:=1;"});
    EXPECT_EQ(failed.nCode, 4294967295);
    EXPECT_EQ(failed.strText, "50%s; rc:=1;");
    failed = m_service.Call({"host.fail", "code=3"});
    EXPECT_EQ(failed.nCode, 3);
    EXPECT_FALSE(failed.strText.empty());
    EXPECT_EQ(m_service.Call({"host.fail"}).nCode, 87);

    EXPECT_EQ(m_service.Call({"host.sleep", "ms=1"}).nCode, 0);
    EXPECT_EQ(m_service.Call({"host.sleep", "ms=600001"}).nCode, 87);
    EXPECT_EQ(m_service.Call({"host.sleep", "ms=-1"}).nCode, 87);
    failed = m_service.Call({"host.sleep", "ms=600000", "--timeout", "50"});
    EXPECT_EQ(failed.nCode, 1460);
    EXPECT_TRUE(failed.rowSets.empty());
    EXPECT_EQ(m_service.Call({"host.echo", "--timeout", "10000"}).nCode, 0);
}

TEST_F(Call, MakesTables)
{
    Response const response = m_service.Call({"host.table.get", "rows=2000", "columns=4"});
    RowSet const & table = response.rowSets.at(0);
    EXPECT_EQ(table.columns.size(), 4u);
    ASSERT_EQ(table.rows.size(), 2000u);
    std::set<std::string> keys;
    std::set<std::string> others;
    for (Strings const & row : table.rows)
    {
        ASSERT_EQ(row.size(), 4u);
        keys.insert(row[0]);
        others.insert(row[3]);
    }
    EXPECT_EQ(keys.size(), 2000u);
    EXPECT_GT(others.size(), 100u);
    EXPECT_LT(others.size(), 1000u);
    EXPECT_EQ(m_service.Call({"host.table.get", "rows=2000", "columns=4"}).rowSets.at(0).rows, table.rows);
    EXPECT_EQ(m_service.Call({"host.table.get", "rows=0", "columns=1"}).rowSets.at(0).rows.size(), 0u);
    for (Strings const & bad : {Strings{"rows=-1", "columns=2"}, Strings{"rows=2", "columns=-1"},
                                Strings{"rows=5000001", "columns=2"}, Strings{"rows=4294967297", "columns=4294967296"},
                                Strings{"rows=1"}})
    {
        Strings words{"host.table.get"};
        words.insert(words.end(), bad.begin(), bad.end());
        EXPECT_EQ(m_service.Call(words).nCode, 87) << bad[0];
    }
}

TEST_F(Call, ReportsFailures)
{
    Result result = m_service.CallRaw({"host.nothing", "a=1"});
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_EQ(result.strErr, "error 50: Unsupported command: host.nothing\n");
    EXPECT_EQ(result.strOut, "");
    EXPECT_EQ(m_service.Call({"other"}).nCode, 50);
    // Nothing listens on port 1 of a test machine; an unknown host is a failed connection as well.
    for (std::string const address : {"tcp:127.0.0.1:1", "tcp:kvx.invalid:4100", "tcp:127.0.0.1"})
    {
        result = RunKvx({"call", address, "host.info.get"});
        EXPECT_EQ(result.nStatus, 1);
        EXPECT_TRUE(result.strErr.starts_with("error 1243: ")) << result.strErr;
    }
    for (std::string const address : {"nowhere", "udp:127.0.0.1:1", "tcp:127.0.0.1:70000", "tcp:127.0.0.1:x"})
    {
        result = RunKvx({"call", address, "host.info.get"});
        EXPECT_EQ(result.nStatus, 1);
        EXPECT_TRUE(result.strErr.starts_with("error 87: '" + address)) << result.strErr;
    }
}

TEST(Usage, IsExplained)
{
    for (Strings const & wrong :
         {Strings{}, Strings{"dance"}, Strings{"call"}, Strings{"call", "inproc"}, Strings{"call", "inproc", ""},
          Strings{"call", "inproc", "host.echo", "word"}, Strings{"call", "inproc", "host.echo", "=1"},
          Strings{"call", "inproc", "host.echo", "--format", "xml"},
          Strings{"call", "inproc", "host.echo", "--timeout", "0"}, Strings{"call", "inproc", "host.echo", "--bogus"},
          Strings{"serve"}, Strings{"serve", "tcp:127.0.0.1:0", "more"},
          Strings{"bench", "inproc", "host.echo", "--count", "0", "--clients", "1"},
          Strings{"bench", "inproc", "host.echo", "--clients", "1"}})
    {
        Result const result = RunKvx(wrong);
        EXPECT_EQ(result.nStatus, 2) << testing::PrintToString(wrong);
        EXPECT_EQ(result.strOut, "");
        EXPECT_NE(result.strErr, "");
    }
    for (Strings const & help : {Strings{"--help"}, Strings{"serve", "--help"}, Strings{"call", "--help"}, Strings{"bench", "-h"}})
    {
        Result const result = RunKvx(help);
        EXPECT_EQ(result.nStatus, 0);
        EXPECT_EQ(result.strErr, "");
        EXPECT_NE(result.strOut.find("Examples:"), std::string::npos);
    }
    EXPECT_EQ(RunKvx({"--version"}).strOut, "kvx " KVX_PROGRAM_VERSION "\n");
}

class Bench : public ServiceTest
{
protected:
    Result Run(std::string const & address, Strings const & words, int count, int clients)
    {
        Strings args{"bench", address, "--count", std::to_string(count), "--clients", std::to_string(clients)};
        args.insert(args.end(), words.begin(), words.end());
        return RunKvx(args);
    }
    static std::string Value(Result const & result, std::string const & name)
    {
        auto const at = result.strOut.find(name + " ");
        auto const value = result.strOut.find_first_not_of(' ', at + name.size());
        return at == std::string::npos ? "" : result.strOut.substr(value, result.strOut.find('\n', at) - value);
    }
};

TEST_F(Bench, MakesEachCallOnce)
{
    for (std::string const oneWay : {"", "--oneway"})
    {
        Strings words{"host.count", "add=1"};
        if (!oneWay.empty())
        {
            words.push_back(oneWay);
        }
        Result const result = Run(m_service.GetAddress(), words, 203, 4);
        EXPECT_EQ(result.nStatus, 0) << result.strErr;
        EXPECT_EQ(result.strErr, "");
        EXPECT_EQ(Value(result, "calls"), "203");
        EXPECT_EQ(Value(result, "failed"), "0");
        EXPECT_LE(std::stod(Value(result, "median_us")), std::stod(Value(result, "worst_us")));
        EXPECT_GT(std::stod(Value(result, "bytes/s")), std::stod(Value(result, "calls/s")));
        std::string const expected = oneWay.empty() ? "203" : "406";
        // One-way requests are served behind the client's back.
        EXPECT_TRUE(Becomes([&] { return m_service.Call({"host.count"}).rowSets.at(0).rows.at(0).at(0) == expected; }));
    }
}

TEST_F(Bench, CountsFailures)
{
    Result result = Run(m_service.GetAddress(), {"host.fail", "code=5", "text=no"}, 7, 2);
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_EQ(result.strErr, "error 5: no (7 of 7 calls failed)\n");
    EXPECT_EQ(Value(result, "failed"), "7");
    result = Run("tcp:127.0.0.1:1", {"host.info.get"}, 3, 3);
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_TRUE(result.strErr.starts_with("error 1243: ")) << result.strErr;
    EXPECT_EQ(Run("inproc", {"host.echo", "a=b"}, 1000, 3).nStatus, 0);
}
} // namespace
