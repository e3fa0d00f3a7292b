#pragma once

/// Descriptors 0 to 2 are those of the program's standard streams, also when they are closed: whatever else lay there
/// would get what the program prints, or feed it what it reads.

#include "kvx/platform/export.h"

namespace kvx::win32
{

/// The same open file under a number above 2, close-on-exec, in place of a new descriptor that the system has given.
/// Passes -1 on. -1 with errno, and the descriptor closed, if there is no number left. errno stays else.
KVX_API int AboveStandard(int nFd) noexcept;

/// Keeps the numbers of closed standard streams taken while other libraries open files of theirs. To everybody else the
/// streams go on looking closed: nothing can be read or written there. Any number of them on any threads.
class KVX_API LowDescriptorGuard
{
public:
    LowDescriptorGuard() noexcept;
    ~LowDescriptorGuard();
    LowDescriptorGuard(LowDescriptorGuard const &) = delete;
    LowDescriptorGuard & operator=(LowDescriptorGuard const &) = delete;

    /// Whether any of the streams is closed.
    bool IsNeeded() const noexcept { return m_bNeeded; }

private:
    bool m_bNeeded = false;
};

} // namespace kvx::win32
