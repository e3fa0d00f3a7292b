#pragma once

/// One-shot timers on one thread.

#include "kvx/foundation/ObCache.h"
#include "kvx/threads/ThreadContext.h"

#include <set>
#include <unordered_set>

/// The functions run one at a time, in the order in which they are due, on a thread of the pool that exists only while
/// timers wait. Of timers that are due in the same millisecond the one that was set last runs first. A long function
/// delays those behind it. What a function throws is dropped.
///
/// Due times are milliseconds of the system's clock (UTC): a change of the clock moves every timer that waits.
///
/// A handle is good until its timer has fired or was deleted. Its memory serves a later timer: an old handle may then
/// mean that one.
///
/// The destructor deletes the timers that wait, and waits for the thread: a function that runs comes to its end first.
/// A function may not destroy its own queue.
/// Threads: all operations may be called from any thread, a timer's function included.
class KVX_API CTimerQueue : public CLockable
{
public:
    using TimerFunction = void (*)(void *);

    CTimerQueue();
    CTimerQueue(CTimerQueue const &) = delete;
    CTimerQueue & operator=(CTimerQueue const &) = delete;
    ~CTimerQueue() override;

    /// Calls `function` with `param` in `delay` milliseconds. Always gives a handle: when no thread can be had the
    /// timer waits until a later timer gets one, and during the library's shutdown for ever.
    void * CreateTimer(DWORD delay, TimerFunction function, void * param);
    /// Counts a new delay, in milliseconds, from now. 0 if the timer has fired or was deleted.
    int ChangeTimer(void * timer, DWORD delay);
    /// 1 if the timer was waiting and is gone; 0 if its function has begun, or it was deleted.
    int DeleteTimer(void * timer);
    int DeleteAllTimers();

protected:
    class CTimer;

    /// Milliseconds until the timer is due; 0 when it is overdue.
    static DWORD CalcWaitTime(CTimer * timer);
    /// Milliseconds of UTC since 1601.
    static ULARGE_INTEGER GetTickCount();
    void InsertTimer(CTimer * timer, DWORD delay);
    static unsigned int TimerProc(CTimerQueue * queue);

private:
    struct FiresEarlier
    {
        bool operator()(CTimer const * a, CTimer const * b) const noexcept;
    };

    CEvent m_wakeEvent{FALSE, TRUE}; // signalled when there is another timer at the head, or none any more
    CEvent m_idleEvent{TRUE, TRUE};  // signalled while there is no thread
    std::set<CTimer *, FiresEarlier> m_timers;
    std::unordered_set<void const *> m_handles; // of the timers that wait: a handle is looked up before it is believed
    CCache<CTimer> m_cache;
    CThreadContext * m_pThread = nullptr;
    ULONGLONG m_nInserted = 0;

    bool RemoveTimer(CTimer * timer);
    bool ServeTimer(CSingleLock & guard, HANDLE endEvent);
    void StartThread();
};
