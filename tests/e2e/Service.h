#pragma once

/// The program under test as child processes, and a client that speaks bytes.

#include <chrono>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

using Strings = std::vector<std::string>;

Strings Join(Strings first, Strings const & second);

/// What a process has for its stdout.
enum class Stdout
{
    Pipe,      // which the test reads
    Terminal,  // which the test reads, and which is its stderr too
    Abandoned, // a pipe that nobody reads any more
    Full,      // a disk without space
    Closed
};

/// `kvx` with these arguments. One that still runs at the end is killed.
class Process
{
public:
    explicit Process(Strings const & args, Stdout out = Stdout::Pipe);
    Process(Process const &) = delete;
    Process & operator=(Process const &) = delete;
    ~Process();

    /// The next line of its stdout, without the line end; what there is if it ends before.
    std::string ReadLine() const;
    /// What it has written to stderr so far.
    std::string PeekErr() const;
    bool HasEnded() const;
    /// Waits for its end: the exit status, or minus the signal that ended it. What it wrote is then in the two texts.
    int Wait();

    pid_t nPid = -1;
    std::string strOut;
    std::string strErr;

private:
    int m_nOut = -1;
    int m_nErr = -1;
};

struct Result
{
    int nStatus;
    std::string strOut;
    std::string strErr;
};

/// Runs the program to its end.
Result RunKvx(Strings const & args, Stdout out = Stdout::Pipe);

struct RowSet
{
    std::string strName;
    Strings columns;
    std::vector<Strings> rows;
};

/// What `--format json` says, read strictly: anything but the documented form throws.
struct Response
{
    explicit Response(std::string_view json);

    long long nCode = 0;
    std::string strText;
    std::vector<RowSet> rowSets;
};

/// A running `kvx serve`, on a port of its own if nothing else is said.
class Service
{
public:
    explicit Service(Strings const & options = {}, Strings const & listeners = {"tcp:127.0.0.1:0"});

    /// `kvx call` of it, with the response as JSON. Checks that exit status and error line agree with it.
    Response Call(Strings const & words) const;
    /// The one cell of such a response.
    std::string CallForValue(Strings const & words) const { return Call(words).rowSets.at(0).rows.at(0).at(0); }
    /// Resident memory in MB.
    long GetMemory() const;
    /// Asks it to end; its exit status.
    int Stop(int signal = SIGTERM);

    Process process;
    Strings addresses;      // as its READY lines tell, in no fixed order
    std::string strAddress; // the first one
    int nPort = 0;          // of TCP
};

/// Has the programs use a registry of the test's own.
class RegistryFile
{
public:
    RegistryFile();
    RegistryFile(RegistryFile const &) = delete;
    ~RegistryFile();

    std::string strFolder;
};

class ServiceTest : public testing::Test
{
protected:
    Service m_service;

    void TearDown() override { EXPECT_EQ(m_service.Stop(), 0); }
};

/// Tries until it holds, for 10 seconds at most.
template <class F>
bool Becomes(F const & condition)
{
    bool bHolds = condition();
    for (int i = 0; i < 500 && !bHolds; ++i, bHolds = condition())
    {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return bHolds;
}

class RawClient
{
public:
    explicit RawClient(int port);
    RawClient(RawClient const &) = delete;
    RawClient & operator=(RawClient const &) = delete;
    ~RawClient();

    void Send(std::string_view bytes) const;
    void EndSending() const;
    /// Exactly so many bytes; less at the end of the link, or after 10 seconds of silence.
    std::string Receive(std::size_t count) const;
    /// Whether the server has ended the link, once what it still sends has been read.
    bool IsEnded() const;

private:
    int m_nSocket;
};
