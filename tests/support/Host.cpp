#include "Host.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace host
{
namespace
{
constexpr std::string_view REPORT = "report: ";
}

void RemoveFolder(std::string const & name)
{
    namespace fs = std::filesystem;
    std::error_code failed;
    fs::path const folder = ToPath(name);
    std::error_code ignored;
    for (fs::recursive_directory_iterator entry(folder, ignored); entry != end(entry); entry.increment(ignored))
    {
        if (!entry->is_symlink(ignored))
        {
            fs::permissions(entry->path(), fs::perms::owner_write, fs::perm_options::add, ignored);
        }
    }
    fs::remove_all(folder, failed);
    EXPECT_FALSE(failed) << name << ": " << failed.message();
}

void Report(std::string_view text)
{
    // At the start of a line, whatever the test framework has written.
    std::string const line = "\n" + std::string(REPORT) + std::string(text) + "\n";
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

std::string Process::ReadLine() const
{
    std::string line;
    TakeLine(line);
    return line;
}

std::string Process::ReadReport() const
{
    for (std::string line; TakeLine(line);)
    {
        if (line.starts_with(REPORT))
        {
            std::size_t const end = line.ends_with('\r') ? line.size() - 1 : line.size();
            return line.substr(REPORT.size(), end - REPORT.size());
        }
    }
    return {};
}
} // namespace host
