#include "Service.h"

#include "tests/support/OneHost.h"
#include "tests/support/TestFolder.h"

#include <filesystem>
#include <fstream>

namespace
{
using testing::HasSubstr;
using testing::StartsWith;
namespace fs = std::filesystem;

class Xml : public TestFolder
{
protected:
    fs::path m_folder = m_strHost;

    static Result Run(Strings const & words) { return RunKvx(Join({"xml"}, words)); }
    std::string Write(char const * name, std::string const & text) const
    {
        Put(name, text);
        return (m_folder / name).string();
    }
    static std::string Read(std::string const & path)
    {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

TEST_F(Xml, PrintsAndGets)
{
    std::string const path = Write("a.xml", "<r><a n=\"\u017C\">\u20AC \U0001F600</a></r>");
    EXPECT_EQ(Run({"print", path}).strOut, "<r>\r\n  <a n=\"\u017C\">\u20AC \U0001F600</a>\r\n</r>\r\n");
    EXPECT_EQ(Run({"print", "--indent", "0", path}).strOut, Read(path));
    EXPECT_EQ(Run({"get", path, "r.a"}).strOut, "\u20AC \U0001F600\n");
    EXPECT_EQ(Run({"get", path, "R.A", "n"}).strOut, "\u017C\n");
    EXPECT_THAT(Run({"get", path, "r.a", "m"}).strErr, StartsWith("error 1168: r.a m: "));
    EXPECT_THAT(Run({"print", Write("b.xml", "<r a='\xE9'/>")}).strErr, StartsWith("error 1113: "));
    EXPECT_EQ(Run({"print", "--ansi", "--indent", "0", (m_folder / "b.xml").string()}).strOut, "<r a=\"\xE9\"/>");
}

TEST_F(Xml, ChecksAndMerges)
{
    std::string const first = Write("a.xml", "<r><one/></r>");
    std::string const second = Write("b.xml", "<r><one/><two/></r>");
    Result const bad = Run({"check", first, Write("c.xml", "<r>\n <a></b>\n</r>"), (m_folder / "none").string()});
    EXPECT_EQ(bad.nStatus, 1);
    EXPECT_THAT(bad.strErr, HasSubstr("c.xml:2:5: "));
    EXPECT_THAT(bad.strErr, HasSubstr("error 2: "));
    EXPECT_EQ(Run({"check", first, second}).nStatus, 0);
    EXPECT_THAT(Run({"check", Write("e.xml", "<r/> <!-- > -->\n <junk")}).strErr, HasSubstr("e.xml:2:2: "));
    std::string const blanks = Write("f.xml", "<r a=\"x&#10;y\">&#32;a&#10;b&#9;</r>");
    EXPECT_EQ(Run({"print", "--indent", "0", blanks}).strOut, Read(blanks));

    std::string const third = Write("g.xml", "<r/>");
    EXPECT_EQ(Run({"merge", first, second, "--indent", "0", "-o", third}).nStatus, 0);
    EXPECT_EQ(Read(third), "<r><one/><two/></r>");
    if (!host::IsWindows()) // links, modes and full disks (2026-11-22)
    {
        fs::create_symlink("g.xml", m_folder / "link.xml");
        fs::permissions(third, fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_EQ(Run({"merge", second, first, "--indent", "0", "-o", (m_folder / "link.xml").string()}).nStatus, 0);
        EXPECT_EQ(Read(third), "<r><one/><two/></r>");
        EXPECT_TRUE(fs::is_symlink(m_folder / "link.xml"));
        EXPECT_EQ(fs::status(third).permissions(), fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_THAT(Run({"merge", first, second, "-o", "/dev/full"}).strErr, StartsWith("error 112: "));
    }
    EXPECT_THAT(Run({"merge", first, Write("d.xml", "<other/>"), "-o", third}).strErr, StartsWith("error 13: "));
    EXPECT_EQ(Read(third), "<r><one/><two/></r>");
    EXPECT_EQ(Run({"merge", first}).nStatus, 2);
}
} // namespace
