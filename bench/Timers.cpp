/// Timers that are cancelled and timers that fire, against a map by due time under a mutex, and against themselves: the
/// cost of one doesn't grow with their number.

#include "Harness.h"

#include "kvx/logging/LogManager.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/threads/TimerQueue.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace
{
using namespace bench;

constexpr double FLAT = 1.2; // of the cost among a thousand timers
constexpr double MOST = 1.5; // of the cost of the map
constexpr int FAR = 3600000; // milliseconds: never in this run

/// Delays as a busy server has them: no order, and many alike.
DWORD DelayOf(int number)
{
    return FAR + static_cast<DWORD>(number * 7919LL % 30011);
}

/// The least code that does the same: a map by due time, one thread.
class PlainTimers
{
public:
    using Map = std::multimap<std::int64_t, std::pair<void (*)(void *), void *>>;

    PlainTimers() : m_thread([this] { Run(); }) {}
    PlainTimers(PlainTimers const &) = delete;
    PlainTimers & operator=(PlainTimers const &) = delete;
    ~PlainTimers()
    {
        {
            std::lock_guard const guard(m_mutex);
            m_bEnd = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }

    Map::iterator Create(DWORD delay, void (*function)(void *), void * param)
    {
        std::lock_guard const guard(m_mutex);
        auto const it = m_timers.emplace(Now() + delay, std::pair(function, param));
        if (it == m_timers.begin())
        {
            m_changed.notify_one();
        }
        return it;
    }
    void Delete(Map::iterator timer)
    {
        std::lock_guard const guard(m_mutex);
        m_timers.erase(timer);
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    Map m_timers;
    bool m_bEnd = false;
    std::thread m_thread;

    static std::int64_t Now()
    {
        using namespace std::chrono;
        return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    }

    void Run()
    {
        std::unique_lock guard(m_mutex);
        while (!m_bEnd)
        {
            if (m_timers.empty())
            {
                m_changed.wait(guard);
                continue;
            }
            auto const wait = m_timers.begin()->first - Now();
            if (wait > 0)
            {
                m_changed.wait_for(guard, std::chrono::milliseconds(wait));
                continue;
            }
            auto const [function, param] = m_timers.begin()->second;
            m_timers.erase(m_timers.begin());
            guard.unlock();
            function(param);
            guard.lock();
        }
    }
};

double CancelOurs(int count)
{
    CTimerQueue queue;
    std::vector<void *> handles(static_cast<std::size_t>(count));
    // The first use of a queue takes its memory, a later one finds it: this is about the later ones.
    double time = 0;
    for (int turn = 0; turn < 2; ++turn)
    {
        auto const start = Clock::now();
        for (int i = 0; i < count; ++i)
        {
            handles[static_cast<std::size_t>(i)] = queue.CreateTimer(DelayOf(i), nullptr, nullptr);
        }
        for (void * const handle : handles)
        {
            if (!queue.DeleteTimer(handle))
            {
                Fail("a timer is gone");
            }
        }
        time = Since(start) / count;
    }
    return time;
}

double CancelPlain(int count)
{
    PlainTimers timers;
    std::vector<PlainTimers::Map::iterator> handles(static_cast<std::size_t>(count));
    double time = 0;
    for (int turn = 0; turn < 2; ++turn)
    {
        auto const start = Clock::now();
        for (int i = 0; i < count; ++i)
        {
            handles[static_cast<std::size_t>(i)] = timers.Create(DelayOf(i), nullptr, nullptr);
        }
        for (auto const handle : handles)
        {
            timers.Delete(handle);
        }
        time = Since(start) / count;
    }
    return time;
}

/// What the timers of one round run on. A first one holds the thread until all others are due.
struct Round
{
    std::atomic<int> nLeft;
    std::atomic<int> nState{0}; // 1: the thread is held, 2: it may go on

    explicit Round(int count) : nLeft(count) {}

    static void Hold(void * param)
    {
        auto * const round = static_cast<Round *>(param);
        round->nState = 1;
        round->nState.notify_all();
        round->nState.wait(1);
    }
    static void Fire(void * param)
    {
        auto * const round = static_cast<Round *>(param);
        if (--round->nLeft == 0)
        {
            round->nLeft.notify_all();
        }
    }
    template <class CREATE>
    double Run(int count, CREATE const & create)
    {
        constexpr DWORD SPREAD = 20; // milliseconds
        create(0, &Hold, this);
        nState.wait(0);
        for (int i = 0; i < count; ++i)
        {
            create(static_cast<DWORD>(i * 7919LL % SPREAD), &Fire, this);
        }
        Sleep(SPREAD + 10);
        auto const start = Clock::now();
        nState = 2;
        nState.notify_all();
        for (int left = nLeft; left > 0; left = nLeft)
        {
            nLeft.wait(left);
        }
        return Since(start) / count;
    }
};

double FireOurs(int count)
{
    CTimerQueue queue;
    return Round(count).Run(count, [&](DWORD delay, void (*function)(void *), void * param)
                            { queue.CreateTimer(delay, function, param); });
}

double FirePlain(int count)
{
    PlainTimers timers;
    return Round(count).Run(count, [&](DWORD delay, void (*function)(void *), void * param)
                            { timers.Create(delay, function, param); });
}

void Measure(char const * what, std::vector<int> const & counts, int rounds, double (*ours)(int), double (*plain)(int))
{
    for (int const count : counts)
    {
        Compare(
            {.strName = std::to_string(count) + std::string(" timers ") + what + " : map under a mutex",
             .target = Target::AtMost,
             .nTarget = MOST},
            rounds, [&] { return ours(count); }, [&] { return plain(count); });
    }
    for (int const count : counts)
    {
        if (count != counts.front())
        {
            Compare(
                {.strName = std::to_string(count) + std::string(" ") + what + " : " + std::to_string(counts.front()),
                 .target = Target::AtMost,
                 .nTarget = FLAT},
                rounds, [&] { return ours(count); }, [&] { return ours(counts.front()); });
        }
    }
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    std::vector<int> const counts = options.IsBrief() ? std::vector{10, 100} : std::vector{1000, 10000, 100000};
    int const rounds = options.IsBrief() ? 1 : 12;
    if (options.Wants("cancel"))
    {
        Measure("created and cancelled", counts, rounds, &CancelOurs, &CancelPlain);
    }
    if (options.Wants("fire"))
    {
        Measure("fired", counts, rounds, &FireOurs, &FirePlain);
    }
    CKVXBaseApp::InitShutdown();
    CThreadPool::TerminateAllThreads(10000);
    CLogManager::Terminate();
    return 0;
}
