#include "tests/support/Host.h"
#include "tests/support/Patience.h"

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/threads/EventWatcher.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/threads/TimerQueue.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

/// Threads that are killed lose the memory that they held, and that is all right here (since 2026-11-21).
extern "C" char const * __asan_default_options()
{
    return "detect_leaks=0";
}

namespace
{
void Exit()
{
    std::exit(3);
}

class CExitSink : public CLogSink
{
public:
    CExitSink() : CLogSink(LOG_ALL) {}
    void Append(CLogEvent *) override { Exit(); }
};

unsigned int UseHeap(void *)
{
    for (std::vector<std::unique_ptr<char[]>> blocks;; blocks.clear())
    {
        for (std::size_t i = 0; i < 2000; ++i)
        {
            blocks.push_back(std::make_unique<char[]>(1000 + 7 * i));
        }
    }
}

unsigned int UseLog(void *)
{
    for (;;)
    {
        LogInfo(_T("again"));
        Sleep(0);
    }
}

void Stay(CObject *, void * entered)
{
    static_cast<CEvent *>(entered)->SetEvent();
    Sleep(INFINITE);
}

// They go while their threads run.
CEvent g_entered;
CThreadQueue g_queue(&Stay, &g_entered, 1, 0, _T("queue"));
CTimerQueue g_timers;
CEventWatcher g_watcher([](void *, void *) { Exit(); });
CEvent g_event(TRUE, TRUE);

void ExitFrom(int place)
{
    static CObject job;
    g_queue.Insert(&job);
    g_entered.Lock(PATIENCE);
    switch (place)
    {
    case 0:
        host::UseOneHeap();
        CLogManager::GetInstance()->RegisterSink(new CDebugLog(0), 1);
        for (auto const proc : {&UseHeap, &UseLog, &UseHeap, &UseLog})
        {
            CThreadPool::BeginThread(proc, nullptr, 0);
        }
        Sleep(20);
        Exit();
        break;
    case 1:
        CThreadPool::BeginThread([](void *) -> unsigned int { std::exit(3); }, nullptr, 0);
        break;
    case 2:
        g_timers.CreateTimer(
            0, [](void *) { Exit(); }, nullptr);
        break;
    case 3:
    case 4:
        g_watcher.SetFlags(place == 3 ? 0 : CEventWatcher::FLAG_ON_WAIT_THREAD);
        g_watcher.Insert(g_event, nullptr);
        break;
    case 5:
        CLogManager::GetInstance()->RegisterSink(new CExitSink, 1);
        LogInfo(_T("now"));
        break;
    }
    Sleep(INFINITE);
}
} // namespace

// Whatever runs, and whoever calls exit: the process ends with its status. Each case has a process of its own.
TEST(ShutdownDeathTest, AnyThreadMayExit)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    int place = 0;
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
    place = 1; // it doesn't know that a killed thread is dead, and takes what it did last for a race
#endif
#endif
    for (; place < 6; ++place)
    {
        EXPECT_EXIT(ExitFrom(place), testing::ExitedWithCode(3), "") << place;
    }
}

// There is no way back from the shutdown: this is the last test of the program, and its end is part of it.
TEST(Shutdown, EndsEveryThread)
{
    static CEvent s_never(FALSE, TRUE);
    static CEvent s_running(FALSE, TRUE);
    auto const stuck = [](void *) -> unsigned int
    {
        s_running.SetEvent();
        s_never.Lock(INFINITE);
        return 0;
    };
    CThreadContext * const parked = CThreadPool::BeginThread([](void *) -> unsigned int { return 0; }, nullptr, 0);
    EXPECT_TRUE(parked->WaitForExit(INFINITE));
    // A notification that never comes back must not hold up the end of the program either.
    CMsgDispatcher::GetInstance()->RegisterProvider(
        _T("stuck"), [](CMsgRequest &, void * proc) { reinterpret_cast<unsigned int (*)(void *)>(proc)(nullptr); },
        reinterpret_cast<void *>(static_cast<unsigned int (*)(void *)>(stuck)));
    CMsgRequest().Notify(_T("stuck"));
    s_running.Lock(INFINITE);

    CKVXBaseApp::InitShutdown();
    EXPECT_EQ(CThreadPool::BeginThread(stuck, nullptr, 0), nullptr);
    EXPECT_FALSE(CThreadPool::PreAllocate(100, 0));
    EXPECT_EQ(parked->WaitForExit(INFINITE), 1); // nobody waits any more
    CThreadPool::TerminateAllThreads(100);
    EXPECT_EQ(parked->GetThreadId(), 0u);
    CThreadPool::TerminateAllThreads(INFINITE); // nothing is left to do
}
