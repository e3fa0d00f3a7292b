#pragma once

#include "kvx/platform/win32/waits.h"

namespace kvx::win32
{

/// A handle to the object of this name, see CreateEventW. bInitial: signalled event, owned mutex.
HANDLE OpenNamedHandle(WaitType type, LPCWSTR pName, bool bInitial, bool bMayCreate) noexcept;

} // namespace kvx::win32
