#pragma once

#include "kvx/platform/win32/lock_guard.h"

#include <atomic>
#include <cstdint>

namespace kvx::win32
{

/// One step of waiting in a spin loop: a pause at first, then giving up the processor, since the holder may have
/// lost its own.
void SpinPause(std::uint32_t nTries) noexcept;

/// A lock for a few dozen instructions. Hold it under an UninterruptedScope.
class SpinLock
{
public:
    void Lock() noexcept
    {
        for (std::uint32_t nTries = 0; m_bLocked.exchange(1, std::memory_order_acquire) != 0;)
        {
            while (m_bLocked.load(std::memory_order_relaxed) != 0)
            {
                SpinPause(nTries++);
            }
        }
    }

    void Unlock() noexcept { m_bLocked.store(0, std::memory_order_release); }

private:
    std::atomic<std::uint32_t> m_bLocked{0};
};

using SpinLockGuard = LockGuard<SpinLock>;

} // namespace kvx::win32
