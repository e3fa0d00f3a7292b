#pragma once

/// The process-wide pool of threads. Apart from the log's queue thread, every thread of the library comes from here.

#include "kvx/foundation/ObCache.h"
#include "kvx/foundation/ObLookup.h"
#include "kvx/threads/ThreadContext.h"

#include <deque>

class CValueAccessor;

/// Asking for a thread takes the one that parked last, and makes one if none is parked. Each thread has a description,
/// for diagnostics; the description of an ended thread stays until its id is used again.
/// Threads: all operations may be called from any thread.
class KVX_API CThreadPool
{
public:
    CThreadPool();
    CThreadPool(CThreadPool const &) = delete;
    CThreadPool & operator=(CThreadPool const &) = delete;
    /// Ends all threads, with 10,000 milliseconds for each.
    virtual ~CThreadPool();

    /// Runs `proc` with `param` at a Win32 thread priority. Null on failure, and as soon as the library shuts down.
    static CThreadContext * BeginThread(CThreadContext::ThreadProc proc, void * param, int priority);
    /// The same with the thread's description.
    static CThreadContext * BeginThread(CThreadContext::ThreadProc proc, void * param, int priority,
                                        CString const & description);
    /// Has at least `count` threads made; 0 when one can't be had. Doesn't wait until they have parked.
    static int PreAllocate(DWORD count, int priority);

    /// Describes a thread: instead of its present description, or with `replace` 0 in front of it ("text.old"). An
    /// empty text changes nothing.
    static void MarkThread(DWORD id, CString const & text, int replace);
    /// Sets a value for each thread, named by its id; "[Idle/Unused] " stands in front for a parked one.
    static void GetThreadDescriptions(CValueAccessor & target);

    /// 1 if the thread of that id is parked.
    static int IsThreadFree(int id);
    /// -1 is the calling thread; null if the pool doesn't know the id.
    static CThreadContext * GetContextFromThreadId(DWORD id);
    /// Null on a thread that isn't the pool's.
    static CThreadContext * GetCurrentThreadContext();
    static DWORD GetThreadCtxTLS() { return sm_dwThreadCtxTLS; }
    /// Ends every thread but the calling one, and kills those that don't: all are told at once, and each has `timeout`
    /// milliseconds from then. A thread of the pool that calls this ends behind its job.
    static void TerminateAllThreads(DWORD timeout);
    /// Whether the library shuts down and all threads have been ended or killed, or this process is a forked one, which
    /// has none of its parent's threads: there is nobody left to wait for.
    static bool IsTerminated() { return sm_bTerminated.load() || IsForked(); }
    /// Said when the process, or the library alone, begins to end on the calling thread. Others stand aside for good:
    /// the main thread or one of the pool when it comes to the end of the process as well, and one of the application's
    /// that asks for a thread.
    static void BeginEnd();
    /// Whether there is any use in waiting for a thread of the pool: not when there is none any more, nor when the
    /// process began to exit 5 seconds ago. A job that hangs doesn't hold up the end of a program.
    static bool IsWorthWaiting();
    /// Waits for an event that a thread of the pool sets, for as long as that is worth it.
    static int WaitForThread(CEvent & event, DWORD timeout);
    /// Gives a job to the next thread that has done its own, for a caller whom BeginThread couldn't give one. It may
    /// never run. 0 without the memory to note it.
    static int BeginThreadLater(CThreadContext::ThreadProc proc, void * param, int priority,
                                CString const & description);

    /// Whether TerminateAllThreads has left one in the middle of its job: it was killed, or is the one that called.
    static bool HasLeftThreads() { return sm_bLeftThreads.load(); }

    static CIntToStrLookup sm_threadMap;

private:
    friend class CThreadContext;

    static DWORD sm_dwThreadCtxTLS;
    static std::atomic<bool> sm_bTerminated;
    static std::atomic<bool> sm_bLeftThreads;
    static std::atomic<DWORD> sm_nEndingThread; // that has called BeginEnd
    static DWORD sm_nProcessId;                 // that the library was loaded in
    static std::atomic<ULONGLONG> sm_nExitTick; // when the process began to exit, if it has
    static CThreadPool sm_instance;

    struct StJob
    {
        CThreadContext::ThreadProc proc;
        void * param;
        int nPriority;
        CString strDescription;
    };

    CCriticalSection m_terminateLock;
    CObCache m_cache;             // its lock is the deferred jobs' too
    std::deque<StJob> m_deferred; // wait for a thread
    std::atomic<bool> m_bDeferred{false};

    static bool IsForked() { return GetCurrentProcessId() != sm_nProcessId; }
    static CThreadContext * TakeThread(StJob const & job);
    static void StandAside();
    static void GuardExit(bool bLeaves);
    static void WatchExit();
    static bool Start(CThreadContext * context, StJob const & job);
    static void Park(CThreadContext * context);
};
