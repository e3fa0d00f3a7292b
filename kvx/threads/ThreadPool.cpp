#include "kvx/threads/ThreadPool.h"

#include "kvx/foundation/Timeout.h"
#include "kvx/platform/ExitProc.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ShutdownHook.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

constinit std::atomic<bool> CThreadPool::sm_bTerminated{false};
constinit std::atomic<bool> CThreadPool::sm_bLeftThreads{false};
constinit std::atomic<DWORD> CThreadPool::sm_nEndingThread{0};
constinit DWORD CThreadPool::sm_nProcessId = 0;
constinit std::atomic<ULONGLONG> CThreadPool::sm_nExitTick{0};

CThreadPool::CThreadPool()
{
    sm_dwThreadCtxTLS = TlsAlloc();
    sm_nProcessId = GetCurrentProcessId();
}

CThreadPool::~CThreadPool()
{
    StandAside();
    TerminateAllThreads(10000);
    if (GetCurrentThreadContext() || IsForked())
    {
        m_cache.RemoveAll(0); // a job has called exit: other threads live, and may be looking at a context
    }
    TlsFree(sm_dwThreadCtxTLS);
}

CThreadContext * CThreadPool::BeginThread(CThreadContext::ThreadProc proc, void * param, int priority)
{
    CString const description = kvx::FailingWithoutMemory(
        [&]
        {
            CString text;
            text.Format(_T("Unnamed Thread (ThreadProc: %08X)"), proc);
            return text;
        });
    return BeginThread(proc, param, priority, description);
}

CThreadContext * CThreadPool::BeginThread(CThreadContext::ThreadProc proc, void * param, int priority,
                                          CString const & description)
{
    CThreadContext * const context = kvx::FailingWithoutMemory(
        [&] {
            return TakeThread({proc, param, priority, description});
        });
    if (!context && CKVXBaseApp::IsShuttingDown() && !GetCurrentThreadContext())
    {
        StandAside();
    }
    return context;
}

CThreadContext * CThreadPool::TakeThread(StJob const & job)
{
    if (CKVXBaseApp::IsShuttingDown())
    {
        return nullptr;
    }
    auto * context = static_cast<CThreadContext *>(sm_instance.m_cache.Allocate());
    while (context && context->IsEnding())
    {
        context =
            static_cast<CThreadContext *>(sm_instance.m_cache.Allocate()); // one that was ended when it was parked
    }
    if (!context)
    {
        WatchExit();
        auto fresh = std::make_unique<CThreadContext>();
        sm_instance.m_cache.Insert(fresh.get(), 1); // a thread that is there already couldn't be taken back
        if (!fresh->Create())
        {
            sm_instance.m_cache.Remove(fresh.get());
            return nullptr;
        }
        context = fresh.release();
        if (CKVXBaseApp::IsShuttingDown())
        {
            context->AskToEnd(); // whoever ends all threads may have looked before this one was among them
            return nullptr;
        }
    }
    if (!Start(context, job))
    {
        sm_instance.m_cache.Return(context);
        return nullptr;
    }
    return context;
}

bool CThreadPool::Start(CThreadContext * context, StJob const & job)
{
    // Described before it runs: the job, or whoever started it, may give a better text at once.
    // Without memory for that it runs all the same.
    kvx::FailingWithoutMemory(
        [&]
        {
            sm_threadMap.SetAt(static_cast<int>(context->GetThreadId()), job.strDescription);
            return true;
        });
    return context->Start(job.proc, job.param, job.nPriority) != 0;
}

int CThreadPool::BeginThreadLater(CThreadContext::ThreadProc proc, void * param, int priority,
                                  CString const & description)
{
    return kvx::FailingWithoutMemory(
        [&]
        {
            CSingleLock guard(sm_instance.m_cache, TRUE);
            sm_instance.m_deferred.push_back({proc, param, priority, description});
            sm_instance.m_bDeferred = true;
            return 1;
        });
}

/// A thread has done its job. It parks, unless another job waits for one.
void CThreadPool::Park(CThreadContext * context)
{
    CThreadPool & self = sm_instance;
    if (self.m_bDeferred && !CKVXBaseApp::IsShuttingDown())
    {
        CSingleLock guard(self.m_cache, TRUE);
        if (!self.m_deferred.empty())
        {
            StJob const job = std::move(self.m_deferred.front());
            self.m_deferred.pop_front();
            self.m_bDeferred = !self.m_deferred.empty();
            guard.Unlock();
            if (Start(context, job))
            {
                return;
            }
        }
    }
    self.m_cache.Return(context);
}

void CThreadPool::BeginEnd()
{
    DWORD nobody = 0;
    sm_nEndingThread.compare_exchange_strong(nobody, GetCurrentThreadId());
}

/// Does nothing on the thread that ends the process, nor while none does.
void CThreadPool::StandAside()
{
    DWORD const ending = sm_nEndingThread;
    if (ending != 0 && ending != GetCurrentThreadId() && !IsForked())
    {
        Sleep(INFINITE);
    }
}

/// The calling thread has nothing to do with the end of the process unless it calls exit, or is the main one.
void CThreadPool::GuardExit(bool bLeaves)
{
    kvx::SetExitProc(bLeaves ? nullptr : &StandAside);
}

