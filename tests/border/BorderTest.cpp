#include "tests/e2e/Service.h"

#include <filesystem>
#include <fstream>

namespace
{
namespace fs = std::filesystem;

std::string ReadAll(fs::path const & path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// One of the two programs, and what it calls a file of this host.
struct Side
{
    Strings program;
    std::string drive;

    Result Run(Strings const & args) const { return RunKvx(args, Stdout::Pipe, {}, program); }
    std::string Name(fs::path const & path) const { return drive + path.string(); }
};

/// From the first side to the second; both ways.
class Border : public testing::TestWithParam<bool>
{
protected:
    OwnRegistry m_registry; // and a folder
    fs::path m_folder = m_registry.strFolder;
    Side m_near{{GetKvx()}, ""};
    Side m_far{{KVX_WINE, KVX_WINDOWS_PROGRAM}, "Z:"};

    Border()
    {
        if (GetParam())
        {
            std::swap(m_near, m_far);
        }
    }
    std::unique_ptr<Service> Serve(Side const & side, Strings const & options = {}) const
    {
        return std::make_unique<Service>(options, Strings{"tcp:127.0.0.1:0"}, side.program);
    }
};

TEST_P(Border, CallsEventsAndStatements)
{
    auto const service = Serve(m_far, {"--sql", "db=" + m_far.Name(m_folder / "a.sqlite")});
    std::string const & road = service->strAddress;
    std::string const rows = R"("rowsets":[{"name":"echo","columns":["n","t"],"rows":[["-7","ä \"漢\" 😀\r\n"]]}]})";
    EXPECT_EQ(m_near.Run({"call", road, "host.echo", "n=-7", "t=ä \"漢\" 😀\r\n", "--format", "json"}).strOut,
              R"({"code":0,"text":"",)" + rows + "\n");
    Strings const table{"call", road, "host.table.get", "rows=5000", "columns=7", "--format", "csv"};
    EXPECT_EQ(m_near.Run(table).strOut, m_far.Run(table).strOut);
    EXPECT_EQ(m_near.Run({"call", road, "host.fail", "code=5", "text=nö"}).strErr, "error 5: nö\n");
    EXPECT_EQ(m_near.Run({"bench", road, "host.count", "add=1", "--count", "500", "--clients", "4"}).nStatus, 0);
    EXPECT_EQ(m_near.Run({"call", road, "host.count", "--format", "csv"}).strOut, "count\r\n500\r\n");
    Result const events = m_near.Run({"watch", road, "host.tick", "--count", "2"});
    EXPECT_THAT(events.strOut, IsLike("host[.]tick number=1 .*\nhost[.]tick number=2 .*\n"));
    EXPECT_EQ(m_near.Run({"sql", road, "db", "create table t(a text)"}).nStatus, 0);
    EXPECT_EQ(m_near.Run({"sql", road, "db", "insert into t values(:a)", ":a=O'Hära"}).nStatus, 0);
    EXPECT_EQ(m_near.Run({"sql", road, "db", "select a, null as n from t", "--format", "csv"}).strOut,
              "a,n\r\nO'Hära,\r\n");
}

TEST_P(Border, RelaysThereAndBack)
{
    auto const end = Serve(m_near);
    auto const hop = Serve(m_far, {"--provider", "end=forward:relay:" + end->strAddress});
    auto const pid = [&](std::string const & road, std::string const & command) {
        return Response(m_near.Run({"call", road, command, "--format", "json"}).strOut).rowSets.at(0).rows.at(0).at(5);
    };
    EXPECT_EQ(pid(hop->strAddress, "end.host.info.get"), pid(end->strAddress, "host.info.get"));
    EXPECT_EQ(m_near.Run({"call", hop->strAddress, "end.host.fail", "code=7", "text=far"}).strErr, "error 7: far\n");
    EXPECT_EQ(end->process.Kill(), -9);
    EXPECT_EQ(m_near.Run({"call", hop->strAddress, "end.host.count"}).nStatus, 1);
    EXPECT_EQ(m_near.Run({"call", hop->strAddress, "host.count"}).nStatus, 0);
}

