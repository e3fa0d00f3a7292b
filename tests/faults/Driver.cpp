// Fails each call of each scenario once.
//
//   test_faults                          a sample of all
//   test_faults --all                    every call of every scenario
//   test_faults --list                   the scenarios, and how many calls of each kind they make
//   test_faults --scenario X [--call C]  every call of one scenario, or of one kind
//   test_faults --scenario X --call C --n 17
//                                        that call alone, and the stack that it was made from
//
// A scenario runs in a child process of its own, which is this program again: so a crash and a hang are outcomes, and
// nothing that went wrong is there for the next one. The child fails call after call and stops at the first fault; the
// next child goes on behind it.

#include "Child.h"
#include "Scenario.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char ** environ;

namespace faults
{
std::vector<Description> GetScenarios()
{
    std::vector<Description> all;
    for (auto const & family : {GetRoadScenarios(), GetServiceScenarios(), GetThreadScenarios(), GetStorageScenarios()})
    {
        all.insert(all.end(), family.begin(), family.end());
    }
    return all;
}
} // namespace faults

namespace
{
namespace fs = std::filesystem;
using faults::Call;
using Words = std::vector<std::string>;

constexpr int PATIENCE = 30'000; // milliseconds for one run, which takes some

struct Options
{
    bool bList = false;
    bool bAll = false;
    bool bVerbose = false;
    std::string strScenario;
    std::string strCall;
    unsigned long nNumber = 0;
    int nJobs = 2;
    int nSkip = 0; // child: see faults::Task
    bool bChild = false;
    faults::Task task;
};

std::string GetProgram()
{
    return fs::read_symlink("/proc/self/exe").string();
}

/// A folder for a child, which goes with this object.
class ChildFolder
{
public:
    ChildFolder()
    {
        std::string name = (fs::temp_directory_path() / "kvx-faults-XXXXXX").string();
        if (!mkdtemp(name.data()))
        {
            throw std::runtime_error("no folder for a child");
        }
        m_path = name;
        for (char const * const sub : {"home", "tmp", "run"})
        {
            fs::create_directory(m_path / sub);
        }
        fs::permissions(m_path / "run", fs::perms::owner_all);
    }
    ChildFolder(ChildFolder const &) = delete;
    ChildFolder & operator=(ChildFolder const &) = delete;
    ~ChildFolder()
    {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    fs::path const & GetPath() const { return m_path; }
    std::string operator/(char const * name) const { return (m_path / name).string(); }

private:
    fs::path m_path;
};

/// What became of a child.
struct Outcome
{
    unsigned long nRight = 0;
    unsigned long nRefused = 0;
    std::map<std::string, unsigned long> counts;
    std::string strFault;    // empty if there is none
    std::string strStep;     // that it was at
    bool bUntouched = false; // it has come to a run in which nothing failed
    std::string strErr;
};

class ChildProcess
{
public:
    explicit ChildProcess(Words const & words)
    {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0)
        {
            throw std::runtime_error("no pipe for a child");
        }
        m_nOut = ends[0];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (m_folder / "stderr.txt").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addchdir_np(&actions, m_folder.GetPath().c_str());
        std::vector<char *> arguments;
        for (std::string const & word : words)
        {
            arguments.push_back(const_cast<char *>(word.c_str()));
        }
        arguments.push_back(nullptr);
        Words const variables = GetVariables();
        std::vector<char *> environment;
        for (std::string const & variable : variables)
        {
            environment.push_back(const_cast<char *>(variable.c_str()));
        }
        environment.push_back(nullptr);
        int const error =
            posix_spawn(&m_nId, words[0].c_str(), &actions, nullptr, arguments.data(), environment.data());
        posix_spawn_file_actions_destroy(&actions);
        close(ends[1]);
        if (error != 0)
        {
            throw std::runtime_error(std::string("no child: ") + std::strerror(error));
        }
    }
    ChildProcess(ChildProcess const &) = delete;
    ChildProcess & operator=(ChildProcess const &) = delete;
    ~ChildProcess() { close(m_nOut); }

