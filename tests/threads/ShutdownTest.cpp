#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"

#include <gtest/gtest.h>

// There is no way back from the shutdown: this program has one test, and its end is part of it.
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
    CKVXBaseApp::InitShutdown();
    EXPECT_TRUE(CKVXBaseApp::IsShuttingDown());
    EXPECT_EQ(CThreadPool::BeginThread(stuck, nullptr, 0), nullptr);
    EXPECT_FALSE(CThreadPool::PreAllocate(100, 0));
    EXPECT_EQ(parked->WaitForExit(INFINITE), 1); // nobody waits any more
    CThreadPool::TerminateAllThreads(100);
    EXPECT_EQ(parked->GetThreadId(), 0u);
    CThreadPool::TerminateAllThreads(INFINITE); // nothing is left to do
}
