#pragma once

#include "kvx/platform/win32/lock_guard.h"

#include <atomic>
#include <cstdint>
#include <span>

namespace kvx::win32
{

/// A point of the monotonic clock in nanoseconds.
using Deadline = std::uint64_t;
inline constexpr Deadline NEVER = ~Deadline(0);

Deadline GetMonotonicTime() noexcept;

/// The deadline that is so many milliseconds away; INFINITE gives NEVER.
Deadline MakeDeadline(std::uint32_t nMilliseconds) noexcept;

using FutexWord = std::atomic<std::uint32_t>;

enum class FutexScope : bool
{
    Process,
    Shared
};

/// Sleeps while the word holds nExpected. False when the deadline has passed; true may be for no reason.
bool FutexWait(FutexWord & word, std::uint32_t nExpected, Deadline deadline,
               FutexScope scope = FutexScope::Process) noexcept;
void FutexWake(FutexWord & word, int nThreads, FutexScope scope = FutexScope::Process) noexcept;

struct FutexTarget
{
    FutexWord * pWord;
    std::uint32_t nExpected;
    FutexScope scope;
};

/// Sleeps while every word holds its value, at most 128 words. Else as FutexWait.
bool FutexWaitAny(std::span<FutexTarget const> targets, Deadline deadline) noexcept;

/// A small lock for short sections that may sleep. Hold it under an UninterruptedScope. Not recursive.
class FutexMutex
{
public:
    void Lock() noexcept
    {
        std::uint32_t nFree = 0;
        if (!m_word.compare_exchange_strong(nFree, 1, std::memory_order_acquire, std::memory_order_relaxed))
        {
            LockContended();
        }
    }

    void Unlock() noexcept
    {
        if (m_word.exchange(0, std::memory_order_release) == 2)
        {
            FutexWake(m_word, 1);
        }
    }

private:
    void LockContended() noexcept;

    FutexWord m_word{0}; // 0 free, 1 locked, 2 locked and somebody may sleep
};

using FutexGuard = LockGuard<FutexMutex>;

} // namespace kvx::win32