    Outcome Watch()
    {
        std::string line;
        while (ReadLine(line))
        {
            Take(line);
        }
        if (m_bHangs)
        {
            kill(m_nId, SIGKILL);
        }
        int status = 0;
        waitpid(m_nId, &status, 0);
        std::ostringstream err;
        err << std::ifstream(m_folder / "stderr.txt").rdbuf();
        m_outcome.strErr = err.str();
        if (m_bHangs)
        {
            m_outcome.strFault = "hangs";
        }
        else if (WIFSIGNALED(status))
        {
            m_outcome.strFault = std::string("killed: ") + strsignal(WTERMSIG(status));
        }
        else if (WEXITSTATUS(status) != 0 && m_outcome.strFault.empty())
        {
            m_outcome.strFault = "ended with " + std::to_string(WEXITSTATUS(status));
        }
        return m_outcome;
    }

private:
    ChildFolder m_folder;
    int m_nOut = -1;
    pid_t m_nId = 0;
    std::string m_strBuffer;
    bool m_bHangs = false;
    Outcome m_outcome;

    Words GetVariables() const
    {
        std::set<std::string> const own{"HOME",        "TMPDIR",        "KVX_RUNTIME_DIR", "KVX_REGISTRY",
                                        "KVX_DRIVE_C", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"};
        Words variables{"HOME=" + (m_folder / "home"), "TMPDIR=" + (m_folder / "tmp"),
                        "KVX_RUNTIME_DIR=" + (m_folder / "run"), "KVX_REGISTRY=" + (m_folder / "registry.db"),
                        "KVX_DRIVE_C=" + (m_folder / "c")};
        for (char ** variable = environ; *variable; ++variable)
        {
            std::string const text = *variable;
            if (!own.contains(text.substr(0, text.find('='))))
            {
                variables.push_back(text);
            }
        }
        return variables;
    }

    bool ReadLine(std::string & line)
    {
        for (;;)
        {
            if (auto const end = m_strBuffer.find('\n'); end != std::string::npos)
            {
                line = m_strBuffer.substr(0, end);
                m_strBuffer.erase(0, end + 1);
                return true;
            }
            pollfd file{m_nOut, POLLIN, 0};
            if (poll(&file, 1, PATIENCE) == 0)
            {
                m_bHangs = true;
                return false;
            }
            std::array<char, 4096> bytes;
            ssize_t const nRead = read(m_nOut, bytes.data(), bytes.size());
            if (nRead <= 0)
            {
                return false;
            }
            m_strBuffer.append(bytes.data(), static_cast<std::size_t>(nRead));
        }
    }

    void Take(std::string const & line)
    {
        std::istringstream words(line);
        std::string kind;
        std::string what;
        words >> kind >> what;
        if (kind == "begin")
        {
            m_outcome.strStep = what;
        }
        else if (kind == "right")
        {
            ++m_outcome.nRight;
        }
        else if (kind == "refused")
        {
            ++m_outcome.nRefused;
        }
        else if (kind == "untouched")
        {
            m_outcome.bUntouched = true;
        }
        else if (kind == "count")
        {
            words >> m_outcome.counts[what];
        }
        else if (kind == "fault")
        {
            m_outcome.strFault = line.substr(line.find(':') + 2);
        }
    }
};

/// The functions behind lines of "module(+0xoffset)".
std::string Explain(std::string const & err)
{
    std::istringstream lines(err);
    std::string result;
    for (std::string line; std::getline(lines, line);)
    {
        auto const open = line.find('(');
        auto const plus = line.find('+', open);
        auto const close = line.find(')', plus);
        if (!line.starts_with("/") || close == std::string::npos || line[open + 1] != '+')
        {
            result += line + "\n";
            continue;
        }
        std::string const command =
            "addr2line -fipsC -e '" + line.substr(0, open) + "' " + line.substr(plus + 1, close - plus - 1) + " 2>&1";
        if (FILE * const output = popen(command.c_str(), "r"))
        {
            std::array<char, 1024> bytes;
            while (std::fgets(bytes.data(), bytes.size(), output))
            {
                result += "    ";
                result += bytes.data();
            }
            pclose(output);
        }
    }
    return result;
}

std::string GetTail(std::string const & text, std::size_t nLines)
{
    std::deque<std::string> tail;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
    {
        tail.push_back("    " + line + "\n");
        if (tail.size() > nLines)
        {
            tail.pop_front();
        }
    }
    std::string result;
    for (std::string const & line : tail)
    {
        result += line;
    }
    return result;
}

/// Runs children until all that was asked for has been done.
class Campaign
{
public:
    explicit Campaign(Options const & options) : m_options(options) {}

