#include "kvx/threads/TimerQueue.h"

#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/threads/ThreadTie.h"
#include "kvx/threads/TimerWheel.h"

#include <algorithm>
#include <array>
#include <functional>
#include <limits>
#include <utility>

/// A line of the cache each: among many timers a look at one is a miss, and two would cost twice as much.
class alignas(64) CTimerQueue::CTimer : public kvx::TimerEntry
{
public:
    TimerFunction m_pFunction = nullptr;
    void * m_pParam = nullptr;
    CTimer * m_pNextFree = nullptr;
    bool m_bWaits = false;
};

namespace
{
constexpr std::size_t FIRST_BLOCK = 16; // timers
constexpr DWORD CLOCK_LOOK = 250;       // milliseconds until a change of the clock is noticed

/// The difference of an overdue time wraps round, beyond any delay.
DWORD Distance(ULONGLONG now, ULONGLONG time)
{
    ULONGLONG const left = time - now;
    return left >> 32 ? 0 : static_cast<DWORD>(left);
}
} // namespace

struct CTimerQueue::StThread
{
    CTimerQueue * pQueue;
    std::shared_ptr<kvx::ThreadTie> pTie;
    bool bDeferred;
};

CTimerQueue::CTimerQueue() : CTimerQueue([] { return GetTickCount().QuadPart; }) {}

CTimerQueue::CTimerQueue(ClockProc clock) : m_pClock(clock), m_pWheel(std::make_unique<kvx::TimerWheel>()) {}

CTimerQueue::~CTimerQueue()
{
    DeleteAllTimers();
    std::array<std::shared_ptr<kvx::ThreadTie>, 2> threads;
    {
        CSingleLock guard(*this, TRUE);
        threads = {m_pThread, m_pDeferred};
    }
    if (threads[0] && threads[0]->GetThreadId() != GetCurrentThreadId())
    {
        CThreadPool::WaitForThread(m_idleEvent, INFINITE);
    }
    // A function that doesn't come to its end, or is what destroys the queue, finds it gone.
    for (std::shared_ptr<kvx::ThreadTie> const & thread : threads)
    {
        while (thread && !thread->Cut() && !CThreadPool::IsTerminated())
        {
            Sleep(0);
        }
    }
    CSingleLock guard(*this, TRUE); // the thread left under the lock, and must be out of there
}

ULARGE_INTEGER CTimerQueue::GetTickCount()
{
    constexpr ULONGLONG TICKS_PER_MS = 10000;
    FILETIME time{};
    GetSystemTimeAsFileTime(&time);
    ULARGE_INTEGER now{};
    now.QuadPart = (ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime) / TICKS_PER_MS;
    return now;
}

DWORD CTimerQueue::CalcWaitTime(CTimer * timer)
{
    return Distance(GetTickCount().QuadPart, timer->nDue);
}

CTimerQueue::CTimer * CTimerQueue::TakeFree()
{
    if (!m_pFree)
    {
        std::size_t const length = FIRST_BLOCK << m_blocks.size();
        m_blocks.push_back(std::make_unique<CTimer[]>(length));
        for (std::size_t i = length; i > 0; --i)
        {
            MakeFree(&m_blocks.back()[i - 1]);
        }
    }
    return std::exchange(m_pFree, m_pFree->m_pNextFree);
}

void CTimerQueue::MakeFree(CTimer * timer)
{
    timer->m_pNextFree = std::exchange(m_pFree, timer);
}

/// A handle is looked up before it is believed.
CTimerQueue::CTimer * CTimerQueue::FindWaiting(void * handle) const
{
    auto * const timer = static_cast<CTimer *>(handle);
    for (std::size_t i = m_blocks.size(); i > 0; --i)
    {
        CTimer * const block = m_blocks[i - 1].get();
        std::size_t const length = FIRST_BLOCK << (i - 1);
        if (!std::less<>()(timer, block) && std::less<>()(timer, block + length))
        {
            auto const offset = reinterpret_cast<UINT_PTR>(timer) - reinterpret_cast<UINT_PTR>(block);
            return offset % sizeof(CTimer) == 0 && timer->m_bWaits ? timer : nullptr;
        }
    }
    return nullptr;
}

void * CTimerQueue::CreateTimer(DWORD delay, TimerFunction function, void * param)
{
    CSingleLock guard(*this, TRUE);
    CTimer * const timer = TakeFree();
    timer->m_pFunction = function;
    timer->m_pParam = param;
    InsertTimer(timer, delay);
    return timer;
}

int CTimerQueue::ChangeTimer(void * handle, DWORD delay)
{
    CSingleLock guard(*this, TRUE);
    CTimer * const timer = FindWaiting(handle);
    if (!timer)
    {
        return 0;
    }
    RemoveTimer(timer);
    InsertTimer(timer, delay);
    return 1;
}

int CTimerQueue::DeleteTimer(void * handle)
{
    CSingleLock guard(*this, TRUE);
    CTimer * const timer = FindWaiting(handle);
    if (!timer)
    {
        return 0;
    }
    RemoveTimer(timer);
    MakeFree(timer);
    if (m_pWheel->IsEmpty())
    {
        m_wakeEvent.SetEvent();
    }
    return 1;
}

