#include "kvx/threads/TimerQueue.h"

#include "kvx/threads/ThreadPool.h"

#include <array>

class CTimerQueue::CTimer : public CObject
{
public:
    ULARGE_INTEGER m_due{};
    ULONGLONG m_nNumber = 0; // counts the insertions
    TimerFunction m_pFunction = nullptr;
    void * m_pParam = nullptr;
};

bool CTimerQueue::FiresEarlier::operator()(CTimer const * a, CTimer const * b) const noexcept
{
    return a->m_due.QuadPart != b->m_due.QuadPart ? a->m_due.QuadPart < b->m_due.QuadPart : a->m_nNumber > b->m_nNumber;
}

CTimerQueue::CTimerQueue() = default;

CTimerQueue::~CTimerQueue()
{
    DeleteAllTimers();
    // A thread that the library's shutdown has killed never says that it is gone.
    constexpr DWORD LOOK = 50; // milliseconds
    while (!m_idleEvent.Lock(LOOK) && !CThreadPool::IsTerminated())
    {
    }
    CSingleLock guard(*this, TRUE); // the thread said so under the lock, and must be out of there
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
    // The difference of an overdue timer wraps round, beyond any delay.
    ULONGLONG const left = timer->m_due.QuadPart - GetTickCount().QuadPart;
    return left >> 32 ? 0 : static_cast<DWORD>(left);
}

void * CTimerQueue::CreateTimer(DWORD delay, TimerFunction function, void * param)
{
    CSingleLock guard(*this, TRUE);
    CTimer * const timer = m_cache.Allocate();
    timer->m_pFunction = function;
    timer->m_pParam = param;
    InsertTimer(timer, delay);
    return timer;
}

int CTimerQueue::ChangeTimer(void * handle, DWORD delay)
{
    CSingleLock guard(*this, TRUE);
    auto * const timer = static_cast<CTimer *>(handle);
    if (!RemoveTimer(timer))
    {
        return 0;
    }
    InsertTimer(timer, delay);
    return 1;
}

int CTimerQueue::DeleteTimer(void * handle)
{
    CSingleLock guard(*this, TRUE);
    auto * const timer = static_cast<CTimer *>(handle);
    if (!RemoveTimer(timer))
    {
        return 0;
    }
    m_cache.Return(timer);
    if (m_timers.empty())
    {
        m_wakeEvent.SetEvent();
    }
    return 1;
}

int CTimerQueue::DeleteAllTimers()
{
    CSingleLock guard(*this, TRUE);
    for (CTimer * const timer : m_timers)
    {
        m_cache.Return(timer);
    }
    m_timers.clear();
    m_handles.clear();
    m_wakeEvent.SetEvent();
    return 1;
}

bool CTimerQueue::RemoveTimer(CTimer * timer)
{
    if (m_handles.erase(timer) == 0)
    {
        return false;
    }
    m_timers.erase(timer);
    return true;
}

void CTimerQueue::InsertTimer(CTimer * timer, DWORD delay)
{
    timer->m_due.QuadPart = GetTickCount().QuadPart + delay;
    timer->m_nNumber = ++m_nInserted;
    m_handles.insert(timer);
    m_timers.insert(timer);
    if (!m_pThread)
    {
        StartThread();
    }
    if (*m_timers.begin() == timer)
    {
        m_wakeEvent.SetEvent();
    }
}

void CTimerQueue::StartThread()
{
    auto const proc = [](void * queue) -> unsigned int { return TimerProc(static_cast<CTimerQueue *>(queue)); };
    m_idleEvent.ResetEvent();
    m_pThread = CThreadPool::BeginThread(proc, this, 0);
    if (!m_pThread)
    {
        m_idleEvent.SetEvent();
        return;
    }
    CString text;
    text.Format(_T("TimerQueue::TimerProc: %X"), &CTimerQueue::TimerProc);
    CThreadPool::MarkThread(m_pThread->GetThreadId(), text, 1);
}

unsigned int CTimerQueue::TimerProc(CTimerQueue * queue)
{
    CThreadContext * const context = CThreadPool::GetContextFromThreadId(static_cast<DWORD>(-1));
    CSingleLock guard(*queue, TRUE);
    while (context && !queue->m_timers.empty() && queue->ServeTimer(guard, context->GetActiveHandle()))
    {
    }
    // Under the lock that has shown an empty list: the next timer starts the next thread.
    DWORD const error = context ? GetLastError() : static_cast<DWORD>(-1);
    queue->m_pThread = nullptr;
    queue->m_idleEvent.SetEvent();
    return error;
}

/// Runs the first timer if it is due, else waits until it is or the list changes. False when the thread is told to end.
bool CTimerQueue::ServeTimer(CSingleLock & guard, HANDLE endEvent)
{
    CTimer * const timer = *m_timers.begin();
    if (DWORD const wait = CalcWaitTime(timer))
    {
        guard.Unlock();
        std::array<HANDLE, 2> const handles{endEvent, m_wakeEvent};
        DWORD const woken = WaitForMultipleObjects(2, handles.data(), FALSE, wait);
        m_wakeEvent.ResetEvent();
        guard.Lock();
        return woken != WAIT_OBJECT_0 && woken != WAIT_FAILED;
    }
    RemoveTimer(timer);
    guard.Unlock();
    try
    {
        if (timer->m_pFunction)
        {
            timer->m_pFunction(timer->m_pParam);
        }
    }
    catch (CException * failure)
    {
        failure->Delete();
    }
    catch (...)
    {
    }
    guard.Lock();
    m_cache.Return(timer);
    return true;
}
