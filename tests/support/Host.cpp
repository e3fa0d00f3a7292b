#include "Host.h"

#include <cstdio>

namespace host
{
namespace
{
constexpr std::string_view REPORT = "report: ";
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
            return line.substr(REPORT.size());
        }
    }
    return {};
}
} // namespace host
