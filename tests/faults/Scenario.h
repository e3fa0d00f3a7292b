#pragma once

/// What a scenario is: something small and whole that the library does, which can be done again and again.

#include "kvx/platform/mfc/Afx.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace faults
{
/// The library did what it must not, whatever failed: a wrong answer, a failure without a reason, an exception out of a
/// call that has none.
struct Fault
{
    std::string strText;
};

/// The library said clearly that it couldn't.
struct Refusal
{
    std::string strText;
};

class Scenario
{
public:
    Scenario() = default;
    Scenario(Scenario const &) = delete;
    Scenario & operator=(Scenario const &) = delete;
    virtual ~Scenario() = default;

    /// Does it, and looks at the outcome. A Refusal, or an exception of the library's, is how it may fail while a call
    /// fails; a Fault never is.
    virtual void Run() = 0;
    /// How often in a row it may be refused, behind a call that has failed, before it works again: a connection that
    /// broke fails the request that finds out.
    virtual int GetAfterEffects() const { return 0; }
    /// Whether the process holds more behind each run, as it is meant.
    virtual bool MayGrow() const { return false; }
};

struct Description
{
    char const * name;
    std::unique_ptr<Scenario> (*make)();
};

/// All scenarios, in the order of the families.
std::vector<Description> GetScenarios();
std::vector<Description> GetRoadScenarios();
std::vector<Description> GetServiceScenarios();
std::vector<Description> GetThreadScenarios();
std::vector<Description> GetStorageScenarios();

template <class SCENARIO>
std::unique_ptr<Scenario> Make()
{
    return std::make_unique<SCENARIO>();
}

/// A folder of the running process's own, in UTF-8.
std::string const & GetFolder();

/// A Fault unless `bRight`.
void Expect(bool bRight, char const * what);
/// Waits until something has come true, for as long as a busy machine may need. Whether it has.
bool Await(std::function<bool()> const & condition, DWORD timeout = 20000);
/// Whether a call is about to fail, or has failed since Run began: then what gives no answer needn't arrive.
bool IsInjected();
/// The work must not throw anything, as a call must whose failure is a result.
template <class WORK>
auto NoThrow(char const * what, WORK const & work)
{
    try
    {
        return work();
    }
    catch (CException *)
    {
        throw Fault{std::string(what) + " has thrown a CException"};
    }
    catch (std::exception const & failure)
    {
        throw Fault{std::string(what) + " has thrown " + failure.what()};
    }
}
/// A Refusal by the thread's last error; a Fault if there is none.
[[noreturn]] void Refuse(char const * what);
/// The call throws nothing and gives true, or fails with a last error.
template <class CALL>
void Done(CALL const & call, char const * what)
{
    SetLastError(0);
    if (!NoThrow(what, call))
    {
        Refuse(what);
    }
}
} // namespace faults
