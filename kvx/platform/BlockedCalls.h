#pragma once

/// Ending what other threads wait for in calls of the system.

#include "kvx/platform/export.h"
#include "kvx/platform/host.h"

namespace kvx
{
/// End the calls that threads are blocked in on this end of a pipe, or on this socket: for one that is to be closed,
/// and on which nobody begins anything more. A thread that was just on its way into a call may have to be met again:
/// whoever waits for them repeats it.
KVX_API void EndPipeCalls(HANDLE hPipe);
KVX_API void EndSocketCalls(SOCKET hSocket);
} // namespace kvx
