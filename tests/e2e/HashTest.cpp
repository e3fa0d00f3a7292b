#include "Service.h"

#include "tests/support/OneHost.h"
#include "tests/support/TestFolder.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace
{
using testing::HasSubstr;
namespace fs = std::filesystem;

class Hash : public TestFolder
{
protected:
    fs::path m_folder = m_strHost;

    std::string Put(std::string const & name, std::string const & content) const
    {
        TestFolder::Put(name, content);
        return (m_folder / name).generic_string();
    }
    static Result Run(Strings const & words) { return RunKvx(Join({"hash"}, words)); }
    static std::string Sum(std::string const & command)
    {
        std::string text;
        if (FILE * const pipe = ::popen(command.c_str(), "r"))
        {
            char piece[4096];
            while (std::size_t const size = std::fread(piece, 1, sizeof piece, pipe))
            {
                text.append(piece, size);
            }
            ::pclose(pipe);
        }
        return text;
    }
};

TEST_F(Hash, LinesAndListsAreThoseOfTheSystemsPrograms)
{
    KVX_LINUX_ALONE("the system's programs, and names with line ends", "2026-11-22");
    std::string const plain = Put("plain", "123456789");
    std::string const line = Put("two\nlines", "x");
    std::string const bytes = Put("odd\xFF bytes", "y");
    std::string const quoted = " '" + plain + "' '" + line + "' '" + bytes + "'";
    EXPECT_EQ(Run({"crc32", plain}).strOut, "cbf43926  " + plain + "\n");
    for (std::string const algorithm : {"md5", "sha1", "sha256"})
    {
        if (std::system(("command -v " + algorithm + "sum >/dev/null").c_str()) != 0)
        {
            continue;
        }
        std::string const sums = Sum(algorithm + "sum" + quoted);
        EXPECT_EQ(Run({algorithm, plain, line, bytes}).strOut, sums);
        for (std::string const option : {"", " --tag", " -b"})
        {
            std::string const list = Put("list", Sum(algorithm + "sum" + option + quoted));
            Result const result = Run({algorithm, "-c", list});
            EXPECT_EQ(result.nStatus, 0) << result.strErr;
            EXPECT_THAT(result.strOut, HasSubstr(plain + ": OK\n"));
            EXPECT_THAT(result.strOut, HasSubstr("two\\nlines: OK\n"));
            EXPECT_THAT(result.strOut, HasSubstr(bytes + ": OK\n"));
        }
    }
}

TEST_F(Hash, ChecksCountWhatIsWrong)
{
    std::string const file = Put("file", "abc");
    std::string const missing = (m_folder / "missing").generic_string();
    std::string const digest = "900150983cd24fb0d6963f7d28e17f72";
    std::string const other = "A" + digest.substr(1);
    std::string const list = Put("list", "# comment\n\n" + digest + "  " + file + "\r\n" + other + " *" + file + "\n" +
                                             digest + "  " + missing + "\nrubbish\n" + std::string(200000, 'x') +
                                             "\n\\" + digest + "  bad\\escape\n" + digest.substr(1) + "  " + file);
    Result const result = Run({"md5", "--check", list});
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_EQ(result.strOut, file + ": OK\n" + file + ": FAILED\n" + missing + ": FAILED open or read\n");
    EXPECT_THAT(result.strErr, HasSubstr("error 2: " + missing));
    EXPECT_THAT(result.strErr, HasSubstr("warning: 4 lines are malformed\nwarning: 1 listed file could not be read\n"
                                         "warning: 1 digest did NOT match\n"));
    EXPECT_EQ(Run({"sha1", "-c", list}).nStatus, 1);
    EXPECT_EQ(Run({"md5", m_folder.string()}).nStatus, 1);
    EXPECT_EQ(Run({"md4", file}).nStatus, 2);
}

TEST_F(Hash, ATerminalGetsNoCommands)
{
    KVX_LINUX_ALONE("a terminal that the test reads, and names with controls", "2026-11-22");
    std::string const file = Put("red\x1B[31m", "");
    EXPECT_THAT(RunKvx({"hash", "md5", file}, Stdout::Terminal).strOut, HasSubstr("red\\x1B[31m"));
    EXPECT_THAT(Run({"md5", file}).strOut, HasSubstr("red\x1B[31m"));
}
} // namespace
