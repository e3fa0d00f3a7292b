#pragma once

/// Other processes: to wait for their end, and to duplicate handles out of them.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

inline constexpr DWORD PROCESS_TERMINATE = 0x0001;
inline constexpr DWORD PROCESS_DUP_HANDLE = 0x0040;
inline constexpr DWORD PROCESS_QUERY_INFORMATION = 0x0400;

/// A handle to a running process, which WaitForSingleObject waits for (alone, not among several) and DuplicateHandle
/// takes as a source. Access rights aren't kept apart. Null with ERROR_INVALID_PARAMETER if there is no such process,
/// or the system's reason.
KVX_API HANDLE OpenProcess(DWORD dwAccess, BOOL bInherit, DWORD dwProcessId) noexcept;

/// The number of the process that a handle of OpenProcess, or GetCurrentProcess(), stands for. 0 with
/// ERROR_INVALID_HANDLE.
KVX_API DWORD GetProcessId(HANDLE hProcess) noexcept;

namespace kvx::win32
{

/// WaitForSingleObject on a process; WAIT_FAILED with ERROR_INVALID_HANDLE for a handle of another kind.
DWORD WaitForProcess(HANDLE hProcess, DWORD dwMilliseconds) noexcept;

class KernelObject;
template <class T>
class Ref;

/// What the handle of a process refers to: null with last error, ERROR_NOT_SUPPORTED for what can't be shared.
Ref<KernelObject> TakeFromProcess(HANDLE hProcess, HANDLE hSource) noexcept;

} // namespace kvx::win32
