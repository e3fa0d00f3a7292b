#include "kvx/platform/win32/futex.h"

#include "kvx/platform/win32/spinlock.h"
#include "kvx/platform/win32/types.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>

#include <immintrin.h>
#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

constexpr Deadline NS_PER_S = 1'000'000'000;
constexpr Deadline NS_PER_MS = 1'000'000;
constexpr Deadline POLL_NS = 5 * NS_PER_MS;
constexpr std::uint32_t PAUSES = 64;

timespec ToTimespec(Deadline deadline) noexcept
{
    return {static_cast<time_t>(deadline / NS_PER_S), static_cast<long>(deadline % NS_PER_S)};
}

} // namespace

void SpinPause(std::uint32_t nTries) noexcept
{
    if (nTries < PAUSES)
    {
        _mm_pause();
    }
    else
    {
        ::sched_yield();
    }
}

Deadline GetMonotonicTime() noexcept
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<Deadline>(now.tv_sec) * NS_PER_S + static_cast<Deadline>(now.tv_nsec);
}

Deadline MakeDeadline(std::uint32_t nMilliseconds) noexcept
{
    return nMilliseconds == INFINITE ? NEVER : GetMonotonicTime() + nMilliseconds * NS_PER_MS;
}

bool FutexWait(FutexWord & word, std::uint32_t nExpected, Deadline deadline, FutexScope scope) noexcept
{
    timespec const until = ToTimespec(deadline);
    int const nOperation = FUTEX_WAIT_BITSET | (scope == FutexScope::Process ? FUTEX_PRIVATE_FLAG : 0);
    return ::syscall(SYS_futex, &word, nOperation, nExpected, deadline == NEVER ? nullptr : &until, nullptr,
                     FUTEX_BITSET_MATCH_ANY) == 0 ||
           errno != ETIMEDOUT;
}

void FutexWake(FutexWord & word, int nThreads, FutexScope scope) noexcept
{
    int const nOperation = FUTEX_WAKE | (scope == FutexScope::Process ? FUTEX_PRIVATE_FLAG : 0);
    ::syscall(SYS_futex, &word, nOperation, nThreads, nullptr, nullptr, 0);
}

bool FutexWaitAny(std::span<FutexTarget const> targets, Deadline deadline) noexcept
{
    if (targets.size() == 1)
    {
        return FutexWait(*targets[0].pWord, targets[0].nExpected, deadline, targets[0].scope);
    }
    std::array<futex_waitv, FUTEX_WAITV_MAX> words{};
    std::ranges::transform(targets, words.begin(),
                           [](FutexTarget const & target)
                           {
                               futex_waitv word{};
                               word.val = target.nExpected;
                               word.uaddr = reinterpret_cast<std::uintptr_t>(target.pWord);
                               word.flags = FUTEX_32 | (target.scope == FutexScope::Process ? FUTEX_PRIVATE_FLAG : 0);
                               return word;
                           });
    timespec const until = ToTimespec(deadline);
    if (::syscall(SYS_futex_waitv, words.data(), targets.size(), 0, deadline == NEVER ? nullptr : &until,
                  CLOCK_MONOTONIC) >= 0)
    {
        return true;
    }
    if (errno != ENOSYS && errno != EPERM)
    {
        return errno != ETIMEDOUT;
    }
    // An old kernel, or a sandbox that hides the call: look at the words every few milliseconds.
    Deadline const now = GetMonotonicTime();
    if (now >= deadline)
    {
        return false;
    }
    FutexWait(*targets[0].pWord, targets[0].nExpected, std::min(deadline, now + POLL_NS), targets[0].scope);
    return true;
}

void FutexMutex::LockContended() noexcept
{
    for (std::uint32_t nTries = 0; nTries < PAUSES; ++nTries)
    {
        std::uint32_t nFree = 0;
        if (m_word.load(std::memory_order_relaxed) == 0 &&
            m_word.compare_exchange_weak(nFree, 1, std::memory_order_acquire, std::memory_order_relaxed))
        {
            return;
        }
        _mm_pause();
    }
    while (m_word.exchange(2, std::memory_order_acquire) != 0)
    {
        FutexWait(m_word, 2, NEVER);
    }
}

} // namespace kvx::win32
