#include "Process.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <stdexcept>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

Process::Process(std::vector<std::string> const & args)
{
    std::array<int, 2> out{};
    std::array<int, 2> err{};
    if (pipe2(out.data(), O_CLOEXEC) != 0 || pipe2(err.data(), O_CLOEXEC) != 0)
    {
        throw std::runtime_error("pipe2");
    }
    setenv("TZ", "UTC", 1); // so that the tests know what local time is
    std::string program = KVX_PROGRAM;
    std::vector<std::string> words = args;
    std::vector<char *> argv{program.data()};
    for (std::string & word : words)
    {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    int const error = posix_spawn(&m_nPid, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    m_nOut = out[0];
    m_nErr = err[0];
    if (error != 0)
    {
        m_bWaited = true;
        throw std::runtime_error("cannot start " + program);
    }
}

Process::~Process()
{
    if (!m_bWaited)
    {
        Signal(SIGKILL);
        Wait();
    }
    close(m_nOut);
    close(m_nErr);
}

std::string Process::ReadLine()
{
    std::string line;
    for (char c = 0; read(m_nOut, &c, 1) == 1 && c != '\n';)
    {
        line += c;
    }
    return line;
}

void Process::Signal(int signal) const
{
    kill(m_nPid, signal);
}

int Process::Wait()
{
    std::array<pollfd, 2> ends{{{m_nOut, POLLIN, 0}, {m_nErr, POLLIN, 0}}};
    std::array<char, 65536> buffer{};
    while (ends[0].fd >= 0 || ends[1].fd >= 0)
    {
        poll(ends.data(), ends.size(), -1);
        for (pollfd & end : ends)
        {
            if (end.fd >= 0 && end.revents != 0)
            {
                ssize_t const got = read(end.fd, buffer.data(), buffer.size());
                (&end == ends.data() ? strOut : strErr).append(buffer.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
                end.fd = got > 0 ? end.fd : -1;
            }
        }
    }
    int status = 0;
    waitpid(m_nPid, &status, 0);
    m_bWaited = true;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Result RunKvx(std::vector<std::string> const & args)
{
    Process process(args);
    int const status = process.Wait();
    return {status, process.strOut, process.strErr};
}
