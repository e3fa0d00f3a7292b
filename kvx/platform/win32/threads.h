#pragma once

/// Threads, their priorities and their local slots.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

using LPTHREAD_START_ROUTINE = DWORD (*)(LPVOID);

inline constexpr DWORD CREATE_SUSPENDED = 0x00000004;
inline constexpr DWORD STACK_SIZE_PARAM_IS_A_RESERVATION = 0x00010000;
inline constexpr DWORD STILL_ACTIVE = 259;
inline constexpr DWORD TLS_OUT_OF_INDEXES = 0xFFFFFFFF;
inline constexpr DWORD TLS_MINIMUM_AVAILABLE = 64;

inline constexpr int THREAD_PRIORITY_IDLE = -15;
inline constexpr int THREAD_PRIORITY_LOWEST = -2;
inline constexpr int THREAD_PRIORITY_BELOW_NORMAL = -1;
inline constexpr int THREAD_PRIORITY_NORMAL = 0;
inline constexpr int THREAD_PRIORITY_ABOVE_NORMAL = 1;
inline constexpr int THREAD_PRIORITY_HIGHEST = 2;
inline constexpr int THREAD_PRIORITY_TIME_CRITICAL = 15;
inline constexpr int THREAD_PRIORITY_ERROR_RETURN = 0x7FFFFFFF;

/// Starts a thread and returns its handle, which becomes signalled when the thread ends. nStackSize in bytes, 0 for the
/// system's default. dwFlags: 0 or STACK_SIZE_PARAM_IS_A_RESERVATION; CREATE_SUSPENDED and others are refused with
/// ERROR_NOT_SUPPORTED. Null with last error on failure. Close the handle; the thread runs on without it.
KVX_API HANDLE CreateThread(SECURITY_ATTRIBUTES * pAttributes, SIZE_T nStackSize, LPTHREAD_START_ROUTINE pProcedure,
                            LPVOID pParameter, DWORD dwFlags, DWORD * pThreadId) noexcept;

/// Stops a thread for good wherever it is, without running anything of it: destructors don't run, locks stay taken,
/// memory is lost. Mutexes that it owned are abandoned. Two things are spared, so that the process can go on: a thread
/// is never stopped while it holds a lock of the C library's heap or loader, and inside a critical section only when it
/// doesn't come out of it within a tenth of a second. System calls of a thread that is looked at may fail with EINTR.
/// Returns without waiting for the end: wait for the handle; the thread runs none of its code any more. FALSE with last
/// error ERROR_INVALID_HANDLE, ERROR_ACCESS_DENIED when the thread has ended already or is being terminated, or
/// ERROR_BUSY when it held such a lock for a second, and then it runs on. GetCurrentThread() is accepted on a thread of
/// CreateThread.
KVX_API BOOL TerminateThread(HANDLE hThread, DWORD dwExitCode) noexcept;

/// What the thread procedure returned or TerminateThread gave; STILL_ACTIVE while the thread runs.
KVX_API BOOL GetExitCodeThread(HANDLE hThread, DWORD * pExitCode) noexcept;

/// The system's id of the calling thread.
KVX_API DWORD GetCurrentThreadId() noexcept;
KVX_API DWORD GetCurrentProcessId() noexcept;

/// Stands for the calling thread where a thread handle is asked for; needs no closing.
inline HANDLE GetCurrentThread() noexcept
{
    return reinterpret_cast<HANDLE>(static_cast<INT_PTR>(-2));
}
inline HANDLE GetCurrentProcess() noexcept
{
    return reinterpret_cast<HANDLE>(static_cast<INT_PTR>(-1));
}

/// Sets one of the THREAD_PRIORITY_ values. One that the user may not set, or could not take back, has no effect but is
/// remembered: that is no failure. FALSE with last error ERROR_INVALID_HANDLE, or ERROR_INVALID_PARAMETER for an
/// unknown value.
KVX_API BOOL SetThreadPriority(HANDLE hThread, int nPriority) noexcept;

/// The priority last set, THREAD_PRIORITY_NORMAL at first; THREAD_PRIORITY_ERROR_RETURN with last error.
KVX_API int GetThreadPriority(HANDLE hThread) noexcept;

/// Waits for so many milliseconds, INFINITE for ever; 0 lets others run.
KVX_API void Sleep(DWORD dwMilliseconds) noexcept;
KVX_API BOOL SwitchToThread() noexcept;

/// A slot in which each thread keeps one pointer of its own, null at first; 1088 slots in all. TLS_OUT_OF_INDEXES with
/// last error ERROR_NO_SYSTEM_RESOURCES when all are taken. Nothing is done with the pointers when a thread ends.
KVX_API DWORD TlsAlloc() noexcept;

/// Gives the slot back. The next TlsAlloc may give it out again, with null in every thread. FALSE with last error
/// ERROR_INVALID_PARAMETER for a slot that isn't allocated; TlsSetValue does the same.
KVX_API BOOL TlsFree(DWORD dwIndex) noexcept;
KVX_API BOOL TlsSetValue(DWORD dwIndex, LPVOID pValue) noexcept;

/// The thread's value, with last error 0. Null with last error ERROR_INVALID_PARAMETER for a number that is no slot's.
KVX_API LPVOID TlsGetValue(DWORD dwIndex) noexcept;

namespace kvx::win32
{

class KernelObject;
template <class T>
class Ref;

/// The calling thread's object; null with last error ERROR_NOT_SUPPORTED on a thread that CreateThread didn't make.
Ref<KernelObject> GetCurrentThreadObject() noexcept;

} // namespace kvx::win32
