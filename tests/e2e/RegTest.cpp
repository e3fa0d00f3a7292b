#include "Service.h"

#include "tests/support/OneHost.h"

#include <filesystem>
#include <fstream>

namespace
{
using Rows = std::vector<Strings>;
using testing::HasSubstr;
using testing::StartsWith;
namespace fs = std::filesystem;

class Reg : public testing::Test
{
protected:
    OwnRegistry m_registry;
    fs::path m_folder = m_registry.strFolder;

    static Result Run(Strings const & words) { return RunKvx(Join({"reg"}, words)); }
    static void Set(Strings const & words)
    {
        Result const result = Run(Join({"set"}, words));
        EXPECT_EQ(result.nStatus, 0) << result.strErr;
        EXPECT_EQ(result.strOut, "");
    }
    static std::vector<RowSet> Show(Strings const & words)
    {
        Result const result = Run(Join(words, {"--format", "json"}));
        EXPECT_EQ(result.nStatus, 0) << result.strErr;
        return Response(result.strOut).rowSets;
    }
};

TEST_F(Reg, SetsAndShowsEveryType)
{
    std::string const key = "HKCU\\Software\\Acme";
    Set({key, "Text", "50% \u00FC\n"});
    Set({key, "", "the default"});
    Set({key, "Path", "%HOME%\\x", "--type", "expand"});
    Set({key, "Level", "0xFFFFFFFF", "--type", "dword"});
    Set({key, "Large", "18446744073709551615", "--type", "qword"});
    Set({key, "Bytes", "00ff", "1A", "--type", "binary"});
    Set({key, "List", "a", "b c", "--type", "multi"});
    Set({key, "None", "--type", "none"});
    Set({key + "\\Sub\\Deep", "--", "-n", "-1"});
    std::vector<RowSet> const list = Show({"list", "hkey_current_user\\software\\ACME"});
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].rows, Rows{{"Sub"}});
    EXPECT_THAT(list[1].rows, testing::UnorderedElementsAreArray(Rows{{"Text", "REG_SZ", "50% \u00FC\n"},
                                                                      {"", "REG_SZ", "the default"},
                                                                      {"Path", "REG_EXPAND_SZ", "%HOME%\\x"},
                                                                      {"Level", "REG_DWORD", "0xffffffff (-1)"},
                                                                      {"Large", "REG_QWORD", "0xffffffffffffffff"},
                                                                      {"Bytes", "REG_BINARY", "00 ff 1a"},
                                                                      {"List", "REG_MULTI_SZ", "a\r\nb c"},
                                                                      {"None", "REG_NONE", ""}}));
    EXPECT_EQ(Show({"get", key, "level"}).at(0).rows.at(0).at(2), "0xffffffff (-1)");
    EXPECT_EQ(Run({"get", key, "Text"}).strOut, "name  type    data\n"
                                                "----  ------  -------\n"
                                                "Text  REG_SZ  50% \u00FC\\n\n");
    // No terminal, no colours.
    EXPECT_EQ(Run({"tree", key}).strOut, key + "\n  Sub\n    Deep\n");
    EXPECT_THAT(Run({"tree", key + "\\Sub", "--values"}).strOut, HasSubstr("  Deep\n    -n REG_SZ -1\n"));
    EXPECT_EQ(Show({"tree", key, "--values"}).at(0).rows.back(), (Strings{key + "\\Sub\\Deep", "-n", "REG_SZ", "-1"}));
}

TEST_F(Reg, Deletes)
{
    Set({"HKLM\\Software\\Acme\\Sub", "v", "1"});
    Set({"HKLM\\Software\\Acme", "", "1"});
    EXPECT_EQ(Run({"delete", "HKLM\\Software\\Acme", ""}).nStatus, 0);
    EXPECT_THAT(Run({"delete", "HKLM\\Software\\Acme", ""}).strErr, StartsWith("error 2: "));
    EXPECT_THAT(Run({"delete", "HKLM\\Software\\Acme"}).strErr, StartsWith("error 5: "));
    EXPECT_EQ(Run({"delete", "HKLM\\Software\\Acme", "--recursive"}).nStatus, 0);
    Result const gone = Run({"list", "HKLM\\Software\\Acme"});
    EXPECT_EQ(gone.nStatus, 1);
    EXPECT_THAT(gone.strErr, StartsWith("error 2: HKLM\\Software\\Acme: "));
    EXPECT_EQ(gone.strOut, "");
}

