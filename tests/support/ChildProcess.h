#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

/// A process that runs a program with one more variable. What it writes to that descriptor is read here; it is killed
/// in the end.
class ChildProcess
{
public:
    ChildProcess(std::vector<std::string> words, char const * pszVariable, std::string const & strValue, int nOutput)
    {
        int pipes[2];
        if (pipe2(pipes, O_CLOEXEC) != 0)
            std::abort();
        std::vector<char *> argv;
        for (std::string & strWord : words)
            argv.push_back(strWord.data());
        argv.push_back(nullptr);
        m_nPid = fork();
        if (m_nPid == 0)
        {
            dup2(pipes[1], nOutput);
            setenv(pszVariable, strValue.c_str(), 1);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(pipes[1]);
        m_pOutput = fdopen(pipes[0], "r");
    }
    ~ChildProcess()
    {
        Kill();
        fclose(m_pOutput);
    }

    pid_t GetId() const { return m_nPid; }
    std::string ReadLine() const
    {
        char line[256];
        return fgets(line, sizeof line, m_pOutput) ? std::string(line, std::strcspn(line, "\n")) : "";
    }
    /// The result, or the signal that ended it as a negative number.
    int Wait()
    {
        int nStatus = 0;
        waitpid(std::exchange(m_nPid, -1), &nStatus, 0);
        return WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus);
    }
    int Kill()
    {
        if (m_nPid <= 0)
            return 0;
        kill(m_nPid, SIGKILL);
        return Wait();
    }

private:
    pid_t m_nPid;
    FILE * m_pOutput;
};
