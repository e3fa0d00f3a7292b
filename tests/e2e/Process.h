#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

/// The program under test as a child process. One that still runs at the end is killed.
class Process
{
public:
    explicit Process(std::vector<std::string> const & args);
    Process(Process const &) = delete;
    Process & operator=(Process const &) = delete;
    ~Process();

    pid_t GetPid() const { return m_nPid; }
    /// The next line of its stdout, without the line end; what there is if it ends before.
    std::string ReadLine();
    void Signal(int signal) const;
    /// Waits for its end: the exit status, or minus the signal that ended it. What it wrote is then in the two texts.
    int Wait();

    std::string strOut;
    std::string strErr;

private:
    pid_t m_nPid = -1;
    int m_nOut = -1;
    int m_nErr = -1;
    bool m_bWaited = false;
};

struct Result
{
    int nStatus;
    std::string strOut;
    std::string strErr;
};

/// Runs the program to its end.
Result RunKvx(std::vector<std::string> const & args);
