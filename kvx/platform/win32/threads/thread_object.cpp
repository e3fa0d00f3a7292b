#include "kvx/platform/win32/threads/thread_object.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/threads/forced_end.h"
#include "kvx/platform/win32/threads/thread_life.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>

#include <pthread.h>
#include <unistd.h>

namespace kvx::win32
{

bool ThreadObject::Start(SIZE_T nStackSize) noexcept
{
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    if (nStackSize != 0)
    {
        SIZE_T const nPage = static_cast<SIZE_T>(::sysconf(_SC_PAGESIZE));
        SIZE_T const nSize = std::max<SIZE_T>(nStackSize, static_cast<SIZE_T>(PTHREAD_STACK_MIN) + 4 * nPage);
        if (nSize < SIZE_MAX - nPage)
        {
            ::pthread_attr_setstacksize(&attributes, (nSize + nPage - 1) / nPage * nPage);
        }
    }
    AddRef();
    int const nError = ::pthread_create(&m_thread, &attributes, &Run, this);
    ::pthread_attr_destroy(&attributes);
    if (nError == 0)
    {
        return true;
    }
    Release();
    SetLastError(nError == EAGAIN ? ERROR_NO_PROC_SLOTS : ErrorFromErrno(nError));
    return false;
}

void * ThreadObject::Run(void * pThis) noexcept
{
    auto & thread = *static_cast<ThreadObject *>(pThis);
    g_pThreadData = &thread.m_data;
    bool const bEndKnown = NoteEndOf(thread.m_data);
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, GetTerminationSignal());
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    thread.m_id.store(GetCurrentThreadId(), std::memory_order_release);
    FutexWake(thread.m_id, INT_MAX);
    thread.m_returnCode.store(thread.m_pProcedure(thread.m_pParameter), std::memory_order_relaxed);
    if (!bEndKnown)
    {
        OnThreadEnd(&thread.m_data);
    }
    return nullptr;
}

Ref<KernelObject> GetCurrentThreadObject() noexcept
{
    if (g_pThreadData && g_pThreadData->pThread)
    {
        return Ref<KernelObject>(g_pThreadData->pThread);
    }
    SetLastError(ERROR_NOT_SUPPORTED);
    return {};
}

Ref<ThreadObject> FindThread(HANDLE hThread) noexcept
{
    return hThread == GetCurrentThread() && g_pThreadData && g_pThreadData->pThread
               ? Ref<ThreadObject>(g_pThreadData->pThread)
               : FindObject<ThreadObject>(hThread);
}

} // namespace kvx::win32
