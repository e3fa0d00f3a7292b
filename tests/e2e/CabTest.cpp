#include "Service.h"

#include "tests/support/OneHost.h"
#include "tests/support/TestFolder.h"

#include <filesystem>
#include <fstream>
#include <map>

namespace
{
using testing::HasSubstr;
namespace fs = std::filesystem;

class Cab : public TestFolder
{
protected:
    fs::path m_folder = m_strHost;
    std::string m_archive = (m_folder / "a.cab").string();

    Cab()
    {
        fs::create_directories(m_folder / "in/deep/er");
        Put("in/text.txt", std::string(100000, 't'));
        Put("in/deep/er/j\xC3\xB6rg", "name");
        Put("in/deep/left.o", "out");
        Put("in/empty", "");
        Put("in/run", "#!/bin/sh\n");
        fs::permissions(m_folder / "in/run", fs::perms::owner_exec, fs::perm_options::add);
    }
    static Result Run(Strings const & words) { return RunKvx(Join({"cab"}, words)); }
    Result Create(Strings const & words) const
    {
        return Run(Join({"create", m_archive, "-C", m_folder.string()}, words));
    }
    static std::map<std::string, std::string> ReadFolder(fs::path const & folder)
    {
        std::map<std::string, std::string> files;
        for (fs::directory_entry const & entry : fs::recursive_directory_iterator(folder))
        {
            if (entry.is_regular_file() && entry.path().extension() != ".o")
            {
                std::ifstream file(entry.path(), std::ios::binary);
                files[entry.path().lexically_relative(folder).generic_string()].assign(
                    std::istreambuf_iterator<char>(file), {});
            }
        }
        return files;
    }
    static bool IsProgram(fs::path const & file)
    {
        return (fs::status(file).permissions() & fs::perms::owner_exec) != fs::perms::none;
    }
    bool IsSame(std::string const & out) const { return ReadFolder(m_folder / "in") == ReadFolder(out); }
};

TEST_F(Cab, WhatGoesInComesOut)
{
    std::string const out = (m_folder / "out").string();
    for (Strings const & how :
         {Strings{"--none"}, Strings{"--mszip", "--level", "best"}, Strings{"--lzx=16", "-j", "3"},
          Strings{"--lzx", "--folder-size", "10"}, Strings{"--none", "--max-size", "40K"}})
    {
        fs::remove_all(out);
        EXPECT_EQ(Create(Join({"in", "--exclude", "*.o"}, how)).nStatus, 0) << how[0];
        EXPECT_THAT(Run({"test", m_archive}).strOut, HasSubstr("4 files, 100014 bytes: whole"));
        EXPECT_EQ(Run({"extract", m_archive, "-C", out}).nStatus, 0);
        EXPECT_TRUE(IsSame(out + "/in")) << how[0];
        EXPECT_EQ(IsProgram(out + "/in/run"), IsProgram(m_folder / "in/run"));
    }
    EXPECT_TRUE(fs::exists(m_folder / "a3.cab"));
    EXPECT_EQ(Run({"test", ""}).nStatus, 1);
    EXPECT_EQ(Run({"create", "--exclude", "*.o", m_archive, "-C", m_folder.string(), "in"}).nStatus, 0);
    Create({"./in/", "--exclude", "in/deep/"});
    EXPECT_THAT(Run({"test", m_archive}).strOut, HasSubstr("3 files"));
    Create({"in"});
    if (!host::IsWindows()) // where names are characters (2026-11-22)
    {
        Put("in/j\xF6rg", "Latin 1");
        Put("in/j\xC3\xB6rg", "UTF-8");
        EXPECT_THAT(Create({"in"}).strErr, HasSubstr("the same as another one"));
        fs::remove(m_folder / "in/j\xF6rg");
    }
    EXPECT_THAT(Run({"list", m_archive, "--format", "csv"}).strOut, HasSubstr("in/deep/er/j\xC3\xB6rg,4,"));
    EXPECT_EQ(Run({"extract", m_archive, "-C", (m_folder / "some").string(), "in/deep", "nothing"}).nStatus, 1);
    EXPECT_TRUE(fs::exists(m_folder / "some/in/deep/er"));
    EXPECT_FALSE(fs::exists(m_folder / "some/in/text.txt"));
}

TEST_F(Cab, NothingIsWrittenOutsideOrThroughLinks)
{
    KVX_LINUX_ALONE("links that anybody may make", "2026-11-22");
    // Names are bytes of the same length: one character differs.
    Put("in/xx", "up");
    Put("in/lnk", "through");
    Create({"--none", "in/xx", "in/lnk"});
    std::string bytes;
    {
        std::ifstream file(m_archive, std::ios::binary);
        bytes.assign(std::istreambuf_iterator<char>(file), {});
    }
    bytes.replace(bytes.find("in\\xx"), 5, "..\\xx");
    std::ofstream(m_archive, std::ios::binary) << bytes;
    std::string const out = (m_folder / "out").string();
    fs::create_directories(out + "/real");
    fs::create_directory_symlink(m_folder / "out/real", out + "/in");
    Result const result = Run({"extract", m_archive, "-C", out});
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strErr, HasSubstr("../xx: leads out of the folder"));
    EXPECT_THAT(result.strErr, HasSubstr("in/lnk: a link or a file is in its way"));
    EXPECT_FALSE(fs::exists(m_folder / "xx"));
    EXPECT_TRUE(fs::is_empty(out + "/real"));
    // A link in the place of a file goes itself.
    fs::remove(out + "/in");
    fs::create_directory(out + "/in");
    fs::create_symlink(m_folder / "in/text.txt", out + "/in/lnk");
    Run({"extract", m_archive, "-C", out});
    EXPECT_FALSE(fs::is_symlink(out + "/in/lnk"));
    EXPECT_EQ(fs::file_size(m_folder / "in/text.txt"), 100000u);
    bytes.replace(bytes.find("..\\xx"), 5, "C:\\xx");
    std::ofstream(m_archive, std::ios::binary) << bytes;
    EXPECT_THAT(Run({"extract", m_archive, "-C", out}).strErr, HasSubstr("C:/xx: written as xx"));
}

