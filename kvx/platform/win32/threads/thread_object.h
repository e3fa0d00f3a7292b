#pragma once

#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/threads.h"
#include "kvx/platform/win32/waits.h"

#include <atomic>
#include <cstdint>

#include <pthread.h>

namespace kvx::win32
{

/// A thread made by CreateThread. It holds a reference to itself until it has ended.
class ThreadObject final : public Waitable
{
public:
    enum : std::uint32_t
    {
        RUNNING,
        ENDED,       // by itself
        TERMINATING, // somebody else has taken the right to end it
    };

    static constexpr Kind KIND = Kind::Thread;
    static bool Matches(Kind kind) noexcept { return kind == KIND; }

    ThreadObject(LPTHREAD_START_ROUTINE pProcedure, LPVOID pParameter) noexcept
        : Waitable(WaitType::Thread, false), m_pProcedure(pProcedure), m_pParameter(pParameter), m_data(this)
    {
    }

    bool Start(SIZE_T nStackSize) noexcept;

    /// The thread's id, once it has started.
    DWORD WaitForId() noexcept
    {
        while (m_id.load(std::memory_order_acquire) == 0)
        {
            FutexWait(m_id, 0, NEVER);
        }
        return m_id.load(std::memory_order_acquire);
    }

    bool IsRunning() const noexcept { return !m_bOver.load(std::memory_order_acquire); }
    DWORD GetExitCode() const noexcept
    {
        return (IsTerminating() ? m_terminationCode : m_returnCode).load(std::memory_order_relaxed);
    }
    ThreadData & GetData() noexcept { return m_data; }

    bool ClaimEnd(std::uint32_t nState) noexcept
    {
        std::uint32_t nRunning = RUNNING;
        return m_state.compare_exchange_strong(nRunning, nState, std::memory_order_acq_rel);
    }
    bool IsTerminating() const noexcept { return m_state.load(std::memory_order_acquire) == TERMINATING; }
    void GiveUpEnd() noexcept { m_state.store(RUNNING, std::memory_order_release); }

    bool IsSignalSent() const noexcept { return m_bSignalSent.load(std::memory_order_acquire); }
    void SetSignalSent() noexcept { m_bSignalSent.store(true, std::memory_order_release); }

    /// What whoever terminates the thread and its signal handler tell each other.
    enum : std::uint32_t
    {
        RUN_ON,
        STOP,              // asked to stand still
        STANDS,            // in the handler
        STANDS_IN_SECTION, // the same, inside a critical section
        UNINTERRUPTED,     // inside an UninterruptedScope: it has run on
        END,               // to end when it sees this
    };
    FutexWord & GetStop() noexcept { return m_stop; }
    std::uint32_t m_nEntries = 0; // into critical sections, as the handler has seen it

    void SetTerminationCode(DWORD dwCode) noexcept { m_terminationCode.store(dwCode, std::memory_order_relaxed); }

    /// Makes the handle signalled and gives up all that others may wait for. Frees nothing.
    void SignalEnd() noexcept
    {
        WakeList wakes;
        FutexGuard const guard(g_waitLock);
        AbandonAll(m_data, wakes);
        m_bOver.store(true, std::memory_order_release);
        Signal(wakes);
    }

    pthread_t GetNative() const noexcept { return m_thread; }

    ThreadObject * m_pNextCorpse = nullptr;

private:
    static void * Run(void * pThis) noexcept;

    LPTHREAD_START_ROUTINE const m_pProcedure;
    LPVOID const m_pParameter;
    pthread_t m_thread{};
    FutexWord m_id{0};
    std::atomic<std::uint32_t> m_state{RUNNING};
    std::atomic<DWORD> m_returnCode{0};
    std::atomic<DWORD> m_terminationCode{0};
    std::atomic<bool> m_bOver{false};
    std::atomic<bool> m_bSignalSent{false};
    FutexWord m_stop{RUN_ON};
    ThreadData m_data;
};

/// The thread behind a handle, GetCurrentThread() among them; null with last error ERROR_INVALID_HANDLE.
Ref<ThreadObject> FindThread(HANDLE hThread) noexcept;

} // namespace kvx::win32
