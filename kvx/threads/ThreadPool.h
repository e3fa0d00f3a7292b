#pragma once

/// The process-wide pool of threads. Apart from the log's queue thread, every thread of the library comes from here.

#include "kvx/foundation/ObCache.h"
#include "kvx/foundation/ObLookup.h"
#include "kvx/threads/ThreadContext.h"

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
    /// Ends every thread, with `timeout` milliseconds for each, and kills those that don't.
    static void TerminateAllThreads(DWORD timeout);
    /// Whether the library shuts down and all threads have been ended or killed: there is nobody left to wait for.
    static bool IsTerminated() { return sm_bTerminated.load(); }

    /// Whether TerminateAllThreads has left one in the middle of its job: it was killed, or is the one that called.
    static bool HasLeftThreads() { return sm_bLeftThreads.load(); }

    static CIntToStrLookup sm_threadMap;

private:
    friend class CThreadContext;

    static DWORD sm_dwThreadCtxTLS;
    static std::atomic<bool> sm_bTerminated;
    static std::atomic<bool> sm_bLeftThreads;
    static CThreadPool sm_instance;

    CObCache m_cache;

    /// A thread has done its job.
    static void Park(CThreadContext * context) { sm_instance.m_cache.Return(context); }
};
