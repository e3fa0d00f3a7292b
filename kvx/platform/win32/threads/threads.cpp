/// Starting threads, and what is asked of them.

#include "kvx/platform/win32/threads.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/threads/forced_end.h"
#include "kvx/platform/win32/threads/thread_life.h"
#include "kvx/platform/win32/threads/thread_object.h"

#include <new>

#include <sched.h>
#include <unistd.h>

using namespace kvx::win32;

HANDLE CreateThread(SECURITY_ATTRIBUTES *, SIZE_T nStackSize, LPTHREAD_START_ROUTINE pProcedure, LPVOID pParameter,
                    DWORD dwFlags, DWORD * pThreadId) noexcept
{
    UninterruptedScope const scope;
    if (!pProcedure || (dwFlags & ~STACK_SIZE_PARAM_IS_A_RESERVATION) != 0)
    {
        SetLastError(pProcedure ? ERROR_NOT_SUPPORTED : ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    BuryCorpses();
    Ref<ThreadObject> const thread(SetUpThreads() ? new (std::nothrow) ThreadObject(pProcedure, pParameter) : nullptr);
    HANDLE const hThread = OpenHandle(thread);
    if (!hThread)
    {
        return nullptr;
    }
    if (!thread->Start(nStackSize))
    {
        DWORD const dwError = GetLastError();
        CloseObject(hThread);
        SetLastError(dwError);
        return nullptr;
    }
    if (pThreadId)
    {
        *pThreadId = thread->WaitForId();
    }
    return hThread;
}

BOOL GetExitCodeThread(HANDLE hThread, DWORD * pExitCode) noexcept
{
    UninterruptedScope const scope;
    Ref<ThreadObject> const thread = FindThread(hThread);
    if (!thread)
    {
        return FALSE;
    }
    if (!pExitCode)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *pExitCode = thread->IsRunning() ? STILL_ACTIVE : thread->GetExitCode();
    return TRUE;
}

DWORD GetCurrentProcessId() noexcept
{
    return static_cast<DWORD>(::getpid());
}

void Sleep(DWORD dwMilliseconds) noexcept
{
    if (dwMilliseconds == 0)
    {
        ::sched_yield();
        return;
    }
    Deadline const deadline = MakeDeadline(dwMilliseconds);
    FutexWord word{0}; // nobody knows it
    while (word.load(std::memory_order_relaxed) == 0 && FutexWait(word, 0, deadline))
    {
    }
}

BOOL SwitchToThread() noexcept
{
    return ::sched_yield() == 0;
}
