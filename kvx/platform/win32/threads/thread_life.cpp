#include "kvx/platform/win32/threads/thread_life.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/named/named_object.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/threads.h"
#include "kvx/platform/win32/threads/forced_end.h"
#include "kvx/platform/win32/threads/thread_object.h"

#include <new>

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

constinit thread_local DWORD g_dwThreadId __attribute__((tls_model("initial-exec"))) = 0;

constinit FutexMutex g_setupLock;
constinit bool g_bSetUp = false;
constinit pthread_key_t g_endKey = 0;

void OnForkedChild() noexcept
{
    g_dwThreadId = 0;
    // What the thread owns across processes stayed with the parent.
    if (g_pThreadData)
    {
        g_pThreadData->nNamedOwned = 0;
    }
}

} // namespace

bool SetUpThreads() noexcept
{
    UninterruptedScope const scope;
    FutexGuard const guard(g_setupLock);
    if (g_bSetUp)
    {
        return true;
    }
    if (::pthread_key_create(&g_endKey, &OnThreadEnd) != 0)
    {
        return false;
    }
    HandleTerminationSignal();
    ::pthread_atfork(nullptr, nullptr, &OnForkedChild);
    g_bSetUp = true;
    return true;
}

bool NoteEndOf(ThreadData & data) noexcept
{
    return ::pthread_setspecific(g_endKey, &data) == 0;
}

void OnThreadEnd(void * pValue) noexcept
{
    auto * const pData = static_cast<ThreadData *>(pValue);
    ThreadObject * const pThread = pData->pThread;
    {
        UninterruptedScope const scope;
        if (!pThread || pThread->ClaimEnd(ThreadObject::ENDED))
        {
            AbandonNamed(*pData);
            if (pThread)
            {
                ::pthread_detach(pThread->GetNative());
                pThread->SignalEnd();
            }
            else
            {
                WakeList wakes;
                FutexGuard const guard(g_waitLock);
                AbandonAll(*pData, wakes);
            }
            ReleaseAbandoned();
            pData->Clear();
            g_pThreadData = nullptr;
            if (pThread)
            {
                pThread->Release();
            }
            else
            {
                delete pData;
            }
            return;
        }
    }
    // Terminated at the last moment. The id must stay this thread's until the last signal is sent.
    while (!pThread->IsSignalSent())
    {
        ::sched_yield();
        if (!pThread->IsTerminating())
        {
            return OnThreadEnd(pValue); // they have given up
        }
    }
    CompleteTermination();
}

namespace
{

ThreadData * MakeForeignThreadData() noexcept
{
    auto * const pData = new (std::nothrow) ThreadData(nullptr);
    if (pData && NoteEndOf(*pData))
    {
        return pData;
    }
    delete pData;
    return nullptr;
}

DWORD MakeThreadId() noexcept
{
    SetUpThreads(); // so that a forked child forgets the id
    return g_dwThreadId = static_cast<DWORD>(::gettid());
}

} // namespace

ThreadData * MakeThreadData() noexcept
{
    UninterruptedScope const scope;
    if (SetUpThreads())
    {
        g_pThreadData = MakeForeignThreadData();
    }
    if (!g_pThreadData)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return g_pThreadData;
}

} // namespace kvx::win32

using namespace kvx::win32;

DWORD GetCurrentThreadId() noexcept
{
    return g_dwThreadId != 0 ? g_dwThreadId : MakeThreadId();
}
