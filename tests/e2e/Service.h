#pragma once

#include "Process.h"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

struct RowSet
{
    std::string strName;
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows;
};

/// What `--format json` says, read strictly: anything but the documented form throws.
struct Response
{
    long long nCode = 0;
    std::string strText;
    std::vector<RowSet> rowSets;

    explicit Response(std::string_view json);
};

/// A running `kvx serve` on a port of its own.
class Service
{
public:
    explicit Service(std::vector<std::string> const & options = {});

    /// The configuration that it has told by its READY line.
    std::string const & GetAddress() const { return m_strAddress; }
    int GetPort() const { return m_nPort; }
    Process & GetProcess() { return *m_process; }

    /// `kvx call` of it, with the response as JSON.
    Response Call(std::vector<std::string> const & words) const;
    /// The same with the options and formats as given.
    Result CallRaw(std::vector<std::string> const & words) const;
    /// Resident memory in MB.
    long GetMemory() const;
    /// Asks it to end; its exit status.
    int Stop(int signal = SIGTERM);

private:
    std::unique_ptr<Process> m_process;
    std::string m_strAddress;
    int m_nPort = 0;
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
    for (int i = 0; i < 500; ++i)
    {
        if (condition())
        {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

/// A client that speaks bytes.
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