    int Run()
    {
        for (faults::Description const & scenario : faults::GetScenarios())
        {
            if (m_options.strScenario.empty() || m_options.strScenario == scenario.name)
            {
                m_waiting.push_back({scenario.name, ""});
            }
        }
        if (m_waiting.empty())
        {
            std::fprintf(stderr, "no such scenario\n");
            return 2;
        }
        std::vector<std::thread> workers;
        for (int i = 0; i < m_options.nJobs; ++i)
        {
            workers.emplace_back([this] { Work(); });
        }
        for (std::thread & worker : workers)
        {
            worker.join();
        }
        std::printf("%lu runs: %lu right all the same, %lu refused, %lu faults\n", m_nRight + m_nRefused + m_nFaults,
                    m_nRight, m_nRefused, m_nFaults);
        return m_nFaults == 0 ? 0 : 1;
    }

private:
    struct Job
    {
        std::string strScenario;
        std::string strCall; // empty: counts the calls of all kinds, and makes a job of each
    };
    Options const & m_options;
    std::mutex m_lock;
    std::deque<Job> m_waiting;
    int m_nWorking = 0;
    unsigned long m_nRight = 0;
    unsigned long m_nRefused = 0;
    unsigned long m_nFaults = 0;

    /// False when there is nothing left to do. `job` is left alone while others may still find more.
    bool TakeJob(Job & job, bool & bTaken)
    {
        std::scoped_lock const guard(m_lock);
        bTaken = !m_waiting.empty();
        if (bTaken)
        {
            job = m_waiting.front();
            m_waiting.pop_front();
            ++m_nWorking;
        }
        return bTaken || m_nWorking > 0;
    }

    void Work()
    {
        Job job;
        for (bool bTaken = false; TakeJob(job, bTaken);)
        {
            if (!bTaken)
            {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                continue;
            }
            job.strCall.empty() ? Count(job.strScenario) : FailEach(job);
            std::scoped_lock const guard(m_lock);
            --m_nWorking;
        }
    }

    Outcome RunChild(Job const & job, unsigned long nFirst)
    {
        Words words{GetProgram(), "--child",
                    "--scenario", job.strScenario,
                    "--call",     job.strCall.empty() ? "memory" : job.strCall,
                    "--n",        std::to_string(nFirst)};
        if (m_options.nNumber != 0)
        {
            words.insert(words.end(), {"--last", std::to_string(m_options.nNumber), "--show"});
        }
        if (nFirst == 0)
        {
            words.insert(words.end(), {"--last", "0"});
        }
        if (!m_options.bAll && m_options.strScenario.empty())
        {
            words.push_back("--sample");
        }
        return ChildProcess(words).Watch();
    }

    void Count(std::string const & scenario)
    {
        Outcome const outcome = RunChild({scenario, ""}, 0);
        if (!outcome.strFault.empty())
        {
            Tell({scenario, ""}, outcome);
        }
        std::scoped_lock const guard(m_lock);
        std::string line = scenario + ":";
        for (Call call = 0; call < faults::GetCallNames().size(); ++call)
        {
            std::string const name = faults::GetCallNames()[call];
            auto const counted = outcome.counts.find(name);
            if (counted == outcome.counts.end() || counted->second == 0 ||
                (!m_options.strCall.empty() && m_options.strCall != name))
            {
                continue;
            }
            line += " " + name + " " + std::to_string(counted->second);
            if (!m_options.bList)
            {
                m_waiting.push_front({scenario, name});
            }
        }
        if (m_options.bList)
        {
            std::printf("%s\n", line.c_str());
        }
    }

