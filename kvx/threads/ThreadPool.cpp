#include "kvx/threads/ThreadPool.h"

#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ShutdownHook.h"

#include <memory>
#include <optional>
#include <vector>

constinit std::atomic<bool> CThreadPool::sm_bTerminated{false};
constinit std::atomic<bool> CThreadPool::sm_bLeftThreads{false};

CThreadPool::CThreadPool()
{
    sm_dwThreadCtxTLS = TlsAlloc();
}

CThreadPool::~CThreadPool()
{
    TerminateAllThreads(10000);
    TlsFree(sm_dwThreadCtxTLS);
}

CThreadContext * CThreadPool::BeginThread(CThreadContext::ThreadProc proc, void * param, int priority)
{
    CString text;
    text.Format(_T("Unnamed Thread (ThreadProc: %08X)"), proc);
    return BeginThread(proc, param, priority, text);
}

CThreadContext * CThreadPool::BeginThread(CThreadContext::ThreadProc proc, void * param, int priority,
                                          CString const & description)
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
        auto fresh = std::make_unique<CThreadContext>();
        if (!fresh->Create())
        {
            return nullptr;
        }
        context = fresh.release();
        sm_instance.m_cache.Insert(context, 1);
    }
    // Described before it runs: the job, or whoever started it, may give a better text at once.
    sm_threadMap.SetAt(static_cast<int>(context->GetThreadId()), description);
    if (!context->Start(proc, param, priority))
    {
        sm_instance.m_cache.Return(context);
        return nullptr;
    }
    return context;
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
    std::optional<CShutdownHook::Ending> ending;
    if (CKVXBaseApp::IsShuttingDown())
    {
        ending.emplace(); // those that wait for a peer come back
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
    for (CThreadContext * const context : contexts)
    {
        if (!context->Terminate(timeout, 1))
        {
            sm_bLeftThreads = true;
        }
    }
    if (CKVXBaseApp::IsShuttingDown())
    {
        sm_bTerminated = true;
    }
}
