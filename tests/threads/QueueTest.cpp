#include "tests/support/Host.h"
#include "tests/support/OneHost.h"
#include "tests/support/Patience.h"
#include "tests/threads/Parked.h"

#include "kvx/foundation/AppException.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/threads/ThreadQueue.h"

#include <gmock/gmock.h>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using testing::ElementsAre;

namespace
{
class CJob : public CObject
{
public:
    explicit CJob(int number) : m_nNumber(number) { ++sm_nAlive; }
    ~CJob() override { --sm_nAlive; }
    static inline std::atomic<int> sm_nAlive{0};
    int m_nNumber;
};

/// What the service procedure has done, and what holds it up.
struct Log
{
    std::mutex lock;
    std::vector<int> served;
    int nInside = 0;
    int nMost = 0;
    CEvent go{TRUE, TRUE};

    std::vector<int> Served()
    {
        std::scoped_lock const guard(lock);
        return served;
    }
    int Inside()
    {
        std::scoped_lock const guard(lock);
        return nInside;
    }
};

/// Negative numbers throw.
void Serve(CObject * object, void * param)
{
    std::unique_ptr<CJob> const job(static_cast<CJob *>(object));
    auto & log = *static_cast<Log *>(param);
    {
        std::scoped_lock const guard(log.lock);
        log.nMost = std::max(log.nMost, ++log.nInside);
    }
    log.go.Lock(PATIENCE);
    std::scoped_lock const guard(log.lock);
    log.served.push_back(job->m_nNumber);
    --log.nInside;
    if (job->m_nNumber == -1)
    {
        ThrowAppException(5, _T("%s"), CString(_T('x'), 3000));
    }
    if (job->m_nNumber < 0)
    {
        throw 5;
    }
}

/// Serves the last one first, and throws wherever it is asked.
class CStack : public CThreadQueue
{
public:
    explicit CStack(Log & log) : CThreadQueue(&Serve, &log, 1, 0, _T("stack")) {}
    int m_nStarts = 0;
    int m_nEnds = 0;

protected:
    CObject * PopNextObject() override
    {
        std::vector<CObject *> all;
        while (CObject * const job = CThreadQueue::PopNextObject())
        {
            all.push_back(job);
        }
        for (std::size_t i = 0; i + 1 < all.size(); ++i)
        {
            Insert(all[i]);
        }
        return all.empty() ? nullptr : all.back();
    }
    void ServiceThreadStarting(DWORD) override
    {
        ++m_nStarts;
        throw 1;
    }
    void ServiceThreadEnding(DWORD) override
    {
        ++m_nEnds;
        ThrowAppException(5, _T("nobody's"));
    }
};

/// While it lives the system gives no more threads, and the pool's are busy.
class NoThreads
{
public:
    NoThreads()
    {
        WaitUntilAllHaveParked();
        sm_go.ResetEvent();
        host::AllowThreads(false);
        auto const wait = [](void * go) -> unsigned int { return static_cast<CEvent *>(go)->Lock(PATIENCE) != 0; };
        while (CThreadPool::BeginThread(wait, &sm_go, 0))
        {
        }
    }
    NoThreads(NoThreads const &) = delete;
    NoThreads & operator=(NoThreads const &) = delete;
    ~NoThreads() { sm_go.SetEvent(); }

    /// The system gives threads again; the pool's are still busy.
    void Allow() { host::AllowThreads(true); }

private:
    static inline CEvent sm_go{FALSE, TRUE}; // a job may look at it when all is over
};
} // namespace

TEST(Queue, WhatFoundNoThreadIsServedWhenThereIsOne)
{
    KVX_LINUX_ALONE("Windows can't be made to refuse a thread", "2026-11-22");
    CThreadPool::PreAllocate(2, 0);
    for (bool const bInsertAgain : {false, true})
    {
        Log log;
        CThreadQueue queue(&Serve, &log, 1, 0, _T("late"));
        auto gone = std::make_unique<CThreadQueue>(&Serve, &log, 1, 0, _T("gone"));
        {
            NoThreads none;
            EXPECT_EQ(queue.InsertOrDelete(new CJob(1)), 1);
            EXPECT_EQ(queue.Insert(new CJob(2)), 0);
            CJob kept(9);
            EXPECT_EQ(gone->InsertOrDelete(&kept), 1);
            gone.reset();
            EXPECT_TRUE(queue.IsIdle() && queue.GetObjectCount() == 2);
            none.Allow();
            if (bInsertAgain)
            {
                EXPECT_EQ(queue.Insert(new CJob(3)), 1);
                EXPECT_TRUE(queue.WaitForIdle(PATIENCE));
            }
        }
        while (log.Served().size() < (bInsertAgain ? 3u : 2u))
        {
            std::this_thread::yield();
        }
        EXPECT_TRUE(queue.Stop(1, 1));
    }
}