int CTimerQueue::DeleteAllTimers()
{
    CSingleLock guard(*this, TRUE);
    for (ULONGLONG next = 0; !m_pWheel->IsEmpty();)
    {
        auto * const timer = static_cast<CTimer *>(m_pWheel->GetFirst(std::numeric_limits<ULONGLONG>::max(), next));
        RemoveTimer(timer);
        MakeFree(timer);
    }
    m_wakeEvent.SetEvent();
    return 1;
}

void CTimerQueue::RemoveTimer(CTimer * timer)
{
    m_pWheel->Remove(*timer);
    timer->m_bWaits = false;
}

void CTimerQueue::InsertTimer(CTimer * timer, DWORD delay)
{
    ULONGLONG const now = m_pClock();
    timer->nDue = now + delay;
    timer->m_bWaits = true;
    m_pWheel->Insert(*timer, now);
    if (!m_pThread)
    {
        StartThread();
    }
    if (timer->nDue < m_nWaitsUntil)
    {
        m_wakeEvent.SetEvent();
    }
}

void CTimerQueue::StartThread()
{
    CString text;
    text.Format(_T("TimerQueue::TimerProc: %X"), &CTimerQueue::TimerProc);
    auto share = std::make_unique<StThread>(StThread{this, std::make_shared<kvx::ThreadTie>(), false});
    m_pThread = share->pTie;
    m_idleEvent.ResetEvent();
    if (CThreadPool::BeginThread(&ThreadProc, share.get(), 0, text))
    {
        share.release(); // the thread's
        return;
    }
    m_pThread = nullptr;
    m_idleEvent.SetEvent();
    if (!m_pDeferred && !CKVXBaseApp::IsShuttingDown())
    {
        m_pDeferred = share->pTie;
        share->bDeferred = true;
        CThreadPool::BeginThreadLater(&ThreadProc, share.release(), 0, text);
    }
}

unsigned int CTimerQueue::ThreadProc(void * param)
{
    std::unique_ptr<StThread> const share(static_cast<StThread *>(param));
    if (!share->pTie->Enter() || (share->bDeferred && !share->pQueue->TakeUpService(share->pTie)))
    {
        return 0;
    }
    share->pTie->SetThread(GetCurrentThreadId());
    return TimerProc(share->pQueue);
}

/// A thread that came late. False if there is nothing left to do.
bool CTimerQueue::TakeUpService(std::shared_ptr<kvx::ThreadTie> const & tie)
{
    CSingleLock guard(*this, TRUE);
    m_pDeferred = nullptr;
    if (m_pThread || m_pWheel->IsEmpty())
    {
        tie->Leave();
        return false;
    }
    m_pThread = tie;
    m_idleEvent.ResetEvent();
    return true;
}

unsigned int CTimerQueue::TimerProc(CTimerQueue * queue)
{
    CThreadContext * const context = CThreadPool::GetCurrentThreadContext();
    CSingleLock guard(*queue, TRUE);
    kvx::ThreadTie & tie = *queue->m_pThread;
    Served served = Served::On;
    while (context && served == Served::On && !queue->m_pWheel->IsEmpty())
    {
        served = queue->ServeTimer(guard, tie, context->GetActiveHandle());
    }
    if (served == Served::QueueGone)
    {
        return 0;
    }
    // Under the lock that has shown an empty list: the next timer starts the next thread.
    DWORD const error = context ? GetLastError() : static_cast<DWORD>(-1);
    queue->m_pThread = nullptr;
    queue->m_idleEvent.SetEvent();
    tie.Leave();
    return error;
}

/// Runs the first timer if it is due, else waits until it is or the list changes.
CTimerQueue::Served CTimerQueue::ServeTimer(CSingleLock & guard, kvx::ThreadTie & tie, HANDLE endEvent)
{
    ULONGLONG const now = m_pClock();
    ULONGLONG next = 0;
    kvx::TimerEntry * first = m_pWheel->GetFirst(now, next);
    if (!first && Distance(now, next) == 0)
    {
        // Beyond any delay, for the clock was set back: what is that far off counts as overdue.
        first = m_pWheel->GetFirst(std::numeric_limits<ULONGLONG>::max(), next);
    }
    auto * const timer = static_cast<CTimer *>(first);
    if (DWORD const wait = Distance(now, timer ? timer->nDue : next))
    {
        m_nWaitsUntil = now + wait;
        guard.Unlock();
        std::array<HANDLE, 2> const handles{endEvent, m_wakeEvent};
        // Waits run on the steady clock, which knows nothing of a change of the other one.
        DWORD const woken = WaitForMultipleObjects(2, handles.data(), FALSE, std::min(wait, CLOCK_LOOK));
        m_wakeEvent.ResetEvent();
        guard.Lock();
        m_nWaitsUntil = 0;
        return woken != WAIT_OBJECT_0 && woken != WAIT_FAILED ? Served::On : Served::ToldToEnd;
    }
    RemoveTimer(timer);
    TimerFunction const function = timer->m_pFunction;
    void * const param = timer->m_pParam;
    guard.Unlock();
    tie.Leave();
    try
    {
        if (function)
        {
            function(param);
        }
    }
    catch (CException * failure)
    {
        failure->Delete();
    }
    catch (...)
    {
    }
    if (!tie.Enter())
    {
        return Served::QueueGone;
    }
    guard.Lock();
    MakeFree(timer);
    return Served::On;
}
