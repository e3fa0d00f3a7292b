/// Notifications, against a request that is copied and goes through a queue of std::function under a mutex and a
/// condition variable.

#include "Harness.h"
#include "Services.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgProvider.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

namespace
{
using namespace bench;

constexpr double TARGET = 3.0;
constexpr int COMMON_THREADS = 3; // as many as the common queue has

class Counter
{
public:
    void Add()
    {
        if (m_nCount.fetch_add(1) + 1 == m_nTotal.load())
        {
            m_nCount.notify_one();
        }
    }
    void Begin(int total)
    {
        m_nTotal = total;
        m_nCount = 0;
    }
    void Wait()
    {
        int const total = m_nTotal;
        for (int count = m_nCount; count < total; count = m_nCount)
        {
            m_nCount.wait(count);
        }
    }

private:
    std::atomic<int> m_nCount{0};
    std::atomic<int> m_nTotal{0};
};

Counter g_counter;

void Count(CMsgRequest &, void *)
{
    g_counter.Add();
}

/// The limit.
class FunctionQueue
{
public:
    explicit FunctionQueue(int threads)
    {
        for (int i = 0; i < threads; ++i)
        {
            m_threads.emplace_back([this] { Run(); });
        }
    }
    FunctionQueue(FunctionQueue const &) = delete;
    FunctionQueue & operator=(FunctionQueue const &) = delete;
    ~FunctionQueue()
    {
        {
            std::lock_guard const guard(m_mutex);
            m_bEnd = true;
        }
        m_changed.notify_all();
        for (std::thread & thread : m_threads)
        {
            thread.join();
        }
    }

    void Push(std::function<void()> function)
    {
        {
            std::lock_guard const guard(m_mutex);
            m_functions.push_back(std::move(function));
        }
        m_changed.notify_one();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<std::function<void()>> m_functions;
    bool m_bEnd = false;
    std::vector<std::thread> m_threads;

    void Run()
    {
        std::unique_lock guard(m_mutex);
        for (;;)
        {
            m_changed.wait(guard, [this] { return m_bEnd || !m_functions.empty(); });
            if (m_functions.empty())
            {
                return;
            }
            {
                std::function<void()> const function = std::move(m_functions.front());
                m_functions.pop_front();
                guard.unlock();
                function();
            }
            guard.lock();
        }
    }
};

/// All at once, or each when the one before has run.
template <class NOTIFY>
double Time(int count, bool bSingly, NOTIFY const & notify)
{
    auto const start = Clock::now();
    g_counter.Begin(bSingly ? 1 : count);
    for (int i = 0; i < count; ++i)
    {
        notify();
        if (bSingly)
        {
            g_counter.Wait();
            g_counter.Begin(1);
        }
    }
    if (!bSingly)
    {
        g_counter.Wait();
    }
    return Since(start) / count;
}

void Measure(LPCTSTR queueName, int threads, bool bSingly, int count, int rounds, std::string const & name)
{
    CMsgRequest request;
    request.SetCommand(_T("host.counter.add"));
    request.SetNotifyQueueName(queueName);
    FillTableRequest(request, 10, 4);
    FunctionQueue queue(threads);
    auto const ours = [&] { return Time(count, bSingly, [&] { request.Notify(); }); };
    auto const limit = [&]
    {
        return Time(count, bSingly,
                    [&] { queue.Push([copy = std::make_shared<CMsgRequest>(request)] { Count(*copy, nullptr); }); });
    };
    Compare({.strName = name + " : queue of std::function", .target = Target::AtMost, .nTarget = TARGET}, rounds, ours,
            limit);
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    int const count = options.IsBrief() ? 50 : 10000;
    int const rounds = options.IsBrief() ? 1 : 24;
    CMsgDispatcher::GetInstance()->RegisterProvider(_T("host.counter.add"), &Count, nullptr);
    struct Place
    {
        char const * szName;
        int nCpu;
    };
    for (Place const place : {Place{"one CPU", 0}, Place{"all CPUs", -1}})
    {
        PinAllTo(place.nCpu);
        for (bool const bSingly : {false, true})
        {
            std::string const what = std::string(bSingly ? ", one by one, " : ", a burst, ") + place.szName;
            CString const queue = CString(_T("queue of ")) + kvx::FromUtf8(what);
            Measure(queue, 1, bSingly, bSingly ? count / 5 : count, rounds, "named queue" + what);
            Measure(_T(""), COMMON_THREADS, bSingly, bSingly ? count / 5 : count, rounds, "common queue" + what);
        }
    }
    EndLibrary();
    return 0;
}
