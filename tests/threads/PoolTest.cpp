#include "tests/support/Patience.h"
#include "tests/threads/Parked.h"

#include "kvx/foundation/AppException.h"
#include "kvx/logging/LogManager.h"
#include "kvx/threads/ThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace
{
std::atomic<int> g_nStarted{0};
std::atomic<int> g_nEnded{0};

/// The hooks are set before the first thread starts.
struct Hooks
{
    Hooks()
    {
        CThreadContext::SetStartThreadProc(
            [](void * context) -> int
            {
                g_nStarted += static_cast<CThreadContext *>(context)->GetThreadId() == GetCurrentThreadId();
                return 0;
            });
        CThreadContext::SetEndThreadProc([](void *) -> int { return ++g_nEnded; });
    }
} const g_hooks;

unsigned int WaitJob(void * event)
{
    static_cast<CEvent *>(event)->Lock(PATIENCE);
    return 7;
}

/// What a job tells and waits for.
struct Gate
{
    CEvent & m_go;
    CEvent & m_entered;
};

unsigned int GateJob(void * gate)
{
    static_cast<Gate *>(gate)->m_entered.SetEvent();
    return WaitJob(&static_cast<Gate *>(gate)->m_go);
}

unsigned int FailingJob(void * kind)
{
    SetLastError(1234);
    if (kind)
    {
        ThrowAppException(5, _T("%s"), CString(_T('x'), 3000));
    }
    throw 5;
}

/// Runs a job to its end and until its thread has parked.
CThreadContext * RunJob(CThreadContext::ThreadProc proc, void * param)
{
    CThreadContext * const context = CThreadPool::BeginThread(proc, param, 0);
    EXPECT_TRUE(context->WaitForExit(PATIENCE));
    while (!CThreadPool::IsThreadFree(static_cast<int>(context->GetThreadId())))
    {
        std::this_thread::yield();
    }
    return context;
}

CString Description(DWORD id)
{
    CDictionary all;
    CThreadPool::GetThreadDescriptions(all);
    return all.GetValue(CStringValue(id));
}

CString Unnamed(CThreadContext::ThreadProc proc)
{
    CString text;
    text.Format(_T("Unnamed Thread (ThreadProc: %08X)"), proc);
    return text;
}

/// What other tests have left is parked: the thread that parks next is the next one to be had.
class Pool : public testing::Test
{
protected:
    Pool() { WaitUntilAllHaveParked(); }
};
} // namespace

TEST_F(Pool, UsesAParkedThreadAgain)
{
    CEvent go(TRUE, TRUE);
    CThreadContext * const context = RunJob(&WaitJob, &go);
    DWORD const id = context->GetThreadId();
    EXPECT_EQ(context->GetExitCode(), 7);
    EXPECT_EQ(Description(id), _T("[Idle/Unused] ") + Unnamed(&WaitJob));
    EXPECT_GT(g_nStarted, 0);
    CThreadPool::MarkThread(id, _T("a"), 1);
    CThreadPool::MarkThread(id, _T("b"), 0);
    CThreadPool::MarkThread(id, _T(""), 1);
    EXPECT_EQ(Description(id), _T("[Idle/Unused] b.a"));
    context->SetValue(_T("name"), 5);

    go.ResetEvent();
    ASSERT_EQ(CThreadPool::BeginThread(&WaitJob, &go, 0), context);
    EXPECT_EQ(context->GetThreadId(), id);
    EXPECT_EQ(Description(id), Unnamed(&WaitJob));
    EXPECT_EQ(CThreadPool::GetContextFromThreadId(id), context);
    EXPECT_EQ(context->GetValue(_T("name")), _T("5")); // values stay
    EXPECT_FALSE(context->WaitForExit(0));
    go.SetEvent();
    EXPECT_TRUE(context->WaitForExit(PATIENCE));
    EXPECT_FALSE(context->WaitForExit(0)); // one wait takes one end
    EXPECT_EQ(CThreadPool::GetCurrentThreadContext(), nullptr);
    EXPECT_EQ(CThreadPool::GetContextFromThreadId(static_cast<DWORD>(-1)), nullptr);
}

TEST_F(Pool, JobsLeaveTheirThreadsUsable)
{
    CEvent go(TRUE, TRUE);
    CThreadContext * const context = RunJob(&WaitJob, &go);
    EXPECT_EQ(RunJob(&FailingJob, &go), context);
    EXPECT_EQ(context->GetExitCode(), 7); // of the last job that returned
    EXPECT_EQ(RunJob(&FailingJob, nullptr), context);
    EXPECT_EQ(context->GetExitCode(), 1234);
    auto const session = [](void *) -> unsigned int
    {
        DWORD const id = CLogManager::GetInstance()->GetThreadSessionId();
        CLogManager::GetInstance()->SetThreadSessionId(17);
        return id == 0 &&
               CThreadPool::GetCurrentThreadContext() == CThreadPool::GetContextFromThreadId(static_cast<DWORD>(-1));
    };
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_EQ(RunJob(session, nullptr)->GetExitCode(), 1);
    }
}

