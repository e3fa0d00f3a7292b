#pragma once

/// The barest hand-over between two threads: what waking a thread costs without any library.

#include <atomic>
#include <cstdint>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace bench
{
/// One thread gives, one takes.
class alignas(64) FutexWord
{
public:
    void Give()
    {
        m_word.store(1, std::memory_order_release);
        ::syscall(SYS_futex, &m_word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }
    void Take()
    {
        while (m_word.exchange(0, std::memory_order_acquire) == 0)
        {
            ::syscall(SYS_futex, &m_word, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
        }
    }

private:
    std::atomic<std::uint32_t> m_word{0};
};
} // namespace bench