TEST_F(Reg, TellsWhatIsWrong)
{
    for (Strings const & words : {Strings{},
                                  {"get"},
                                  {"set", "HKCU\\x"},
                                  {"set", "HKCU\\x", "n", "12x", "--type", "dword"},
                                  {"set", "HKCU\\x", "n", "4294967296", "--type", "dword"},
                                  {"set", "HKCU\\x", "n", "0f0", "--type", "binary"},
                                  {"set", "HKCU\\x", "n", "zz", "--type", "binary"},
                                  {"set", "HKCU\\x", "n", "1", "2"},
                                  {"set", "HKCU\\x", "n", "1", "--type", "float"},
                                  {"delete", "HKCU\\x", "n", "--recursive"}})
    {
        EXPECT_EQ(Run(words).nStatus, 2) << testing::PrintToString(words);
    }
    EXPECT_EQ(Run({"--help"}).nStatus, 0);
    EXPECT_FALSE(fs::exists(m_folder / "registry.db")); // nothing has asked for it yet, or ever
    EXPECT_THAT(Run({"get", "HKXX\\x"}).strErr, StartsWith("error 161: HKXX\\x: "));
    EXPECT_THAT(Run({"get", "HKCU", "none"}).strErr, StartsWith("error 2: none: "));

    if (host::IsWindows()) // whose registry is no file of ours (2026-11-22)
    {
        return;
    }
    std::string const garbage(10000, 'g');
    std::ofstream(m_folder / "bad") << garbage;
    host::SetVariable("KVX_REGISTRY", (m_folder / "bad").string().c_str());
    Result const bad = Run({"set", "HKCU\\x", "n", "1"});
    EXPECT_EQ(bad.nStatus, 1);
    EXPECT_THAT(bad.strErr, HasSubstr("error 1009: HKCU\\x: "));
    std::ifstream file(m_folder / "bad");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), garbage);
}

TEST_F(Reg, ATreeGoesThroughAFile)
{
    std::string const key = "HKCU\\Software\\Acme";
    Set({key, "C:\\a\\", "<\u20AC & 'x'>"});
    Set({key + "\\S\u00FCb", "\"q\"\n", std::string(1000, 'z')});
    Set({key, "", "--type", "binary"});
    std::string const file = (m_folder / "a.xml").string();
    std::string const printed = (m_folder / "printed.xml").string();
    EXPECT_EQ(Run({"export", key, file}).nStatus, 0);
    Result const print = RunKvx({"xml", "print", file});
    EXPECT_EQ(print.nStatus, 0) << print.strErr;
    std::ofstream(printed) << print.strOut;
    EXPECT_EQ(Run({"import", printed, "HKCU\\Software\\Copy"}).nStatus, 0);
    Result const same = Run({"diff", "HKCU\\Software\\Copy", file});
    EXPECT_EQ(same.nStatus, 0) << same.strErr << same.strOut;
    EXPECT_EQ(same.strOut, "");
    EXPECT_EQ(Run({"export", key, "-"}).strOut.substr(0, 10), "<REGISTRY>");

    Set({"HKCU\\Software\\Copy", "new", "1"});
    Result const differs = Run({"diff", "HKCU\\Software\\Copy", file, "--format", "json"});
    EXPECT_EQ(differs.nStatus, 1);
    EXPECT_EQ(Run({"diff", "HKCU\\Software\\Copy", file + ".none"}).nStatus, 2);
    EXPECT_EQ(Response(differs.strOut).rowSets.at(0).rows,
              (Rows{{"only in registry", "HKCU\\Software\\Copy", "new", "REG_SZ 1", ""}}));

    // What fails leaves an older file, and the registry, as they are.
    EXPECT_THAT(Run({"export", key + "\\none", file}).strErr, StartsWith("error 2: "));
    EXPECT_EQ(Run({"diff", key, file}).nStatus, 0);
    std::ofstream(m_folder / "bad.xml") << "<REGISTRY><KEY name='HKCU\\Software\\Bad'>\n<VALUE/></KEY></REGISTRY>";
    EXPECT_THAT(Run({"import", (m_folder / "bad.xml").string()}).strErr, HasSubstr("line 2"));
    EXPECT_THAT(Run({"list", "HKCU\\Software\\Bad"}).strErr, StartsWith("error 2: "));
}
} // namespace