    void FailEach(Job const & job)
    {
        unsigned long nFirst = std::max(m_options.nNumber, 1UL);
        Outcome total;
        for (;;)
        {
            Outcome const outcome = RunChild(job, nFirst);
            total.nRight += outcome.nRight;
            total.nRefused += outcome.nRefused;
            if (!outcome.strFault.empty() || m_options.bVerbose)
            {
                Tell(job, outcome);
            }
            unsigned long const nStep = std::strtoul(outcome.strStep.c_str(), nullptr, 10);
            if (outcome.strFault.empty() || nStep < nFirst || m_options.nNumber != 0)
            {
                break;
            }
            nFirst = nStep + (m_options.bAll || !m_options.strScenario.empty() ? 1 : std::max(nStep / 2, 1UL));
        }
        std::scoped_lock const guard(m_lock);
        m_nRight += total.nRight;
        m_nRefused += total.nRefused;
    }

    void Tell(Job const & job, Outcome const & outcome)
    {
        std::string const err = m_options.nNumber != 0 ? Explain(outcome.strErr) : outcome.strErr;
        std::scoped_lock const guard(m_lock);
        m_nFaults += outcome.strFault.empty() ? 0 : 1;
        std::printf("--scenario %s --call %s --n %s: %s\n%s", job.strScenario.c_str(), job.strCall.c_str(),
                    outcome.strStep.c_str(), outcome.strFault.empty() ? "no fault" : outcome.strFault.c_str(),
                    GetTail(err, m_options.nNumber != 0 ? 200 : 12).c_str());
        std::fflush(stdout);
    }
};

bool Parse(int nWords, char ** words, Options & options)
{
    for (int i = 1; i < nWords; ++i)
    {
        std::string const word = words[i];
        auto const value = [&]() -> char const * { return i + 1 < nWords ? words[++i] : ""; };
        auto const number = [&] { return std::strtoul(value(), nullptr, 10); };
        if (word == "--list")
        {
            options.bList = true;
        }
        else if (word == "--all")
        {
            options.bAll = true;
        }
        else if (word == "--scenario")
        {
            options.strScenario = value();
        }
        else if (word == "--call")
        {
            options.strCall = value();
        }
        else if (word == "--n")
        {
            options.nNumber = options.task.nFirst = number();
        }
        else if (word == "--jobs")
        {
            options.nJobs = std::max(static_cast<int>(number()), 1);
        }
        else if (word == "--child")
        {
            options.bChild = true;
        }
        else if (word == "--last")
        {
            options.task.nLast = number();
        }
        else if (word == "--sample")
        {
            options.task.bSample = true;
        }
        else if (word == "--show")
        {
            options.task.bShow = true;
        }
        else
        {
            return false;
        }
    }
    auto const names = faults::GetCallNames();
    auto const name = std::ranges::find_if(names, [&](char const * each) { return options.strCall == each; });
    options.task.call = static_cast<Call>(name - names.begin());
    return options.strCall.empty() || name != names.end();
}
} // namespace

int main(int nWords, char ** words)
{
    Options options;
    if (!Parse(nWords, words, options))
    {
        std::fprintf(stderr, "usage: test_faults [--all] [--list] [--scenario X] [--call C] [--n N] [--jobs J]\n");
        return 2;
    }
    if (!options.bChild)
    {
        return Campaign(options).Run();
    }
    for (faults::Description const & scenario : faults::GetScenarios())
    {
        if (options.strScenario == scenario.name)
        {
            return faults::RunChild(options.task, scenario);
        }
    }
    return 2;
}
