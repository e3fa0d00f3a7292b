#pragma once

/// Waits in which there are named objects.

#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/waits.h"

#include <span>

namespace kvx::win32
{

/// Makes objects the nodes of the thread's wait, which takes over their references. Some are named.
void BeginNamedWait(ThreadData & thread, std::span<KernelObject * const> objects) noexcept;
bool IsNamedWait(ThreadData const & thread) noexcept;
DWORD RunNamedWait(ThreadData & thread, bool bAll, Deadline deadline) noexcept;

} // namespace kvx::win32