TEST_F(Pool, EndedThreadsAreNotUsedAgain)
{
    CEvent go(TRUE, TRUE);
    CThreadContext * const parked = RunJob(&WaitJob, &go);
    int const nEnded = g_nEnded;
    EXPECT_TRUE(parked->Terminate(PATIENCE, 0));
    EXPECT_EQ(g_nEnded, nEnded + 1);
    EXPECT_EQ(parked->GetThreadId(), 0u);
    EXPECT_TRUE(parked->Terminate(0, 0)); // it has no thread any more
    CThreadContext * const told = RunJob(&WaitJob, &go);
    EXPECT_NE(told, parked);
    told->Terminate(0, 0); // without waiting for it to end
    CThreadContext * const fresh = RunJob(&WaitJob, &go);
    EXPECT_TRUE(fresh != parked && fresh != told);

    go.ResetEvent();
    CEvent entered;
    Gate gate{go, entered};
    ASSERT_EQ(CThreadPool::BeginThread(&GateJob, &gate, 0), fresh);
    EXPECT_TRUE(gate.m_entered.Lock(PATIENCE));
    EXPECT_FALSE(fresh->Terminate(1, 0)); // ends behind its job
    EXPECT_NE(fresh->GetThreadId(), 0u);
    go.SetEvent();
    EXPECT_TRUE(fresh->WaitForExit(PATIENCE));
    EXPECT_TRUE(fresh->Terminate(PATIENCE, 0));
    EXPECT_EQ(fresh->GetThreadHandle(), nullptr);
}

TEST_F(Pool, JobsLeaveNothingToTheNextOne)
{
    auto const job = [](void *) -> unsigned int
    {
        int const priority = GetThreadPriority(GetCurrentThread());
        SetThreadPriority(GetCurrentThread(), THREAD_PRIORITY_LOWEST);
        return static_cast<unsigned int>(priority);
    };
    CThreadContext * const context = RunJob(job, nullptr);
    EXPECT_EQ(RunJob(job, nullptr), context);
    EXPECT_EQ(context->GetExitCode(), THREAD_PRIORITY_NORMAL);

    // A thread that ends later than somebody was willing to wait leaves no handle behind.
    CEvent go(FALSE, TRUE);
    ASSERT_EQ(CThreadPool::BeginThread(&WaitJob, &go, 0), context);
    EXPECT_FALSE(context->Terminate(0, 0));
    go.SetEvent();
    while (context->GetThreadHandle())
    {
        std::this_thread::yield();
    }
    EXPECT_EQ(context->GetThreadId(), 0u);
}

TEST_F(Pool, AJobMayEndAllThreadsButItsOwn)
{
    CEvent never(FALSE, TRUE);
    CEvent entered;
    Gate gate{never, entered};
    CThreadContext * const stuck = CThreadPool::BeginThread(&GateJob, &gate, 0);
    entered.Lock(PATIENCE);
    auto const end = [](void *) -> unsigned int
    {
        CThreadPool::TerminateAllThreads(10);
        return 3;
    };
    CThreadContext * const context = CThreadPool::BeginThread(end, nullptr, 0);
    EXPECT_TRUE(context->WaitForExit(PATIENCE));
    EXPECT_EQ(context->GetExitCode(), 3);
    EXPECT_EQ(stuck->GetThreadHandle(), nullptr);
    EXPECT_NE(RunJob(&WaitJob, &(never.SetEvent(), never)), context); // it has ended behind its job
}

TEST_F(Pool, ServesManyAtOnce)
{
    EXPECT_TRUE(CThreadPool::PreAllocate(0, 0) && CThreadPool::PreAllocate(3, 0));
    static std::atomic<int> s_nRuns{0};
    CString const text = _T("shared by all");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
    {
        threads.emplace_back(
            [&text]
            {
                for (int k = 0; k < 100; ++k)
                {
                    auto const job = [](void * shared) -> unsigned int
                    {
                        CString mine = *static_cast<CString const *>(shared);
                        CString const copy = mine;
                        mine.MakeUpper();
                        s_nRuns += copy == _T("shared by all") && mine == _T("SHARED BY ALL");
                        return 0;
                    };
                    CThreadContext * const context = CThreadPool::BeginThread(job, const_cast<CString *>(&text), 0);
                    CThreadPool::MarkThread(context->GetThreadId(), _T("runner"), 1);
                    CDictionary all;
                    CThreadPool::GetThreadDescriptions(all);
                }
            });
    }
    for (std::thread & thread : threads)
    {
        thread.join();
    }
    while (s_nRuns < 400)
    {
        std::this_thread::yield();
    }
}
