#include "tests/support/Patience.h"

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

/// Serves the highest number first, and throws wherever it is asked.
class CPriorityQueue : public CThreadQueue
{
public:
    explicit CPriorityQueue(Log & log) : CThreadQueue(&Serve, &log, 1, 0, _T("priority")) {}
    int m_nStarts = 0;
    int m_nEnds = 0;

protected:
    CObject * PopNextObject() override
    {
        CJob * best = nullptr;
        while (auto * const job = static_cast<CJob *>(CThreadQueue::PopNextObject()))
        {
            if (best && best->m_nNumber > job->m_nNumber)
            {
                m_rest.push_back(job);
                continue;
            }
            if (best)
            {
                m_rest.push_back(best);
            }
            best = job;
        }
        for (CJob * const job : m_rest)
        {
            Insert(job);
        }
        m_rest.clear();
        return best;
    }
    void ServiceThreadStarting(DWORD) override
    {
        ++m_nStarts;
        throw 1;
    }
    void ServiceThreadEnding(DWORD) override
    {
        ++m_nEnds;
        throw 1;
    }

private:
    std::vector<CJob *> m_rest;
};
} // namespace

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

TEST(Queue, FansOutToItsMaximum)
{
    Log log;
    log.go.ResetEvent();
    CThreadQueue queue(&Serve, &log, 3, 0, _T("three"));
    for (int i = 0; i < 4; ++i)
    {
        queue.Insert(new CJob(i));
    }
    while (log.Inside() < 3)
    {
        std::this_thread::yield();
    }
    EXPECT_EQ(queue.GetObjectCount(), 1);
    log.go.SetEvent();
    EXPECT_TRUE(queue.WaitForIdle(PATIENCE));
    EXPECT_EQ(log.Served().size(), 4u);
    EXPECT_EQ(log.nMost, 3);
    queue.Stop(1, 1);
}

TEST(Queue, StopDeletesWhatWaits)
{
    Log log;
    log.go.ResetEvent();
    CThreadQueue queue(&Serve, &log, 1, 0, _T("stopped"));
    for (int i = 0; i < 3; ++i)
    {
        queue.Insert(new CJob(i));
    }
    while (log.Inside() == 0)
    {
        std::this_thread::yield();
    }
    EXPECT_EQ(queue.Stop(0, 1), 1); // at once
    EXPECT_EQ(CJob::sm_nAlive, 1);
    log.go.SetEvent();
    EXPECT_TRUE(queue.Stop(1, 1));
    EXPECT_THAT(log.Served(), ElementsAre(0));

    CThreadQueue none(&Serve, &log, 0, 0, _T("none"));
    CJob kept(1);
    EXPECT_EQ(none.Insert(&kept), 1); // accepted, and never served
    EXPECT_EQ(none.GetObjectCount(), 1);
    EXPECT_TRUE(none.Stop(1, 0));
    EXPECT_EQ(none.GetObjectCount(), 0);

    CThreadQueue idle(nullptr, nullptr, 1, 0, _T("drops"));
    idle.Insert(&kept);
    EXPECT_TRUE(idle.WaitForIdle(PATIENCE) && idle.GetObjectCount() == 0);
    idle.Stop(1, 1);
}

TEST(Queue, DerivedQueuesChoose)
{
    Log log;
    log.go.ResetEvent();
    CPriorityQueue queue(log);
    queue.Insert(new CJob(5));
    while (log.Inside() == 0)
    {
        std::this_thread::yield();
    }
    for (int const number : {1, 3, 2})
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