TEST_P(Border, RegistriesTravel)
{
    std::string const key = "HKCU\\Software\\Acme";
    auto const clear = [&]
    {
        for (Side const * const side : {&m_near, &m_far})
        {
            side->Run({"reg", "delete", key, "--recursive"});
        }
    };
    clear();
    // In the order of names, which one of the registries keeps them in.
    for (Strings const & value : std::initializer_list<Strings>{{"", "the default"},
                                                                {"bytes", "00 ff 1a", "--type", "binary"},
                                                                {"level", "0xFFFFFFFF", "--type", "dword"},
                                                                {"list", "a", "b ü", "--type", "multi"},
                                                                {"none", "--type", "none"},
                                                                {"path", "%HOME%\\x", "--type", "expand"},
                                                                {"wide", "18446744073709551615", "--type", "qword"}})
    {
        EXPECT_EQ(m_near.Run(Join({"reg", "set", key}, value)).nStatus, 0) << value[0];
    }
    EXPECT_EQ(m_near.Run({"reg", "set", key + "\\S\u00FCb\\Deep", "n", "漢 \"<&>\" 😀\n"}).nStatus, 0);
    fs::path const there = m_folder / "there.xml";
    fs::path const back = m_folder / "back.xml";
    EXPECT_EQ(m_near.Run({"reg", "export", key, m_near.Name(there)}).nStatus, 0);
    EXPECT_EQ(m_far.Run({"reg", "import", m_far.Name(there)}).nStatus, 0);
    EXPECT_EQ(m_far.Run({"reg", "export", key, m_far.Name(back)}).nStatus, 0);
    EXPECT_EQ(ReadAll(back), ReadAll(there));
    EXPECT_EQ(m_near.Run({"reg", "diff", key, m_near.Name(back)}).nStatus, 0);
    EXPECT_EQ(m_near.Run({"xml", "print", m_near.Name(back)}).strOut,
              m_far.Run({"xml", "print", m_far.Name(back)}).strOut);
    clear();
}

TEST_P(Border, CabinetsTravel)
{
    fs::path const in = m_folder / "in";
    fs::create_directories(in / "Täler/漢");
    std::ofstream(in / "Täler/漢/text") << std::string(300'000, 't');
    fs::copy_file(KVX_WINDOWS_PROGRAM, in / "program"); // calls, which LZX translates
    fs::permissions(in / "program", fs::perms::owner_read);
    auto const changed =
        fs::file_time_type::clock::from_sys(std::chrono::sys_seconds(std::chrono::seconds(1'400'000'000)));
    fs::last_write_time(in / "program", changed);
    fs::path const cabinet = m_folder / "a.cab";
    for (std::string const method : {"--mszip", "--lzx=18", "--lzx"})
    {
        SCOPED_TRACE(method);
        fs::path const out = m_folder / ("out" + method);
        Result const made =
            m_near.Run({"cab", "create", method, m_near.Name(cabinet), "-C", m_near.Name(m_folder), "in"});
        EXPECT_EQ(made.nStatus, 0) << made.strErr;
        EXPECT_EQ(m_far.Run({"cab", "list", m_far.Name(cabinet), "--format", "csv"}).strOut,
                  m_near.Run({"cab", "list", m_near.Name(cabinet), "--format", "csv"}).strOut);
        Result const extracted = m_far.Run({"cab", "extract", m_far.Name(cabinet), "-C", m_far.Name(out)});
        EXPECT_EQ(extracted.nStatus, 0) << extracted.strErr;
        for (std::string const name : {"in/Täler/漢/text", "in/program"})
        {
            EXPECT_TRUE(ReadAll(out / name) == ReadAll(m_folder / name)) << name;
        }
        EXPECT_EQ(fs::last_write_time(out / "in/program"), changed);
        EXPECT_EQ(fs::status(out / "in/program").permissions() & fs::perms::owner_write, fs::perms::none);
    }
}

INSTANTIATE_TEST_SUITE_P(Both, Border, testing::Bool(),
                         [](auto const & way) { return way.param ? "FromWindows" : "ToWindows"; });
} // namespace
