#include "tests/support/Patience.h"

#include "kvx/threads/EventWatcher.h"
#include "kvx/threads/ThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <thread>
#include <vector>

namespace
{
// What the watched functions saw. The function gets no more than its parameter, so this is one for all.
struct Seen
{
    CCriticalSection lock;
    std::map<INT_PTR, int> calls;
    DWORD nThreadId = 0;
    CEvent called;

    void Reset()
    {
        CSingleLock guard(&lock, TRUE);
        calls.clear();
        called.ResetEvent();
    }
    int Count(INT_PTR param)
    {
        CSingleLock guard(&lock, TRUE);
        return calls[param];
    }
    bool WaitFor(INT_PTR param, int count)
    {
        while (Count(param) < count)
        {
            if (!called.Lock(PATIENCE))
            {
                return false;
            }
        }
        return true;
    }
} g_seen;

void OnEvent(void *, void * param)
{
    CSingleLock guard(&g_seen.lock, TRUE);
    ++g_seen.calls[reinterpret_cast<INT_PTR>(param)];
    g_seen.nThreadId = GetCurrentThreadId();
    g_seen.called.SetEvent();
}

void * Param(INT_PTR number)
{
    return reinterpret_cast<void *>(number);
}

class EventWatcher : public testing::Test
{
protected:
    EventWatcher() { g_seen.Reset(); }

    int Insert(CEventWatcher & watcher, CEvent & event, INT_PTR param) { return watcher.Insert(event, Param(param)); }
};
} // namespace

TEST_F(EventWatcher, TellsErrors)
{
    CEventWatcher idle;
    CEvent event(FALSE, TRUE);
    SetLastError(5);
    EXPECT_FALSE(idle.Insert(event, nullptr)); // no function
    EXPECT_EQ(GetLastError(), 0u);

    CEventWatcher watcher(&OnEvent);
    EXPECT_FALSE(watcher.Insert(nullptr, nullptr));
    EXPECT_EQ(GetLastError(), 6u);
    EXPECT_TRUE(watcher.Insert(event, nullptr));
    EXPECT_FALSE(watcher.Insert(event, nullptr));
    EXPECT_EQ(GetLastError(), 5010u);
    CEvent other(FALSE, TRUE);
    EXPECT_FALSE(watcher.Remove(other));
    EXPECT_EQ(GetLastError(), 1168u);
    EXPECT_FALSE(watcher.Remove(nullptr));
    EXPECT_EQ(GetLastError(), 6u);
    EXPECT_FALSE(watcher.ReplaceKey(event, event));
    EXPECT_EQ(GetLastError(), 6u);
    CEvent third(FALSE, TRUE);
    EXPECT_FALSE(watcher.ReplaceKey(other, third));
    EXPECT_EQ(GetLastError(), 1168u);
    EXPECT_TRUE(watcher.Insert(other, nullptr));
    EXPECT_FALSE(watcher.ReplaceKey(other, event));
    EXPECT_EQ(GetLastError(), 6u);
    EXPECT_TRUE(watcher.Remove(event));
    EXPECT_TRUE(watcher.Insert(event, nullptr));
    watcher.ShutDown();
    EXPECT_FALSE(watcher.Insert(third, nullptr));
}

TEST_F(EventWatcher, CallsForEachSignalOverSeveralSetsAndKinds)
{
    constexpr int HANDLES = 100; // four sets
    for (DWORD const flags : {DWORD{0}, CEventWatcher::FLAG_IMMEDIATE_PROCESSING, CEventWatcher::FLAG_ON_WAIT_THREAD,
                              CEventWatcher::FLAG_ON_WAIT_THREAD | CEventWatcher::FLAG_IMMEDIATE_PROCESSING})
    {
        g_seen.Reset();
        CEventWatcher watcher(&OnEvent, 0, 2);
        watcher.SetFlags(flags);
        std::vector<std::unique_ptr<CEvent>> events;
        for (int i = 0; i < HANDLES; ++i)
        {
            events.push_back(std::make_unique<CEvent>(FALSE, i % 2)); // also such as reset themselves
            ASSERT_TRUE(Insert(watcher, *events.back(), i));
        }
        for (int round = 1; round <= 3; ++round)
        {
            for (int i = 0; i < HANDLES; ++i)
            {
                events[static_cast<std::size_t>(i)]->SetEvent();
            }
            for (int i = 0; i < HANDLES; ++i)
            {
                ASSERT_TRUE(g_seen.WaitFor(i, round)) << i << " flags " << flags;
                EXPECT_EQ(g_seen.Count(i), round);
                EXPECT_EQ(WaitForSingleObject(*events[static_cast<std::size_t>(i)], 0),
                          static_cast<DWORD>(WAIT_TIMEOUT));
            }
        }
    }
}

