#include "tests/support/Patience.h"

#include "kvx/foundation/AppException.h"
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

    int Count(INT_PTR param)
    {
        CSingleLock guard(&lock, TRUE);
        return calls[param];
    }
    bool WaitFor(INT_PTR param, int count)
    {
        DWORD waited = 0;
        for (; Count(param) < count && waited < PATIENCE; ++waited)
        {
            Sleep(1);
        }
        return waited < PATIENCE;
    }
} g_seen;

void OnEvent(void *, void * param)
{
    CSingleLock guard(&g_seen.lock, TRUE);
    ++g_seen.calls[reinterpret_cast<INT_PTR>(param)];
}

void * Param(INT_PTR number)
{
    return reinterpret_cast<void *>(number);
}

class EventWatcher : public testing::Test
{
protected:
    EventWatcher() { g_seen.calls.clear(); }

    int Insert(CEventWatcher & watcher, CEvent & event, INT_PTR param) { return watcher.Insert(event, Param(param)); }
};

/// A function that stays until it is told to go on.
CEvent g_entered;
CEvent g_go;

void Hold(void * handle, void * param)
{
    OnEvent(handle, param);
    if (param == Param(1))
    {
        g_entered.SetEvent();
        g_go.Lock(PATIENCE);
    }
}

struct EventList : std::vector<std::unique_ptr<CEvent>>
{
    EventList(CEventWatcher & watcher, int count)
    {
        for (int i = 0; i < count; ++i)
        {
            push_back(std::make_unique<CEvent>(FALSE, i % 2)); // also such as reset themselves
            EXPECT_TRUE(watcher.Insert(*back(), Param(i)));
        }
    }
    CEvent & operator()(int i) { return *at(static_cast<std::size_t>(i)); }
};
} // namespace

TEST_F(EventWatcher, TellsErrors)
{
    CEvent event(FALSE, TRUE);
    CEvent other(FALSE, TRUE);
    CEvent third(FALSE, TRUE);
    SetLastError(5);
    EXPECT_FALSE(CEventWatcher().Insert(event, nullptr)); // no function
    EXPECT_EQ(GetLastError(), 0u);
    CEventWatcher watcher(&OnEvent);
    EXPECT_TRUE(watcher.Insert(event, nullptr));
    auto const fails = [](int result, DWORD error) { EXPECT_TRUE(!result && GetLastError() == error) << error; };
    fails(watcher.Insert(nullptr, nullptr), ERROR_INVALID_HANDLE);
    fails(watcher.Insert(event, nullptr), ERROR_OBJECT_ALREADY_EXISTS);
    fails(watcher.Remove(other), ERROR_NOT_FOUND);
    fails(watcher.Remove(nullptr), ERROR_INVALID_HANDLE);
    fails(watcher.ReplaceKey(event, event), ERROR_INVALID_HANDLE);
    fails(watcher.ReplaceKey(other, third), ERROR_NOT_FOUND);
    EXPECT_TRUE(watcher.Insert(other, nullptr));
    fails(watcher.ReplaceKey(other, event), ERROR_INVALID_HANDLE);
    EXPECT_TRUE(watcher.Remove(event) && watcher.Insert(event, nullptr));
}

TEST_F(EventWatcher, CallsForEachSignalOverSeveralSetsAndKinds)
{
    constexpr int HANDLES = 100; // four sets
    for (DWORD const flags : {DWORD{0}, CEventWatcher::FLAG_IMMEDIATE_PROCESSING, CEventWatcher::FLAG_ON_WAIT_THREAD,
                              CEventWatcher::FLAG_ON_WAIT_THREAD | CEventWatcher::FLAG_IMMEDIATE_PROCESSING})
    {
        g_seen.calls.clear();
        CEventWatcher watcher(&OnEvent, 0, 2);
        watcher.SetFlags(flags);
        EventList events(watcher, HANDLES);
        for (int round = 1; round <= 3; ++round)
        {
            for (auto const & event : events)
            {
                event->SetEvent();
            }
            for (int i = 0; i < HANDLES; ++i)
            {
                ASSERT_TRUE(g_seen.WaitFor(i, round)) << i << " flags " << flags;
                EXPECT_EQ(g_seen.Count(i), round);
                EXPECT_EQ(WaitForSingleObject(events(i), 0), static_cast<DWORD>(WAIT_TIMEOUT));
            }
        }
    }
}

TEST_F(EventWatcher, ASlowFunctionHoldsUpItsSetAloneAndSeveralMayShutDown)
{
    CEventWatcher watcher(&Hold);
    watcher.SetFlags(CEventWatcher::FLAG_ON_WAIT_THREAD);
    EventList events(watcher, 40);
    events(1).SetEvent();
    ASSERT_TRUE(g_entered.Lock(PATIENCE));
    events(35).SetEvent(); // of the second set
    EXPECT_TRUE(g_seen.WaitFor(35, 1));
    EXPECT_TRUE(watcher.Remove(events(36)) && Insert(watcher, events(36), 50) && watcher.Remove(events(35)));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back([&] { watcher.ShutDown(); });
    }
    g_go.SetEvent();
    for (std::thread & thread : threads)
    {
        thread.join();
    }
    EXPECT_FALSE(Insert(watcher, events(35), 1));
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
    for (DWORD const flags : {DWORD{0}, CEventWatcher::FLAG_MERGE})
    {
        g_seen.calls.clear();
        CEventWatcher watcher(&Hold, 0, 1);
        watcher.SetFlags(flags);
        CEvent block(FALSE, TRUE);
        CEvent a(FALSE, TRUE);
        CEvent b(FALSE, TRUE);
        ASSERT_TRUE(Insert(watcher, block, 1));
        ASSERT_TRUE(Insert(watcher, a, 2));
        ASSERT_TRUE(Insert(watcher, b, 2));
        block.SetEvent();
        ASSERT_TRUE(g_entered.Lock(PATIENCE)); // the only service thread is busy
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
        g_go.SetEvent();
        ASSERT_TRUE(g_seen.WaitFor(3, 1));
        EXPECT_EQ(g_seen.Count(2), flags ? 1 : 2);
    }
}

TEST_F(EventWatcher, FunctionsMayThrowChangeHandlesShutDownAndDestroy)
{
    static std::unique_ptr<CEventWatcher> s_pWatcher;
    auto const act = [](void * handle, void * param)
    {
        OnEvent(handle, param);
        if (param == Param(1))
        {
            EXPECT_TRUE(s_pWatcher->Remove(handle));
            EXPECT_TRUE(s_pWatcher->Insert(handle, Param(2)));
            SetEvent(handle);
            ThrowAppException(5, _T("dropped"));
        }
        s_pWatcher->ShutDown();
        if (s_pWatcher->IsSingleShot())
        {
            s_pWatcher.reset();
        }
        OnEvent(handle, Param(3));
    };
    for (DWORD const flags : {DWORD{0}, CEventWatcher::FLAG_ON_WAIT_THREAD,
                              CEventWatcher::FLAG_ON_WAIT_THREAD | CEventWatcher::FLAG_SINGLE_SHOT})
    {
        g_seen.calls.clear();
        s_pWatcher = std::make_unique<CEventWatcher>(act);
        s_pWatcher->SetFlags(flags);
        CEvent event(TRUE, TRUE);
        ASSERT_TRUE(Insert(*s_pWatcher, event, flags & CEventWatcher::FLAG_SINGLE_SHOT ? 2 : 1));
        EXPECT_TRUE(g_seen.WaitFor(3, 1));
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