TEST(Queue, MayGoWhileItServes)
{
    static std::unique_ptr<CThreadQueue> s_pOwn;
    static CEvent s_gone;
    static CEvent s_done;
    auto const destroy = [](CObject *, void *)
    {
        EXPECT_EQ(s_pOwn->WaitForIdle(INFINITE) + s_pOwn->Stop(1, 1), 0); // not for itself
        s_pOwn.reset();
        s_done.SetEvent();
    };
    s_pOwn = std::make_unique<CThreadQueue>(destroy, nullptr, 1, 0, _T("own"));
    s_pOwn->Insert(nullptr); // which the queue drops
    CObject job;
    s_pOwn->Insert(&job);
    EXPECT_TRUE(s_done.Lock(PATIENCE));
    auto const wait = [](CObject *, void * entered)
    {
        static_cast<CEvent *>(entered)->SetEvent();
        s_gone.Lock(PATIENCE);
        s_done.SetEvent();
    };
    CEvent entered;
    auto queue = std::make_unique<CThreadQueue>(wait, &entered, 1, 0, _T("left"));
    queue->Insert(&job);
    EXPECT_TRUE(entered.Lock(PATIENCE));
    queue.reset();
    s_gone.SetEvent();
    EXPECT_TRUE(s_done.Lock(PATIENCE));
}

TEST(Queue, OneThreadServesInOrderWhateverIsThrown)
{
    Log log;
    CThreadQueue queue(&Serve, &log, 1, 0, _T(""));
    EXPECT_TRUE(queue.IsIdle());
    log.go.ResetEvent();
    for (int const number : {3, -1, -2, 1, 2})
    {
        EXPECT_TRUE(queue.Insert(new CJob(number)));
    }
    EXPECT_FALSE(queue.IsIdle());
    CDictionary all;
    CThreadPool::GetThreadDescriptions(all);
    EXPECT_GE(all.ToString(1, _T(" ")).Find(_T("=\"Unnamed ThreadQueue (ServiceProc: ")), 0);
    log.go.SetEvent();
    EXPECT_TRUE(queue.WaitForIdle(PATIENCE));
    EXPECT_THAT(log.Served(), ElementsAre(3, -1, -2, 1, 2));
    EXPECT_TRUE(queue.Stop(1, 0));
    std::unique_ptr<CJob> const late(new CJob(9));
    EXPECT_FALSE(queue.Insert(late.get()));
    EXPECT_FALSE(queue.InsertOrDelete(new CJob(10)));
}

TEST(Queue, FansOutToItsMaximumAndStopDeletesWhatWaits)
{
    Log log;
    log.go.ResetEvent();
    CThreadQueue queue(&Serve, &log, 3, 0, _T("three"));
    for (int i = 0; i < 5; ++i)
    {
        queue.Insert(new CJob(i));
    }
    while (log.Inside() < 3)
    {
        std::this_thread::yield();
    }
    EXPECT_EQ(queue.GetObjectCount(), 2);
    EXPECT_EQ(queue.Stop(0, 1), 1); // at once
    EXPECT_EQ(CJob::sm_nAlive, 3);
    log.go.SetEvent();
    EXPECT_TRUE(queue.Stop(1, 1));
    EXPECT_EQ(log.Served().size(), 3u);
    EXPECT_EQ(log.nMost, 3);

    CThreadQueue none(&Serve, &log, 0, 0, _T("none"));
    CJob kept(1);
    EXPECT_EQ(none.Insert(&kept), 1); // accepted, and never served
    EXPECT_EQ(none.GetObjectCount(), 1);
    EXPECT_TRUE(none.Stop(1, 0));
    EXPECT_EQ(none.GetObjectCount(), 0);
}

TEST(Queue, DerivedQueuesChoose)
{
    Log log;
    log.go.ResetEvent();
    CStack queue(log);
    queue.Insert(new CJob(5));
    while (log.Inside() == 0)
    {
        std::this_thread::yield();
    }
    for (int const number : {1, 2, 3})
    {
        queue.Insert(new CJob(number));
    }
    log.go.SetEvent();
    EXPECT_TRUE(queue.WaitForIdle(PATIENCE));
    EXPECT_THAT(log.Served(), ElementsAre(5, 3, 2, 1));
    queue.Stop(1, 1);
    EXPECT_EQ(queue.m_nStarts, queue.m_nEnds);
}

TEST(Queue, LosesNothingAndMayGoAtOnce)
{
    for (int const nMaximum : {1, 2})
    {
        for (int round = 0; round < 150; ++round)
        {
            Log log;
            {
                CThreadQueue queue(&Serve, &log, nMaximum, 0, _T("many"));
                std::thread other(
                    [&]
                    {
                        for (int i = 0; i < 20; ++i)
                        {
                            queue.Insert(new CJob(i));
                        }
                    });
                for (int i = 0; i < 20; ++i)
                {
                    queue.Insert(new CJob(i));
                    std::this_thread::yield();
                }
                other.join();
                ASSERT_TRUE(queue.WaitForIdle(PATIENCE)); // and nobody comes to serve what is left
                ASSERT_EQ(log.Served().size(), 40u);
                queue.Stop(1, 1);
            }
            ASSERT_EQ(CJob::sm_nAlive, 0);
        }
    }
}
