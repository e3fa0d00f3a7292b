#include "Child.h"

#include "Interpose.h"
#include "Scenario.h"

#include "kvx/foundation/AppException.h"
#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <optional>

#include <unistd.h>

extern "C" [[gnu::weak]] int __lsan_do_recoverable_leak_check();

namespace
{
namespace fs = std::filesystem;
using faults::Fault;
using faults::Refusal;

std::string g_strFolder;
std::atomic<bool> g_bInjected{false};

std::string GetMessage(CException * failure)
{
    std::array<WCHAR, 512> text{};
    failure->GetErrorMessage(text.data(), static_cast<UINT>(text.size()));
    failure->Delete();
    return kvx::ToUtf8(CString(text.data()));
}

/// What the process holds besides memory.
struct Holdings
{
    std::size_t nDescriptors = 0;
    std::size_t nThreads = 0;
    std::size_t nHandles = 0;

    static std::size_t CountIn(char const * folder)
    {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(folder), fs::directory_iterator()));
    }
    static Holdings Take()
    {
        return {CountIn("/proc/self/fd"), CountIn("/proc/self/task"), kvx::win32::GetOpenHandleCount()};
    }
    bool HoldsNoMoreThan(Holdings const & other) const
    {
        return nDescriptors <= other.nDescriptors && nThreads <= other.nThreads && nHandles <= other.nHandles;
    }
    std::string GetText() const
    {
        return std::to_string(nDescriptors) + " descriptors, " + std::to_string(nThreads) + " threads, " +
               std::to_string(nHandles) + " handles";
    }
};

/// As many threads of the pool as a scenario can need at once, so that how many it has needs no thought later.
void FillPool()
{
    constexpr int THREADS = 24;
    static CEvent s_go(FALSE, TRUE);
    static std::atomic<int> s_nRunning{0};
    for (int i = 0; i < THREADS; ++i)
    {
        auto const stay = [](void *) -> unsigned int
        {
            ++s_nRunning;
            s_go.Lock(INFINITE);
            --s_nRunning;
            return 0;
        };
        if (!CThreadPool::BeginThread(stay, nullptr, 0))
        {
            throw std::runtime_error("no thread");
        }
    }
    faults::Await([] { return s_nRunning == THREADS; });
    s_go.SetEvent();
    faults::Await([] { return s_nRunning == 0; });
}

/// Nothing if the answer is right, else how it was refused. Throws a Fault.
std::optional<std::string> Attempt(faults::Scenario & scenario)
{
    try
    {
        scenario.Run();
        return std::nullopt;
    }
    catch (Refusal const & refusal)
    {
        return refusal.strText;
    }
    catch (CException * failure)
    {
        return GetMessage(failure);
    }
    catch (Fault const &)
    {
        throw;
    }
    catch (std::bad_alloc const & failure) // out of what says by an exception that it can't
    {
        return failure.what();
    }
    catch (std::exception const & failure)
    {
        throw Fault{std::string("thrown: ") + failure.what()};
    }
    catch (...)
    {
        throw Fault{"thrown: something unknown"};
    }
}

class Runner
{
public:
    Runner(faults::Task const & task, faults::Scenario & scenario) : m_task(task), m_scenario(scenario) {}

    /// Whether the call of that number was made, and so failed. Throws a Fault.
    bool RunWith(unsigned long nNumber)
    {
        constexpr int REPEATS = 4;
        bool const bFailed = Run(nNumber);
        // What grows once may be a cache, in which a failure has left one object more; what grows each time leaks.
        Holdings const first = m_held;
        for (int i = 0; bFailed && !m_scenario.MayGrow() && !HoldsNoMore(); ++i)
        {
            Holdings const now = Holdings::Take();
            if (i == REPEATS)
            {
                throw Fault{"held before: " + first.GetText() + "; and behind " + std::to_string(REPEATS + 1) +
                            " runs: " + now.GetText()};
            }
            m_held = now;
            Run(nNumber);
        }
        return bFailed;
    }

    void WarmUp()
    {
        constexpr int RUNS = 3;
        for (int i = 0; i < RUNS; ++i)
        {
            if (auto const refused = Attempt(m_scenario))
            {
                throw Fault{"refused before anything fails: " + *refused};
            }
        }
        m_held = Holdings::Take();
    }

private:
    faults::Task const & m_task;
    faults::Scenario & m_scenario;
    Holdings m_held;

    bool Run(unsigned long nNumber)
    {
        g_bInjected = true;
        faults::Arm(m_task.call, nNumber, m_task.bShow);
        std::optional<std::string> refused;
        try
        {
            refused = Attempt(m_scenario);
        }
        catch (...)
        {
            faults::Disarm();
            throw;
        }
        bool const bFailed = faults::Disarm();
        g_bInjected = false;
        if (refused && !bFailed)
        {
            throw Fault{"refused, though nothing has failed: " + *refused};
        }
        if (refused && refused->empty())
        {
            throw Fault{"refused without a reason"};
        }
        if (bFailed)
        {
            RunAgain();
            LookForLeaks();
        }
        std::printf("%s %lu%s%s\n",
                    !bFailed  ? "untouched"
                    : refused ? "refused"
                              : "right",
                    nNumber, refused ? ": " : "", refused ? refused->c_str() : "");
        return bFailed;
    }

