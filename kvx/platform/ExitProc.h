#pragma once

/// Coming before the C library in its exit.

#include "kvx/platform/export.h"

namespace kvx
{
/// What runs first of all when the calling thread calls exit, before the handlers of the C library: these may otherwise
/// be walked by two threads at once. Null for nothing, which a thread that comes to its end by itself sets before.
/// Where the C library lets one thread exit and holds up all others it never runs.
KVX_API void SetExitProc(void (*proc)());

/// Has the function run when the process exits while its other threads are still there. That is for Windows, where the
/// statics of a DLL go after these have been killed wherever they were; the DLL stays loaded from then on. Elsewhere
/// statics go in time, and this does nothing.
KVX_API void RunBeforeThreadsGo(void (*proc)());
} // namespace kvx
