#include "Host.h"
#include "OneHost.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>

#include <fcntl.h>
#include <malloc.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <pty.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace
{
std::size_t CountEntries(char const * folder)
{
    fs::directory_iterator const all(folder);
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

bool IsAsleep(unsigned long thread)
{
    std::ifstream stat("/proc/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(stat, text);
    auto const end = text.rfind(')');
    return end != text.npos && text[end + 2] == 'S';
}

std::string ReadToEnd(int file)
{
    std::string text;
    std::array<char, 65536> buffer{};
    for (ssize_t got = 0; (got = read(file, buffer.data(), buffer.size())) > 0;)
    {
        text.append(buffer.data(), static_cast<std::size_t>(got));
    }
    return text;
}

/// The end that the test reads, and the process's.
std::array<int, 2> OpenStdout(host::Stdout kind)
{
    std::array<int, 2> ends{-1, -1};
    if (kind == host::Stdout::Terminal)
    {
        termios raw{};
        cfmakeraw(&raw);
        EXPECT_EQ(openpty(&ends[0], &ends[1], nullptr, &raw, nullptr), 0);
        fcntl(ends[0], F_SETFD, FD_CLOEXEC);
        fcntl(ends[1], F_SETFD, FD_CLOEXEC);
    }
    else
    {
        EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    }
    if (kind == host::Stdout::Abandoned)
    {
        close(std::exchange(ends[0], open("/dev/null", O_RDONLY | O_CLOEXEC)));
    }
    if (kind == host::Stdout::Full)
    {
        close(std::exchange(ends[1], open("/dev/full", O_WRONLY | O_CLOEXEC)));
    }
    return ends;
}

Strings GetEnvironment(host::Process::Variables const & own)
{
    Strings all;
    for (auto const & [name, value] : own)
    {
        all.push_back(std::string(name) + "=" + value);
    }
    for (char ** one = environ; *one; ++one)
    {
        std::string_view const text = *one;
        std::string_view const name = text.substr(0, text.find('='));
        if (std::none_of(own.begin(), own.end(), [&](auto const & variable) { return name == variable.first; }))
        {
            all.emplace_back(text);
        }
    }
    return all;
}

std::vector<char *> ToPointers(Strings & texts)
{
    std::vector<char *> pointers;
    for (std::string & text : texts)
    {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}
} // namespace

namespace host
{
bool IsWindows()
{
    return false;
}

bool IsWine()
{
    return false;
}

std::string MakeFolder(std::string const & name)
{
    std::string folder = testing::TempDir() + name + "-XXXXXX";
    if (!mkdtemp(folder.data()))
    {
        throw std::runtime_error("cannot make " + folder);
    }
    return folder;
}

std::string TakeHome(std::string const & folder)
{
    fs::create_directories(folder + "/home/.config");
    fs::create_directories(folder + "/tmp");
    SetVariable("KVX_DRIVE_C", (folder + "/c").c_str());
    SetVariable("HOME", (folder + "/home").c_str());
    SetVariable("TMPDIR", (folder + "/tmp").c_str());
    SetVariable("PATH", (folder + "/bin::/usr/bin").c_str());
    for (char const * const name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "TEMP", "TMP", "PATHEXT",
                                    "SystemRoot", "ProgramFiles", "CommonProgramFiles"})
    {
        SetVariable(name, nullptr);
    }
    return folder + "/c";
}

bool MakeLink(std::string const & target, std::string const & link, bool)
{
    fs::create_symlink(target, link);
    return true;
}

void SetVariable(char const * name, char const * value)
{
    value ? setenv(name, value, 1) : unsetenv(name);
}

std::string GetProgram()
{
    return fs::canonical("/proc/self/exe").string();
}

std::string GetModuleFile(std::string const & target)
{
    return "lib" + target + ".so";
}

bool IsMapped(std::string const & file)
{
    std::ifstream maps("/proc/self/maps");
    return std::string(std::istreambuf_iterator<char>(maps), {}).find(file) != std::string::npos;
}

bool AllowThreads(bool bAllow)
{
    static pthread_attr_t s_attributes = []
    {
        pthread_attr_t attributes;
        pthread_getattr_default_np(&attributes);
        return attributes;
    }();
    pthread_attr_t absurd = s_attributes;
    pthread_attr_setstacksize(&absurd, std::size_t{1} << 46);
    return pthread_setattr_default_np(bAllow ? &s_attributes : &absurd) == 0;
}

void SpoilFreedMemory(bool bSpoil)
{
    mallopt(M_PERTURB, bSpoil ? 0xA5 : 0);
}

void UseOneHeap()
{
    mallopt(M_ARENA_MAX, 1);
}

void MakeDeepFolder(std::string const & folder, std::string const & name, int depth)
{
    int at = open(folder.c_str(), O_RDONLY | O_DIRECTORY);
    for (int i = 0; i < depth; ++i)
    {
        EXPECT_EQ(mkdirat(at, name.c_str(), 0700), 0);
        close(std::exchange(at, openat(at, name.c_str(), O_RDONLY | O_DIRECTORY)));
    }
    close(openat(at, "leaf", O_CREAT | O_WRONLY, 0600));
    close(at);
}

std::size_t CountHandles()
{
    return CountEntries("/proc/self/fd");
}

std::size_t CountThreads()
{
    return CountEntries("/proc/self/task");
}

void WaitUntilAsleep(std::vector<unsigned long> const & threads)
{
    // A single look could meet one that sleeps on a lock which another of them has: all have to be found asleep twice.
    for (int nQuiet = 0; nQuiet < 2; std::this_thread::yield())
    {
        nQuiet = std::all_of(threads.begin(), threads.end(), IsAsleep) ? nQuiet + 1 : 0;
    }
}

struct Process::Parts
{
    pid_t nPid = -1;
    int nOut = -1;
    int nErr = -1;

    void Signal(int signal) const
    {
        if (nPid > 0)
        {
            kill(nPid, signal);
        }
    }
};

Process::Process(Strings const & words, Stdout kind, Variables const & variables, std::string const & input, End)
    : m_parts(std::make_unique<Parts>())
{
    m_parts->nErr = memfd_create("stderr", MFD_CLOEXEC);
    std::array<int, 2> out = OpenStdout(kind);
    Strings arguments = words;
    Strings environment = GetEnvironment(variables);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, kind == Stdout::Terminal ? out[1] : m_parts->nErr, STDERR_FILENO);
    kind == Stdout::Closed ? posix_spawn_file_actions_addclose(&actions, STDOUT_FILENO)
                           : posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    if (!input.empty())
    {
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
    }
    int const error = posix_spawn(&m_parts->nPid, words.at(0).c_str(), &actions, nullptr, ToPointers(arguments).data(),
                                  ToPointers(environment).data());
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    m_parts->nOut = out[0];
    if (error != 0)
    {
        m_parts->nPid = -1;
        close(m_parts->nOut);
        close(m_parts->nErr);
        throw std::runtime_error("cannot start " + words.at(0));
    }
}

Process::~Process()
{
    Kill();
    close(m_parts->nOut);
    close(m_parts->nErr);
}

bool Process::TakeLine(std::string & line) const
{
    line.clear();
    for (char c = 0; read(m_parts->nOut, &c, 1) == 1;)
    {
        if (c == '\n')
        {
            return true;
        }
        line += c;
    }
    return false;
}

std::string Process::PeekErr() const
{
    std::string text(1 << 20, 0);
    ssize_t const got = pread(m_parts->nErr, text.data(), text.size(), 0); // the place to write at is the program's
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
}

bool Process::HasEnded() const
{
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(m_parts->nPid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == m_parts->nPid;
}

int Process::Wait()
{
    strOut = ReadToEnd(m_parts->nOut);
    int status = 0;
    waitpid(std::exchange(m_parts->nPid, -1), &status, 0);
    lseek(m_parts->nErr, 0, SEEK_SET);
    strErr = ReadToEnd(m_parts->nErr);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

void Process::Interrupt() const
{
    m_parts->Signal(SIGINT);
}

void Process::Terminate() const
{
    m_parts->Signal(SIGTERM);
}

int Process::Kill()
{
    if (m_parts->nPid <= 0)
    {
        return 0;
    }
    m_parts->Signal(SIGKILL);
    return Wait();
}

void Process::Stop() const
{
    m_parts->Signal(SIGSTOP);
}

void Process::Continue() const
{
    m_parts->Signal(SIGCONT);
}

unsigned long Process::GetId() const
{
    return static_cast<unsigned long>(m_parts->nPid);
}

long Process::GetMemory() const
{
    std::ifstream status("/proc/" + std::to_string(m_parts->nPid) + "/status");
    std::string word;
    while (status >> word && word != "VmRSS:")
    {
    }
    long kilobytes = 0;
    EXPECT_TRUE(status >> kilobytes);
    return kilobytes / 1024;
}

RawClient::RawClient(int port) : m_nSocket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    int const socket = static_cast<int>(m_nSocket);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    timeval const patience{10, 0};
    int const on = 1;
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    EXPECT_EQ(connect(socket, reinterpret_cast<sockaddr const *>(&address), sizeof(address)), 0);
}

RawClient::~RawClient()
{
    close(static_cast<int>(m_nSocket));
}

void RawClient::Send(std::string_view bytes) const
{
    // All are few enough for the socket's buffer; that the server has ended the link meanwhile is one of the cases.
    send(static_cast<int>(m_nSocket), bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

void RawClient::EndSending() const
{
    shutdown(static_cast<int>(m_nSocket), SHUT_WR);
}

std::string RawClient::Receive(std::size_t count) const
{
    std::string bytes(count, 0);
    ssize_t const got = recv(static_cast<int>(m_nSocket), bytes.data(), count, MSG_WAITALL);
    bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return bytes;
}

bool RawClient::IsEnded() const
{
    char c = 0;
    ssize_t got = 0;
    while ((got = recv(static_cast<int>(m_nSocket), &c, 1, 0)) > 0)
    {
    }
    return got == 0 || errno == ECONNRESET;
}
} // namespace host