    /// The same objects work again.
    void RunAgain() const
    {
        constexpr DWORD PAUSE = 50; // milliseconds: a server that had no descriptor has another try by then
        std::optional<std::string> refused = Attempt(m_scenario);
        for (int i = 0; refused && i < m_scenario.GetAfterEffects(); ++i)
        {
            Sleep(PAUSE);
            refused = Attempt(m_scenario);
        }
        if (refused)
        {
            throw Fault{"refused afterwards: " + *refused};
        }
    }
    bool HoldsNoMore() const
    {
        constexpr DWORD SETTLING = 1000; // milliseconds: threads and sessions end by themselves
        return faults::Await([this] { return Holdings::Take().HoldsNoMoreThan(m_held); }, SETTLING);
    }
    static void LookForLeaks()
    {
        if (__lsan_do_recoverable_leak_check && __lsan_do_recoverable_leak_check())
        {
            throw Fault{"memory has leaked"};
        }
    }
};

unsigned long GetNext(faults::Task const & task, unsigned long nNumber)
{
    // In a sample each step is half as long again as the one before.
    return nNumber + (task.bSample ? std::max(nNumber / 2, 1UL) : 1UL);
}

/// The last that the library has logged, to stderr.
void ShowLog()
{
    constexpr std::size_t LINES = 5;
    CLogManager::GetInstance()->Flush(1000);
    std::deque<std::string> last;
    std::ifstream log("log.txt");
    for (std::string line; std::getline(log, line);)
    {
        last.push_back(line);
        if (last.size() > LINES)
        {
            last.pop_front();
        }
    }
    for (std::string const & line : last)
    {
        std::fprintf(stderr, "%s\n", line.c_str());
    }
}

void End()
{
    CMsgDispatcher::GetInstance()->ShutDownNotificationQueue(1);
    CKVXBaseApp::InitShutdown();
    CThreadPool::TerminateAllThreads(20000);
    CLogManager::Terminate();
}
} // namespace

namespace faults
{
std::string const & GetFolder()
{
    return g_strFolder;
}

void Expect(bool bRight, char const * what)
{
    if (!bRight)
    {
        throw Fault{std::string("wrong: ") + what};
    }
}

void Refuse(char const * what)
{
    DWORD const code = GetLastError();
    if (code == 0)
    {
        throw Fault{std::string(what) + " has failed without a reason"};
    }
    throw Refusal{std::string(what) + ": " + kvx::ToUtf8(CWinError(code).GetText())};
}

bool Await(std::function<bool()> const & condition, DWORD timeout)
{
    ULONGLONG const start = GetTickCount64();
    DWORD nPause = 0;
    while (!condition())
    {
        if (GetTickCount64() - start > timeout)
        {
            return false;
        }
        Sleep(nPause);
        nPause = std::min<DWORD>(nPause + 1, 10);
    }
    return true;
}

bool IsInjected()
{
    return g_bInjected;
}

int RunChild(Task const & task, Description const & description)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    g_strFolder = fs::current_path().string();
    CLogManager::GetInstance()->RegisterSink(new CFileLog(CString("log.txt"), 1, LOG_ALL), 1);
    LogInfo(_T("%s"), _T("the log has its thread"));
    CLogManager::GetInstance()->Flush(INFINITE);
    FillPool();
    unsigned long nNumber = task.nFirst;
    int nResult = 0;
    try
    {
        std::unique_ptr<Scenario> const scenario = description.make();
        Runner runner(task, *scenario);
        std::printf("begin 0\n");
        runner.WarmUp();
        for (;;)
        {
            std::printf("begin %lu\n", nNumber);
            if (!runner.RunWith(nNumber) || nNumber >= task.nLast)
            {
                break;
            }
            nNumber = GetNext(task, nNumber);
        }
        if (task.nFirst == 0)
        {
            for (Call call = 0; call < GetCallNames().size(); ++call)
            {
                std::printf("count %s %lu\n", GetCallNames()[call], GetCount(call));
            }
        }
        std::printf("begin end\n");
    }
    catch (Fault const & fault)
    {
        std::printf("fault %lu: %s\n", nNumber, fault.strText.c_str());
        nResult = 1;
    }
    catch (Refusal const & refusal)
    {
        std::printf("fault %lu: refused before anything fails: %s\n", nNumber, refusal.strText.c_str());
        nResult = 1;
    }
    std::fflush(stdout);
    if (nResult != 0)
    {
        ShowLog();
        _exit(nResult); // what state it is in is anybody's guess
    }
    End();
    return 0;
}
} // namespace faults