TEST_F(EventWatcher, RemovesReplacesAndSurvivesClosedHandles)
{
    CEventWatcher watcher(&OnEvent);
    CEvent first(FALSE, TRUE);
    CEvent second(FALSE, TRUE);
    CEvent probe(FALSE, TRUE);
    ASSERT_TRUE(Insert(watcher, first, 1));
    ASSERT_TRUE(Insert(watcher, probe, 3));
    EXPECT_TRUE(watcher.ReplaceKey(first, second));
    second.SetEvent();
    EXPECT_TRUE(g_seen.WaitFor(1, 1)); // with the old parameter
    EXPECT_TRUE(watcher.Remove(second));
    HANDLE const closed = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    ASSERT_TRUE(watcher.Insert(closed, Param(4)));
    CloseHandle(closed);
    first.SetEvent();
    second.SetEvent();
    probe.SetEvent();
    EXPECT_TRUE(g_seen.WaitFor(3, 1)); // a pass in which the others were not served
    EXPECT_EQ(g_seen.Count(1), 1);
    while (watcher.Remove(closed))
    {
        ASSERT_TRUE(watcher.Insert(closed, Param(4))); // until a pass has found out
        std::this_thread::yield();
    }
    EXPECT_EQ(g_seen.Count(4), 0);
}

TEST_F(EventWatcher, SingleShotsGoServedOrNot)
{
    CEventWatcher watcher(&OnEvent);
    watcher.SetFlags(CEventWatcher::FLAG_SINGLE_SHOT);
    CEvent signalled(TRUE, TRUE);
    CEvent silent(FALSE, TRUE);
    for (int round = 1; round <= 3; ++round)
    {
        signalled.SetEvent();
        ASSERT_TRUE(Insert(watcher, signalled, 1));
        EXPECT_TRUE(g_seen.WaitFor(1, round));
    }
    ASSERT_TRUE(Insert(watcher, silent, 2));
    while (!Insert(watcher, silent, 2)) // it leaves at the first pass
    {
        std::this_thread::yield();
    }
    EXPECT_EQ(g_seen.Count(2), 0);
    EXPECT_EQ(g_seen.Count(1), 3);
}

TEST_F(EventWatcher, MergesWhatWaits)
{
    static CEvent s_entered;
    static CEvent s_go;
    auto const hold = [](void * handle, void * param)
    {
        OnEvent(handle, param);
        if (param == Param(1))
        {
            s_entered.SetEvent();
            s_go.Lock(PATIENCE);
        }
    };
    for (DWORD const flags : {DWORD{0}, CEventWatcher::FLAG_MERGE})
    {
        g_seen.Reset();
        CEventWatcher watcher(hold, 0, 1);
        watcher.SetFlags(flags);
        CEvent block(FALSE, TRUE);
        CEvent a(FALSE, TRUE);
        CEvent b(FALSE, TRUE);
        ASSERT_TRUE(Insert(watcher, block, 1));
        ASSERT_TRUE(Insert(watcher, a, 2));
        ASSERT_TRUE(Insert(watcher, b, 2));
        block.SetEvent();
        ASSERT_TRUE(s_entered.Lock(PATIENCE)); // the only service thread is busy
        for (CEvent * const event : {&a, &b})
        {
            event->SetEvent();
            while (WaitForSingleObject(*event, 0) == WAIT_OBJECT_0)
            {
                std::this_thread::yield();
            }
        }
        CEvent last(FALSE, TRUE);
        ASSERT_TRUE(Insert(watcher, last, 3));
        last.SetEvent(); // its trigger comes behind theirs
        s_go.SetEvent();
        ASSERT_TRUE(g_seen.WaitFor(3, 1));
        EXPECT_EQ(g_seen.Count(2), flags ? 1 : 2);
    }
}

TEST_F(EventWatcher, FunctionsMayChangeHandlesAndShutDown)
{
    static CEventWatcher * s_pWatcher;
    static CEvent s_done;
    auto const act = [](void * handle, void * param)
    {
        if (param == Param(1))
        {
            EXPECT_TRUE(s_pWatcher->Remove(handle));
            EXPECT_TRUE(s_pWatcher->Insert(handle, Param(2)));
            SetEvent(handle);
            return;
        }
        s_pWatcher->ShutDown();
        s_done.SetEvent();
    };
    for (DWORD const flags : {DWORD{0}, CEventWatcher::FLAG_ON_WAIT_THREAD})
    {
        CEventWatcher watcher(act);
        s_pWatcher = &watcher;
        watcher.SetFlags(flags);
        CEvent event(FALSE, TRUE);
        ASSERT_TRUE(Insert(watcher, event, 1));
        event.SetEvent();
        EXPECT_TRUE(s_done.Lock(PATIENCE));
    }
}

TEST_F(EventWatcher, ComesAndGoesUnderSignals)
{
    std::atomic<bool> bStop{false};
    CEvent event(FALSE, TRUE);
    std::thread signals(
        [&]
        {
            while (!bStop)
            {
                event.SetEvent();
                std::this_thread::yield();
            }
        });
    for (int round = 0; round < 100; ++round)
    {
        CEventWatcher watcher(&OnEvent, 0, 1 + round % 3);
        watcher.SetFlags(round % 2 ? CEventWatcher::FLAG_ON_WAIT_THREAD : 0);
        Insert(watcher, event, round);
        if (round % 4 < 2)
        {
            EXPECT_TRUE(g_seen.WaitFor(round, 1));
        }
    }
    bStop = true;
    signals.join();
}