TEST_F(Cab, FailuresLeaveNoHalfFiles)
{
    Put("a.cab", "the old one");
    EXPECT_EQ(Create({"in/nowhere"}).nStatus, 1);
    EXPECT_EQ(Create({"in", "--max-size", "100"}).nStatus, 1); // too small for anything
    EXPECT_EQ(fs::file_size(m_archive), 11u);
    Result const part = Create({"in", "in/nowhere"});
    EXPECT_EQ(part.nStatus, 1);
    EXPECT_THAT(part.strErr, HasSubstr("in/nowhere"));
    EXPECT_THAT(Run({"test", m_archive}).strOut, HasSubstr("5 files"));
    // Damage in the last file's data: those before are there, and nothing of it.
    Create({"--none", "in/run", "in/text.txt"});
    std::fstream(m_archive, std::ios::binary | std::ios::in | std::ios::out).seekp(-10, std::ios::end) << 'x';
    Result const damaged = Run({"extract", m_archive, "-C", (m_folder / "out").string()});
    EXPECT_EQ(damaged.nStatus, 1);
    EXPECT_THAT(damaged.strErr, HasSubstr("damaged"));
    EXPECT_TRUE(fs::exists(m_folder / "out/in/run"));
    auto const left = fs::directory_iterator(m_folder / "out/in");
    EXPECT_EQ(std::distance(begin(left), end(left)), 1);
    for (auto const & entry : fs::directory_iterator(m_folder))
    {
        EXPECT_EQ(entry.path().filename().string().find(".new-"), std::string::npos);
    }
}
} // namespace