/// Notes when the process begins to exit, before statics that were made up to now go.
void CThreadPool::WatchExit()
{
    static int const s_nResult = std::atexit(
        []
        {
            BeginEnd();
            sm_nExitTick = std::max(GetTickCount64(), ULONGLONG{1});
        });
    (void)s_nResult;
    if (GetCurrentThreadId() == GetCurrentProcessId()) // the main thread, on hosts where this can be
    {
        GuardExit(false);
    }
}

bool CThreadPool::IsWorthWaiting()
{
    constexpr ULONGLONG PATIENCE = 5000; // milliseconds
    ULONGLONG const exiting = sm_nExitTick;
    return !IsTerminated() && (exiting == 0 || GetTickCount64() - exiting <= PATIENCE);
}

int CThreadPool::WaitForThread(CEvent & event, DWORD timeout)
{
    constexpr DWORD LOOK = 50; // milliseconds
    kvx::Timeout const runningDown(timeout);
    for (;;)
    {
        DWORD const rest = runningDown.GetRest();
        if (event.Lock(std::min(rest, LOOK)))
        {
            return 1;
        }
        if (rest <= LOOK || !IsWorthWaiting())
        {
            return 0;
        }
    }
}

int CThreadPool::PreAllocate(DWORD count, int priority)
{
    auto const free = static_cast<DWORD>(sm_instance.m_cache.GetFreeCount());
    for (DWORD i = free; i < count; ++i)
    {
        if (!BeginThread([](void *) -> unsigned int { return 0; }, nullptr, priority))
        {
            return 0;
        }
    }
    return 1;
}

void CThreadPool::MarkThread(DWORD id, CString const & text, int replace)
{
    if (text.IsEmpty())
    {
        return;
    }
    CSingleLock guard(sm_threadMap, TRUE);
    CString old;
    if (!replace)
    {
        sm_threadMap.Lookup(static_cast<int>(id), old);
    }
    sm_threadMap.SetAt(static_cast<int>(id), old.IsEmpty() ? text : text + _T(".") + old);
}

void CThreadPool::GetThreadDescriptions(CValueAccessor & target)
{
    CSingleLock guard(sm_threadMap, TRUE);
    int id = 0;
    CString text;
    CString name;
    for (POSITION pos = sm_threadMap.GetStartPosition(); pos;)
    {
        sm_threadMap.GetNextAssoc(pos, id, text);
        name.Format(_T("%d"), id);
        target.CreateValue(name) = IsThreadFree(id) ? _T("[Idle/Unused] ") + text : text;
    }
}

int CThreadPool::IsThreadFree(int id)
{
    CObCache & cache = sm_instance.m_cache;
    CSingleLock guard(cache, TRUE);
    for (POSITION pos = cache.GetStartFreePosition(); pos;)
    {
        if (static_cast<CThreadContext *>(cache.GetNextFree(pos))->GetThreadId() == static_cast<DWORD>(id))
        {
            return 1;
        }
    }
    return 0;
}

CThreadContext * CThreadPool::GetContextFromThreadId(DWORD id)
{
    if (id == static_cast<DWORD>(-1))
    {
        id = GetCurrentThreadId();
    }
    CObCache & cache = sm_instance.m_cache;
    CSingleLock guard(cache, TRUE);
    for (POSITION pos = cache.GetStartPosition(); pos;)
    {
        auto * const context = static_cast<CThreadContext *>(cache.GetNext(pos));
        if (context->GetThreadId() == id)
        {
            return context;
        }
    }
    return nullptr;
}

CThreadContext * CThreadPool::GetCurrentThreadContext()
{
    return static_cast<CThreadContext *>(TlsGetValue(sm_dwThreadCtxTLS));
}

void CThreadPool::TerminateAllThreads(DWORD timeout)
{
    if (IsForked())
    {
        sm_bLeftThreads = true; // what they held is held for good
        return;
    }
    CSingleLock alone(&sm_instance.m_terminateLock, TRUE); // two threads of the pool would end each other
    std::optional<CShutdownHook::Ending> ending;
    if (CKVXBaseApp::IsShuttingDown() && !sm_bTerminated)
    {
        // Those that wait for a peer come back. A second time, one that was killed might hold their locks.
        ending.emplace();
    }
    // Waits without the cache's lock, for a thread that has just done its job needs it to park. Contexts are never
    // deleted before the pool.
    std::vector<CThreadContext *> contexts;
    {
        CObCache & cache = sm_instance.m_cache;
        CSingleLock guard(cache, TRUE);
        for (POSITION pos = cache.GetStartPosition(); pos;)
        {
            contexts.push_back(static_cast<CThreadContext *>(cache.GetNext(pos)));
        }
    }
    kvx::Timeout const patience(timeout);
    for (CThreadContext * const context : contexts)
    {
        context->AskToEnd();
    }
    for (CThreadContext * const context : contexts)
    {
        if (!context->Terminate(patience.GetRest(), 1))
        {
            sm_bLeftThreads = true;
        }
    }
    if (CKVXBaseApp::IsShuttingDown())
    {
        sm_bTerminated = true;
    }
}
