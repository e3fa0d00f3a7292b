#pragma once

/// Ending a thread that doesn't end by itself, without hanging on what it leaves behind.

#include "kvx/platform/export.h"
#include "kvx/platform/host.h"

namespace kvx
{
/// Ends a thread of this process for good, without unwinding it. Never while it holds a lock of the heap or the loader,
/// and inside a CCriticalSection only if it stays there; any other lock stays held. 0 with the last error:
/// ERROR_BUSY if after a second it still holds one of the first kind. Any other thread may call it.
KVX_API BOOL EndThread(HANDLE hThread);

#if defined(_WIN32)
/// The calling thread begins to enter a CCriticalSection, or has left one.
KVX_API void BeginSection() noexcept;
KVX_API void EndSection() noexcept;
#else
// TerminateThread of platform/win32 knows by itself.
inline void BeginSection() noexcept {}
inline void EndSection() noexcept {}
#endif
} // namespace kvx
