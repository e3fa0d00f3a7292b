#pragma once

/// One-shot timers on one thread.

#include "kvx/foundation/Lockable.h"

#include <memory>
#include <vector>

namespace kvx
{
class ThreadTie;
class TimerWheel;
} // namespace kvx

/// The functions run one at a time, in the order in which they are due, on a thread of the pool that exists only while
/// timers wait. Of timers that are due in the same millisecond the one that was set last runs first. A long function
/// delays those behind it. What a function throws is dropped.
///
/// Due times are milliseconds of the system's clock (UTC): a change of the clock moves every timer that waits. The
/// thread notices one, forward or back, and a machine that has slept, within a quarter of a second.
///
/// A handle is good until its timer has fired or was deleted. Its memory serves a later timer: an old handle may then
/// mean that one.
///
/// The destructor deletes the timers that wait, and waits for the thread: a function that runs comes to its end first,
/// unless it is that function which destroys the queue, or hangs while the process exits.
/// Threads: all operations may be called from any thread, a timer's function included.
class KVX_API CTimerQueue : public CLockable
{
public:
    using TimerFunction = void (*)(void *);

    /// Milliseconds of UTC since 1601.
    using ClockProc = ULONGLONG (*)();

    CTimerQueue();
    CTimerQueue(CTimerQueue const &) = delete;
    CTimerQueue & operator=(CTimerQueue const &) = delete;
    ~CTimerQueue() override;

    /// Calls `function` with `param` in `delay` milliseconds. Always gives a handle: when the system gives no thread
    /// the timer waits until a later timer gets one, or another thread of the pool has done its job; during the
    /// library's shutdown for ever.
    void * CreateTimer(DWORD delay, TimerFunction function, void * param);
    /// Counts a new delay, in milliseconds, from now. 0 if the timer has fired or was deleted.
    int ChangeTimer(void * timer, DWORD delay);
    /// 1 if the timer was waiting and is gone; 0 if its function has begun, or it was deleted.
    int DeleteTimer(void * timer);
    int DeleteAllTimers();

protected:
    class CTimer;

    /// With another clock than the system's, which all due times are counted on.
    explicit CTimerQueue(ClockProc clock);

    /// Milliseconds until the timer is due; 0 when it is overdue.
    static DWORD CalcWaitTime(CTimer * timer);
    /// Milliseconds of UTC since 1601.
    static ULARGE_INTEGER GetTickCount();
    void InsertTimer(CTimer * timer, DWORD delay);
    static unsigned int TimerProc(CTimerQueue * queue);

private:
    struct StThread;

    ClockProc const m_pClock;
    CEvent m_wakeEvent{FALSE, TRUE}; // signalled when a timer comes that the thread doesn't wait for, or none is left
    CEvent m_idleEvent{TRUE, TRUE};  // signalled while there is no thread
    std::unique_ptr<kvx::TimerWheel> m_pWheel;
    ULONGLONG m_nWaitsUntil = 0;                 // when the thread looks again by itself; 0 while it doesn't wait
    std::shared_ptr<kvx::ThreadTie> m_pThread;   // of the thread that serves, or is about to
    std::shared_ptr<kvx::ThreadTie> m_pDeferred; // of one that is to serve when the pool has it

    // Timers live in blocks, each twice as long as the one before: that tells handles from what isn't one. Those that
    // don't wait are in the list of free ones, unless their function runs.
    std::vector<std::unique_ptr<CTimer[]>> m_blocks;
    CTimer * m_pFree = nullptr;

    CTimer * TakeFree();
    void MakeFree(CTimer * timer);
    CTimer * FindWaiting(void * handle) const;
    void RemoveTimer(CTimer * timer);
    enum class Served
    {
        On,
        ToldToEnd,
        QueueGone,
    };
    Served ServeTimer(CSingleLock & guard, kvx::ThreadTie & tie, HANDLE endEvent);
    static unsigned int ThreadProc(void * thread);
    bool TakeUpService(std::shared_ptr<kvx::ThreadTie> const & tie);
    void StartThread();
};
