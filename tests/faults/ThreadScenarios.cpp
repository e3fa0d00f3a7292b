// Threads, and what they serve: queues, timers, watched events.

#include "Scenario.h"

#include "kvx/threads/EventWatcher.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/threads/ThreadQueue.h"
#include "kvx/threads/TimerQueue.h"

#include <atomic>

namespace
{
using faults::Await;
using faults::Done;
using faults::Expect;
using faults::IsInjected;
using faults::Scenario;

constexpr DWORD SHORT = 100; // milliseconds, for what needn't come when something has failed

bool AwaitCount(std::atomic<int> const & count, int expected)
{
    return Await([&] { return count >= expected; }, IsInjected() ? SHORT : 20000);
}

/// A new thread: those that are parked have been ended before.
class NewThread : public Scenario
{
public:
    void Run() override
    {
        CThreadPool::TerminateAllThreads(20000);
        std::atomic<int> nRun{0};
        auto const work = [](void * count) -> unsigned int
        {
            ++*static_cast<std::atomic<int> *>(count);
            return 7;
        };
        CThreadContext * thread = nullptr;
        Done([&] { return thread = CThreadPool::BeginThread(work, &nRun, THREAD_PRIORITY_NORMAL); }, "BeginThread");
        Expect(Await([&] { return nRun == 1; }), "a thread that was given has not run");
        Expect(thread->WaitForExit(20000) != 0, "a job has not ended");
    }
    bool MayGrow() const override { return true; } // contexts of threads that have ended live as long as the pool
};

/// A queue of its own, and all that is put in.
class Queue : public Scenario
{
public:
    void Run() override
    {
        std::atomic<int> nServed{0};
        {
            auto const serve = [](CObject * object, void * count)
            {
                delete object;
                ++*static_cast<std::atomic<int> *>(count);
            };
            CThreadQueue queue(serve, &nServed, 2, 0, _T("faults"));
            struct Stops
            {
                CThreadQueue & queue;
                ~Stops() { queue.Stop(1, 1); }
            } const stops{queue};
            int nPut = 0;
            for (int i = 0; i < 20; ++i)
            {
                nPut += queue.InsertOrDelete(new CObject);
            }
            Expect(nPut == 20, "a queue that isn't stopped has refused an object");
            bool const bServed = AwaitCount(nServed, nPut);
            Expect(bServed || IsInjected(), "what was put in has not been served");
        }
        Expect(nServed <= 20, "an object was served twice");
    }
};

class Timers : public Scenario
{
public:
    void Run() override
    {
        std::atomic<int> nFired{0};
        CTimerQueue queue;
        auto const fire = [](void * count) { ++*static_cast<std::atomic<int> *>(count); };
        void * const late = queue.CreateTimer(600000, fire, &nFired);
        void * const changed = queue.CreateTimer(600000, fire, &nFired);
        queue.CreateTimer(0, fire, &nFired);
        Expect(late && changed, "no handle");
        bool const bChanged = queue.ChangeTimer(changed, 1) != 0;
        bool const bFired = AwaitCount(nFired, 2);
        Expect((bChanged && bFired) || IsInjected(), "a timer has not fired");
        Expect(queue.DeleteTimer(late) == 1, "a timer that waits was not there");
        Expect(queue.DeleteTimer(late) == 0 && nFired <= 2, "a timer was there twice");
    }
};

class Watcher : public Scenario
{
public:
    void Run() override
    {
        constexpr int EVENTS = 40; // of which a set takes 31
        std::atomic<int> nSeen{0};
        std::vector<std::unique_ptr<CEvent>> events;
        for (int i = 0; i < EVENTS; ++i)
        {
            events.push_back(std::make_unique<CEvent>(FALSE, TRUE));
        }
        CEventWatcher watcher([](void *, void * count) { ++*static_cast<std::atomic<int> *>(count); }, 0, 2);
        for (auto const & event : events)
        {
            if (!watcher.Insert(*event, &nSeen)) // throws what it lacks
            {
                faults::Refuse("Insert");
            }
        }
        for (auto const & event : events)
        {
            event->SetEvent();
        }
        bool const bSeen = AwaitCount(nSeen, EVENTS);
        Expect(bSeen || IsInjected(), "an event was not seen");
        for (auto const & event : events)
        {
            Done([&] { return watcher.Remove(*event) != 0 || IsInjected(); }, "Remove");
        }
        watcher.ShutDown();
        Expect(nSeen <= EVENTS, "an event was seen twice");
    }
};

class NamedObjects : public Scenario
{
public:
    void Run() override
    {
        HANDLE event = nullptr;
        Done([&] { return event = CreateEventW(nullptr, TRUE, FALSE, _T("Local\\faults.event")); }, "CreateEvent");
        struct Closed
        {
            HANDLE handle;
            ~Closed() { CloseHandle(handle); }
        };
        Closed const closesEvent{event};
        HANDLE again = nullptr;
        Done([&] { return again = OpenEventW(EVENT_ALL_ACCESS, FALSE, _T("Local\\faults.event")); }, "OpenEvent");
        Closed const closesAgain{again};
        Done([&] { return SetEvent(again) != FALSE; }, "SetEvent");
        Expect(WaitForSingleObject(event, 0) == WAIT_OBJECT_0, "an event that was set isn't signalled");
        HANDLE mutex = nullptr;
        Done([&] { return mutex = CreateMutexW(nullptr, TRUE, _T("Global\\faults.mutex")); }, "CreateMutex");
        Closed const closesMutex{mutex};
        Expect(WaitForSingleObject(mutex, 0) == WAIT_OBJECT_0, "one's own mutex can't be had");
        Done([&] { return ReleaseMutex(mutex) && ReleaseMutex(mutex); }, "ReleaseMutex");
        Expect(ReleaseMutex(mutex) == FALSE, "a free mutex was given back");
    }
};

/// Waits of several handles, some of them named, with time-outs.
class Waits : public Scenario
{
public:
    void Run() override
    {
        CEvent first(FALSE, TRUE);
        CEvent second(FALSE, TRUE);
        HANDLE const handles[] = {first, second};
        DWORD const timedOut = WaitForMultipleObjects(2, handles, FALSE, 2);
        Expect(timedOut == WAIT_TIMEOUT || (IsInjected() && timedOut == WAIT_FAILED), "a wait for what never comes");
        second.SetEvent();
        DWORD const one = WaitForMultipleObjects(2, handles, FALSE, 20000);
        Expect(one == WAIT_OBJECT_0 + 1 || (IsInjected() && one == WAIT_FAILED), "a wait for one of two");
        first.SetEvent();
        DWORD const all = WaitForMultipleObjects(2, handles, TRUE, 20000);
        Expect(all == WAIT_OBJECT_0 || (IsInjected() && all == WAIT_FAILED), "a wait for both");
    }
};
} // namespace

namespace faults
{
std::vector<Description> GetThreadScenarios()
{
    return {{"new-thread", &Make<NewThread>},  {"thread-queue", &Make<Queue>},         {"timers", &Make<Timers>},
            {"event-watcher", &Make<Watcher>}, {"named-objects", &Make<NamedObjects>}, {"waits", &Make<Waits>}};
}
} // namespace faults
