#pragma once

/// Coming before the C library in its exit.

#include "kvx/platform/export.h"

namespace kvx
{
/// What runs first of all when the calling thread calls exit, before the handlers of the C library: these may otherwise
/// be walked by two threads at once. Null for nothing, which a thread that comes to its end by itself sets before.
/// Where the C library lets one thread exit and holds up all others it never runs.
KVX_API void SetExitProc(void (*proc)());
} // namespace kvx
