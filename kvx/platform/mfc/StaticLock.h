#pragma once

#include <atomic>
#include <thread>

/// A lock for what lives through static initialisation and its end: ready before any constructor and never
/// destroyed, on every host. It is held for a few instructions only. Use it with std::scoped_lock.
class CStaticLock
{
public:
    void lock() noexcept
    {
        while (m_flag.test_and_set(std::memory_order_acquire))
        {
            std::this_thread::yield();
        }
    }
    void unlock() noexcept { m_flag.clear(std::memory_order_release); }

private:
    std::atomic_flag m_flag;
};
