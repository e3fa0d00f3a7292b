#include "kvx/threads/TimerQueue.h"

#include "kvx/threads/ThreadPool.h"
#include "kvx/threads/TimerWheel.h"

#include <array>
#include <functional>
#include <limits>
#include <utility>

class CTimerQueue::CTimer : public kvx::TimerEntry
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

/// The difference of an overdue time wraps round, beyond any delay.
DWORD Distance(ULONGLONG now, ULONGLONG time)
{
    ULONGLONG const left = time - now;
    return left >> 32 ? 0 : static_cast<DWORD>(left);
}
} // namespace

CTimerQueue::CTimerQueue() : m_pWheel(std::make_unique<kvx::TimerWheel>()) {}

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
    ULONGLONG const now = GetTickCount().QuadPart;
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
    auto const proc = [](void * queue) -> unsigned int { return TimerProc(static_cast<CTimerQueue *>(queue)); };
    CString text;
    text.Format(_T("TimerQueue::TimerProc: %X"), &CTimerQueue::TimerProc);
    m_idleEvent.ResetEvent();
    m_pThread = CThreadPool::BeginThread(proc, this, 0, text);
    if (!m_pThread)
    {
        m_idleEvent.SetEvent();
    }
}

unsigned int CTimerQueue::TimerProc(CTimerQueue * queue)
{
    CThreadContext * const context = CThreadPool::GetContextFromThreadId(static_cast<DWORD>(-1));
    CSingleLock guard(*queue, TRUE);
    while (context && !queue->m_pWheel->IsEmpty() && queue->ServeTimer(guard, context->GetActiveHandle()))
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
    ULONGLONG const now = GetTickCount().QuadPart;
    ULONGLONG next = 0;
    kvx::TimerEntry * first = m_pWheel->GetFirst(now, next);
    if (!first && Distance(now, next) == 0)
    {
        // Beyond any delay, for the clock was set back: what is that far off counts as overdue.
        first = m_pWheel->GetFirst(std::numeric_limits<ULONGLONG>::max(), next);
    }
    auto * const timer = static_cast<CTimer *>(first);
    if (DWORD const wait = timer ? CalcWaitTime(timer) : Distance(now, next))
    {
        m_nWaitsUntil = now + wait;
        guard.Unlock();
        std::array<HANDLE, 2> const handles{endEvent, m_wakeEvent};
        DWORD const woken = WaitForMultipleObjects(2, handles.data(), FALSE, wait);
        m_wakeEvent.ResetEvent();
        guard.Lock();
        m_nWaitsUntil = 0;
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
    MakeFree(timer);
    return true;
}
