#include "tests/support/Patience.h"

#include "kvx/foundation/Dictionary.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/threads/TimerQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace
{
constexpr DWORD AN_HOUR = 3600000;

/// What fired, in order, and a wait for so many.
class Record
{
public:
    struct Entry
    {
        Record * pRecord;
        int nNumber;
        std::function<void()> also;
    };

    /// A parameter for Fire, owned by the record.
    void * Param(int number, std::function<void()> also = {})
    {
        m_entries.push_back(std::make_unique<Entry>(Entry{this, number, std::move(also)}));
        return m_entries.back().get();
    }
    static void Fire(void * param)
    {
        auto * const entry = static_cast<Entry *>(param);
        {
            CSingleLock guard(&entry->pRecord->m_lock, TRUE);
            entry->pRecord->m_fired.push_back(entry->nNumber);
        }
        entry->pRecord->m_event.SetEvent();
        if (entry->also)
        {
            entry->also();
        }
    }
    std::vector<int> WaitFor(std::size_t count)
    {
        for (;;)
        {
            {
                CSingleLock guard(&m_lock, TRUE);
                if (m_fired.size() >= count)
                {
                    return m_fired;
                }
            }
            if (!m_event.Lock(PATIENCE))
            {
                return {};
            }
        }
    }

private:
    CCriticalSection m_lock;
    CEvent m_event;
    std::vector<int> m_fired;
    std::vector<std::unique_ptr<Entry>> m_entries;
};

CString Describe(DWORD id)
{
    CDictionary all;
    CThreadPool::GetThreadDescriptions(all);
    return all.GetValue(CStringValue(id));
}
} // namespace

TEST(TimerQueue, FiresInOrderOfDueTimesWhateverIsThrown)
{
    Record record;
    CTimerQueue queue;
    queue.CreateTimer(120, &Record::Fire, record.Param(3, [] { throw std::runtime_error("dropped"); }));
    queue.CreateTimer(60, &Record::Fire, record.Param(1, [] { AfxThrowInvalidArgException(); }));
    queue.CreateTimer(90, &Record::Fire, record.Param(2, [] { throw 5; }));
    queue.CreateTimer(150, &Record::Fire, record.Param(4));
    queue.CreateTimer(0, &Record::Fire, record.Param(0));
    EXPECT_EQ(record.WaitFor(5), (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(TimerQueue, ChangesAndDeletesWhatWaits)
{
    Record record;
    CTimerQueue queue;
    void * const late = queue.CreateTimer(AN_HOUR, &Record::Fire, record.Param(1));
    void * const gone = queue.CreateTimer(200, &Record::Fire, record.Param(9));
    void * const later = queue.CreateTimer(50, &Record::Fire, record.Param(2));
    EXPECT_TRUE(queue.DeleteTimer(gone));
    EXPECT_FALSE(queue.DeleteTimer(gone));
    EXPECT_FALSE(queue.ChangeTimer(gone, 0));
    EXPECT_FALSE(queue.DeleteTimer(nullptr));
    EXPECT_TRUE(queue.ChangeTimer(later, 300)); // moved behind the next one
    EXPECT_TRUE(queue.ChangeTimer(late, 1));
    EXPECT_EQ(record.WaitFor(2), (std::vector<int>{1, 2}));
    EXPECT_FALSE(queue.ChangeTimer(late, 0));
}

TEST(TimerQueue, FunctionsMayUseTheirQueueAndTheThreadGoes)
{
    Record record;
    CTimerQueue queue;
    std::atomic<DWORD> id{0};
    queue.CreateTimer(0, &Record::Fire,
                      record.Param(0,
                                   [&]
                                   {
                                       id = GetCurrentThreadId();
                                       queue.CreateTimer(0, &Record::Fire, record.Param(1));
                                       queue.DeleteTimer(queue.CreateTimer(AN_HOUR, &Record::Fire, nullptr));
                                   }));
    EXPECT_EQ(record.WaitFor(2), (std::vector<int>{0, 1}));
    while (!CThreadPool::IsThreadFree(static_cast<int>(id)))
    {
        std::this_thread::yield();
    }
    EXPECT_EQ(Describe(id).Find(_T("[Idle/Unused] TimerQueue::TimerProc: ")), 0);
    queue.CreateTimer(0, &Record::Fire, record.Param(2)); // a thread again
    EXPECT_EQ(record.WaitFor(3).size(), 3u);

    auto own = std::make_unique<CTimerQueue>();
    CEvent gone;
    auto const destroy = [&]
    {
        own.reset();
        gone.SetEvent();
    };
    own->CreateTimer(0, &Record::Fire, record.Param(3, destroy));
    EXPECT_TRUE(gone.Lock(PATIENCE));
}

TEST(TimerQueue, NoticesChangesOfTheClock)
{
    static std::atomic<ULONGLONG> s_nNow;
    s_nNow = 13'000'000'000'000;
    struct CSetTimerQueue : CTimerQueue
    {
        CSetTimerQueue() : CTimerQueue([] { return s_nNow.load(); }) {}
    };
    Record record;
    CSetTimerQueue queue;
    queue.CreateTimer(AN_HOUR, &Record::Fire, record.Param(1));
    queue.CreateTimer(2 * AN_HOUR, &Record::Fire, record.Param(2));
    s_nNow += AN_HOUR;
    EXPECT_EQ(record.WaitFor(1).size(), 1u);
    s_nNow -= 10 * ULONGLONG{AN_HOUR}; // moves what waits
    queue.CreateTimer(AN_HOUR, &Record::Fire, record.Param(3));
    s_nNow += AN_HOUR;
    EXPECT_EQ(record.WaitFor(2).back(), 3);
    s_nNow += 10 * ULONGLONG{AN_HOUR};
    EXPECT_EQ(record.WaitFor(3), (std::vector<int>{1, 3, 2}));
}

TEST(TimerQueue, ManyThreadsLoseNothingAndTheQueueMayGoAtAnyTime)
{
    static std::atomic<int> s_nFired{0};
    s_nFired = 0;
    auto const count = [](void *) { ++s_nFired; };
    std::atomic<int> nDeleted{0};
    constexpr int EACH = 2000;
    {
        CTimerQueue queue;
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t)
        {
            threads.emplace_back(
                [&, t]
                {
                    for (int i = 0; i < EACH; ++i)
                    {
                        void * const timer =
                            queue.CreateTimer(static_cast<DWORD>(i % 5 == t ? AN_HOUR : i % 3), count, nullptr);
                        if (i % 5 == t)
                        {
                            nDeleted += queue.DeleteTimer(timer);
                        }
                    }
                });
        }
        for (std::thread & thread : threads)
        {
            thread.join();
        }
        while (s_nFired + nDeleted < 3 * EACH)
        {
            std::this_thread::yield();
        }
    }
    EXPECT_EQ(s_nFired + nDeleted, 3 * EACH);
    EXPECT_EQ(nDeleted, 3 * EACH / 5);
    for (int round = 0; round < 200; ++round)
    {
        CTimerQueue queue;
        queue.CreateTimer(static_cast<DWORD>(round % 2), count, nullptr);
        queue.CreateTimer(AN_HOUR, count, nullptr);
    }
}
