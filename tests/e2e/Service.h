#pragma once

/// The program under test as child processes.

#include "tests/support/Host.h"

#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <regex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

using host::RawClient;
using host::Stdout;

/// The program, beside this one.
std::string GetKvx();

Strings Join(Strings first, Strings const & second);

/// `kvx` with these arguments.
class Process : public host::Process
{
public:
    explicit Process(Strings const & args, Stdout out = Stdout::Pipe, std::string const & input = {});
    /// Another host's, by the words that start it.
    Process(Strings const & program, Strings const & args, Stdout out = Stdout::Pipe, std::string const & input = {},
            host::End end = host::End::Any);
};

struct Result
{
    int nStatus = 0;
    std::string strOut;
    std::string strErr;
};

/// Runs the program to its end.
Result RunKvx(Strings const & args, Stdout out = Stdout::Pipe, std::string const & input = {},
              Strings const & program = {GetKvx()});

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
    explicit Service(Strings const & options = {}, Strings const & listeners = {"tcp:127.0.0.1:0"},
                     Strings const & program = {GetKvx()});

    /// `kvx call` of it, with the response as JSON. Checks that exit status and error line agree with it.
    Response Call(Strings const & words) const;
    /// The one cell of such a response.
    std::string CallForValue(Strings const & words) const { return Call(words).rowSets.at(0).rows.at(0).at(0); }
    /// Asks it to end, as the system does; its exit status.
    int Stop();

    Process process;
    Strings addresses;      // as its READY lines tell, in no fixed order
    std::string strAddress; // the first one
    int nPort = 0;          // of TCP
};

/// A folder, and a registry: one of the test's own, or of this host, of which it has some keys.
class OwnRegistry
{
public:
    OwnRegistry();
    OwnRegistry(OwnRegistry const &) = delete;
    ~OwnRegistry();

    std::string strFolder;

private:
    static void Clear();
};

/// A regular expression for the whole text.
MATCHER_P(IsLike, pattern, "")
{
    return std::regex_match(std::string(arg), std::regex(pattern));
}

/// One for a part of it.
MATCHER_P(HasLike, pattern, "")
{
    return std::regex_search(std::string(arg), std::regex(pattern));
}

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
