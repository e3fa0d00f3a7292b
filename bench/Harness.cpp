#include "Harness.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char ** environ;

namespace bench
{
double Since(Clock::time_point start)
{
    return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

double Median(std::vector<double> values)
{
    if (values.empty())
    {
        Fail("no samples");
    }
    auto const middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double Settled(std::span<double const> samples)
{
    constexpr std::size_t STRETCHES = 3;
    if (samples.size() < 3 * STRETCHES)
    {
        return Median({samples.begin(), samples.end()});
    }
    std::array<double, STRETCHES> medians{};
    for (std::size_t i = 0; i < STRETCHES; ++i)
    {
        auto const from = samples.size() * i / STRETCHES;
        auto const part = samples.subspan(from, samples.size() * (i + 1) / STRETCHES - from);
        medians[i] = Median({part.begin(), part.end()});
    }
    return std::ranges::min(medians);
}

bool Options::Has(std::string_view name) const
{
    return std::ranges::find(m_arguments, "--" + std::string(name)) != m_arguments.end();
}

std::string Options::Get(std::string_view name, std::string const & otherwise) const
{
    std::string const prefix = "--" + std::string(name) + "=";
    for (std::string const & argument : m_arguments)
    {
        if (argument.starts_with(prefix))
        {
            return argument.substr(prefix.size());
        }
    }
    return otherwise;
}

int Options::GetNumber(std::string_view name, int otherwise) const
{
    std::string const text = Get(name, "");
    return text.empty() ? otherwise : std::atoi(text.c_str());
}

namespace
{
std::string Duration(double nanoseconds)
{
    std::array<char, 32> text{};
    if (nanoseconds < 1e4)
    {
        std::snprintf(text.data(), text.size(), "%.1f ns", nanoseconds);
    }
    else if (nanoseconds < 1e7)
    {
        std::snprintf(text.data(), text.size(), "%.2f us", nanoseconds / 1e3);
    }
    else
    {
        std::snprintf(text.data(), text.size(), "%.2f ms", nanoseconds / 1e6);
    }
    return text.data();
}

void PrintCells(std::string const & name, std::string const & ours, std::string const & limit,
                std::string const & ratio, std::string const & target, std::string const & verdict)
{
    std::printf("%-58s %12s %12s %7s %9s  %s\n", name.c_str(), ours.c_str(), limit.c_str(), ratio.c_str(),
                target.c_str(), verdict.c_str());
    std::fflush(stdout);
}

void PrintHead()
{
    static bool const bPrinted = (PrintCells("name", "ours", "limit", "ratio", "target", "met"), true);
    (void)bPrinted;
}

std::string Number(double value, char const * format)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), format, value);
    return text.data();
}
} // namespace

void PrintRow(Row const & row)
{
    PrintHead();
    bool const bAtMost = row.target == Target::AtMost;
    double const ratio = bAtMost ? row.nOurs / row.nLimit : row.nLimit / row.nOurs;
    std::string target = "-";
    std::string verdict = "-";
    if (row.nTarget > 0)
    {
        target = (bAtMost ? "<= " : ">= ") + Number(row.nTarget, "%.2f");
        verdict = (bAtMost ? ratio <= row.nTarget : ratio >= row.nTarget) ? "yes" : "NO";
    }
    PrintCells(row.strName, Duration(row.nOurs), Duration(row.nLimit), Number(ratio, "%.2f"), target, verdict);
}

void PrintValue(std::string const & name, double value, double bound, std::string const & unit)
{
    PrintHead();
    bool const bBound = bound > 0;
    PrintCells(name, Number(value, "%.1f ") + unit, "-", "-", bBound ? "<= " + Number(bound, "%.0f") : "-",
               bBound ? (value <= bound ? "yes" : "NO") : "-");
}

void Compare(Row row, int rounds, std::function<double()> const & ours, std::function<double()> const & limit)
{
    std::vector<double> oursRounds;
    std::vector<double> limitRounds;
    ours();
    limit();
    for (int i = 0; i < rounds; ++i)
    {
        // Each goes first in turns, so that neither always runs behind the other.
        for (bool const bOurs : {i % 2 == 0, i % 2 != 0})
        {
            (bOurs ? oursRounds : limitRounds).push_back(bOurs ? ours() : limit());
        }
    }
    row.nOurs = Settled(oursRounds);
    row.nLimit = Settled(limitRounds);
    PrintRow(row);
}

namespace
{
/// False for a thread that has gone meanwhile.
bool PinThread(pid_t thread, int cpu)
{
    static cpu_set_t const all = []
    {
        cpu_set_t set;
        CPU_ZERO(&set);
        ::sched_getaffinity(0, sizeof(set), &set);
        return set;
    }();
    cpu_set_t set = all;
    if (cpu >= 0)
    {
        int left = cpu % CPU_COUNT(&all);
        int number = 0;
        while (!CPU_ISSET(number, &all) || left-- > 0)
        {
            ++number;
        }
        CPU_ZERO(&set);
        CPU_SET(number, &set);
    }
    return ::sched_setaffinity(thread, sizeof(set), &set) == 0;
}
} // namespace

void PinTo(int cpu)
{
    if (!PinThread(0, cpu))
    {
        Fail("cannot pin to a CPU");
    }
}

void PinAllTo(int cpu)
{
    for (auto const & thread : std::filesystem::directory_iterator("/proc/self/task"))
    {
        PinThread(std::stoi(thread.path().filename()), cpu);
    }
}

Child::Child(std::vector<std::string> arguments)
{
    int input[2];
    int output[2];
    if (::pipe2(input, O_CLOEXEC) != 0 || ::pipe2(output, O_CLOEXEC) != 0)
    {
        Fail("no pipe");
    }
    arguments.insert(arguments.begin(), "bench");
    std::vector<char *> argv;
    for (std::string & argument : arguments)
    {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    ::posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    // The child pins itself: where this thread runs is no matter of its.
    cpu_set_t mine;
    CPU_ZERO(&mine);
    ::sched_getaffinity(0, sizeof(mine), &mine);
    PinTo(-1);
    int const error = ::posix_spawn(&m_id, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
    ::sched_setaffinity(0, sizeof(mine), &mine);
    ::posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    ::close(output[1]);
    m_nInput = input[1];
    m_nOutput = output[0];
    if (error != 0)
    {
        Fail("no child process");
    }
}

Child::~Child()
{
    ::close(m_nInput);
    ::close(m_nOutput);
    int status = 0;
    ::waitpid(m_id, &status, 0);
}

std::string Child::ReadLine() const
{
    std::string line;
    char c = 0;
    while (::read(m_nOutput, &c, 1) == 1)
    {
        if (c == '\n')
        {
            return line;
        }
        line += c;
    }
    Fail("the child process has ended: " + line);
}

void SayLine(std::string const & line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

void WaitForParent()
{
    char c = 0;
    while (::read(STDIN_FILENO, &c, 1) > 0)
    {
    }
}

double ResidentMemory(pid_t process)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    std::string line;
    while (std::getline(status, line))
    {
        if (line.starts_with("VmRSS:"))
        {
            return std::atof(line.c_str() + 6) * 1024;
        }
    }
    Fail("no memory figures");
}

void Fail(std::string const & text)
{
    std::fprintf(stderr, "bench: %s\n", text.c_str());
    std::_Exit(1);
}
} // namespace bench
