#pragma once

/// Events, mutexes, critical sections and waits.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

#include <atomic>

inline constexpr DWORD WAIT_OBJECT_0 = 0;
inline constexpr DWORD WAIT_ABANDONED_0 = 0x80;
inline constexpr DWORD WAIT_ABANDONED = WAIT_ABANDONED_0;
inline constexpr DWORD WAIT_TIMEOUT = 258;
inline constexpr DWORD WAIT_FAILED = 0xFFFFFFFF;
inline constexpr DWORD MAXIMUM_WAIT_OBJECTS = 64;
inline constexpr DWORD EVENT_MODIFY_STATE = 0x0002;
inline constexpr DWORD EVENT_ALL_ACCESS = 0x1F0003;
inline constexpr DWORD MUTEX_MODIFY_STATE = 0x0001;
inline constexpr DWORD MUTEX_ALL_ACCESS = 0x1F0001;
inline constexpr DWORD DUPLICATE_CLOSE_SOURCE = 1;
inline constexpr DWORD DUPLICATE_SAME_ACCESS = 2;

/// A lock that a thread may take again while it holds it. All zeros is a valid free lock, so that a static one needs
/// no initialisation at run time. The members are the implementation's own.
struct CRITICAL_SECTION
{
    std::atomic<DWORD> State{0};
    std::atomic<DWORD> OwningThread{0};
    DWORD RecursionCount = 0;
};
using LPCRITICAL_SECTION = CRITICAL_SECTION *;

KVX_API void InitializeCriticalSection(CRITICAL_SECTION * pSection) noexcept;
KVX_API void DeleteCriticalSection(CRITICAL_SECTION * pSection) noexcept;
KVX_API void EnterCriticalSection(CRITICAL_SECTION * pSection) noexcept;
/// TRUE if the section was free or the thread's own, and is the thread's now.
KVX_API BOOL TryEnterCriticalSection(CRITICAL_SECTION * pSection) noexcept;
/// Nothing happens on a thread that isn't the owner.
KVX_API void LeaveCriticalSection(CRITICAL_SECTION * pSection) noexcept;

/// Makes an event, or opens the one that has this name: then last error is ERROR_ALREADY_EXISTS, the event keeps its
/// kind and state, and both flags are ignored; else last error is 0. A manual event stays signalled until ResetEvent;
/// another one frees a single waiter.
///
/// A null or empty name makes an event of the process. A name joins all processes of the user; it lives as long as
/// some process has a handle to it. It is "Global\name", or "Local\name" which is the same as "name"; it is
/// case-sensitive, and at most MAX_PATH characters long with its prefix. At most 256 threads wait for one named object
/// at a time.
/// pAttributes is ignored: handles aren't inherited, and only the user has access.
///
/// Null with last error: ERROR_INVALID_HANDLE if the name is that of another kind of object, ERROR_PATH_NOT_FOUND for
/// a further backslash, ERROR_BAD_PATHNAME for a bare prefix, ERROR_FILENAME_EXCED_RANGE, ERROR_ACCESS_DENIED if the
/// folder of the user's named objects isn't private to the user, or the system's reason. Close with CloseHandle.
KVX_API HANDLE CreateEventW(SECURITY_ATTRIBUTES * pAttributes, BOOL bManualReset, BOOL bInitialState,
                            LPCWSTR pName) noexcept;

/// Opens a named event. Null with last error ERROR_FILE_NOT_FOUND if there is none, ERROR_INVALID_PARAMETER without a
/// name, or as CreateEventW. Access rights aren't kept apart: every handle may do all.
KVX_API HANDLE OpenEventW(DWORD dwAccess, BOOL bInherit, LPCWSTR pName) noexcept;

/// Signals an event: whoever waits at this moment is freed (all for a manual event, the first for another), whatever
/// happens to the event afterwards. FALSE with last error ERROR_INVALID_HANDLE.
KVX_API BOOL SetEvent(HANDLE hEvent) noexcept;
KVX_API BOOL ResetEvent(HANDLE hEvent) noexcept;

/// Makes a mutex, or opens the one of this name, as CreateEventW does. The caller owns a new one if bInitialOwner is
/// set. A mutex whose owner ends without releasing it is abandoned: the next wait gets it with WAIT_ABANDONED_0. The
/// death of another process is noticed within about 100 ms by those who wait.
KVX_API HANDLE CreateMutexW(SECURITY_ATTRIBUTES * pAttributes, BOOL bInitialOwner, LPCWSTR pName) noexcept;
KVX_API HANDLE OpenMutexW(DWORD dwAccess, BOOL bInherit, LPCWSTR pName) noexcept;

/// Gives up one level of ownership. FALSE with last error ERROR_NOT_OWNER or ERROR_INVALID_HANDLE.
KVX_API BOOL ReleaseMutex(HANDLE hMutex) noexcept;

/// Waits for an event, a mutex or a thread for so many milliseconds: 0 only looks, INFINITE has no end. WAIT_OBJECT_0,
/// WAIT_ABANDONED_0, WAIT_TIMEOUT, or WAIT_FAILED with last error ERROR_INVALID_HANDLE, or ERROR_NO_SYSTEM_RESOURCES
/// when too many threads wait for one named object.
KVX_API DWORD WaitForSingleObject(HANDLE hObject, DWORD dwMilliseconds) noexcept;

/// Waits for one of 1 to 64 objects (WAIT_OBJECT_0 or WAIT_ABANDONED_0 plus the lowest index that is signalled), or for
/// all at once: then nothing is taken before all can be. WAIT_FAILED with last error ERROR_INVALID_PARAMETER for a bad
/// count, or an object that stands twice in a wait for all; else as WaitForSingleObject. A wait for all that holds a
/// named object needs all to be signalled for as long as it takes to look: it may miss a short pulse.
KVX_API DWORD WaitForMultipleObjects(DWORD nCount, HANDLE const * pHandles, BOOL bWaitAll,
                                     DWORD dwMilliseconds) noexcept;

/// Closes any handle. Calls that other threads have running on the object end in their own time. FALSE with last error
/// ERROR_INVALID_HANDLE.
KVX_API BOOL CloseHandle(HANDLE hObject) noexcept;

/// A further handle of this process to the same object: hTargetProcess is GetCurrentProcess(), any other gives
/// ERROR_NOT_SUPPORTED. The source may be GetCurrentThread(). From another process come the ends that CreatePipe gave
/// it, and nothing else: ERROR_INVALID_HANDLE. dwOptions: DUPLICATE_CLOSE_SOURCE, of this process only, closes the
/// source also on failure; access and inheritance are ignored.
KVX_API BOOL DuplicateHandle(HANDLE hSourceProcess, HANDLE hSource, HANDLE hTargetProcess, HANDLE * pTarget,
                             DWORD dwAccess, BOOL bInherit, DWORD dwOptions) noexcept;
