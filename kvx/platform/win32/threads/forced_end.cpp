#include "kvx/platform/win32/threads/forced_end.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/threads.h"
#include "kvx/platform/win32/threads/thread_object.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <optional>
#include <utility>

#include <dlfcn.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#if defined(__SANITIZE_THREAD__)
#define KVX_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KVX_THREAD_SANITIZER 1
#endif
#endif

namespace kvx::win32
{

constinit thread_local TerminationState g_termination{};

namespace
{

constinit std::atomic<ThreadObject *> g_pCorpses{nullptr};

void PushCorpse(ThreadObject & thread) noexcept
{
    thread.m_pNextCorpse = g_pCorpses.load(std::memory_order_relaxed);
    while (!g_pCorpses.compare_exchange_weak(thread.m_pNextCorpse, &thread, std::memory_order_release,
                                             std::memory_order_relaxed))
    {
    }
}

void OnTerminationSignal(int, siginfo_t * pInfo, void *) noexcept
{
    ThreadData const * const pData = g_pThreadData;
    if (pInfo->si_code != SI_TKILL || !pData || !pData->pThread || !pData->pThread->IsTerminating())
    {
        return;
    }
    int const nError = errno;
    FutexWord & stop = pData->pThread->GetStop();
    std::uint32_t const nStands = g_termination.nDepth != 0      ? ThreadObject::UNINTERRUPTED
                                  : g_termination.nSections != 0 ? ThreadObject::STANDS_IN_SECTION
                                                                 : ThreadObject::STANDS;
    std::uint32_t nStop = ThreadObject::STOP;
    pData->pThread->m_nEntries = g_termination.nEntries;
    if (stop.compare_exchange_strong(nStop, nStands, std::memory_order_acq_rel))
    {
        FutexWake(stop, INT_MAX);
        while (nStands != ThreadObject::UNINTERRUPTED && (nStop = stop.load(std::memory_order_acquire)) == nStands)
        {
            FutexWait(stop, nStands, NEVER);
        }
    }
    if (nStop == ThreadObject::END)
    {
        if (g_termination.nDepth == 0)
        {
            CompleteTermination();
        }
        g_termination.bPending = 1;
    }
    errno = nError;
}

/// Finds out whether the heap and the loader can be used, by using them on a thread of its own: one that stands still
/// inside them holds that up.
class HeapProbe
{
public:
    /// Before anybody is made to stand still.
    HeapProbe() noexcept { m_bRuns = ::pthread_create(&m_thread, nullptr, &Run, this) == 0; }
    ~HeapProbe()
    {
        if (m_bRuns)
        {
            Ask(LEAVE);
            ::pthread_join(m_thread, nullptr);
        }
    }
    HeapProbe(HeapProbe const &) = delete;
    HeapProbe & operator=(HeapProbe const &) = delete;

    bool IsFree() noexcept
    {
        constexpr std::uint32_t PATIENCE = 50; // milliseconds
        if (!m_bRuns)
        {
            return true;
        }
        Ask(LOOK);
        return WaitForAnswer(MakeDeadline(PATIENCE));
    }
    /// After IsFree was false, and whoever stood still runs on.
    void Finish() noexcept
    {
        if (m_bRuns)
        {
            WaitForAnswer(NEVER);
        }
    }

private:
    enum : std::uint32_t
    {
        IDLE,
        LOOK,
        LEAVE,
    };
    FutexWord m_word{IDLE};
    pthread_t m_thread{};
    bool m_bRuns = false;

    void Ask(std::uint32_t nWhat) noexcept
    {
        m_word.store(nWhat, std::memory_order_release);
        FutexWake(m_word, 1);
    }
    bool WaitForAnswer(Deadline deadline) noexcept
    {
        while (m_word.load(std::memory_order_acquire) == LOOK)
        {
            if (!FutexWait(m_word, LOOK, deadline))
            {
                return m_word.load(std::memory_order_acquire) != LOOK;
            }
        }
        return true;
    }

    static void * Run(void * pThis) noexcept
    {
        FutexWord & word = static_cast<HeapProbe *>(pThis)->m_word;
        for (std::uint32_t nWhat; (nWhat = word.load(std::memory_order_acquire)) != LEAVE;)
        {
            if (nWhat == IDLE)
            {
                FutexWait(word, IDLE, NEVER);
                continue;
            }
            Dl_info info;
            ::dladdr(reinterpret_cast<void *>(&Run), &info);
            [[maybe_unused]] auto const used = ::mallinfo2(); // passes the lock of every arena
            word.store(IDLE, std::memory_order_release);
            FutexWake(word, 1);
        }
        return nullptr;
    }
};

/// The id is still the thread's: one that has lost the claim to its end waits for the last signal.
void SendSignal(ThreadObject & thread, DWORD dwId, std::uint32_t nStop) noexcept
{
    thread.GetStop().store(nStop, std::memory_order_release);
    ::syscall(SYS_tgkill, ::getpid(), dwId, GetTerminationSignal());
}

/// What the thread answers; STOP if it doesn't, for it blocks all signals or the system holds it.
std::uint32_t AskToStand(ThreadObject & thread, DWORD dwId) noexcept
{
    constexpr std::uint32_t PATIENCE = 100; // milliseconds
    FutexWord & stop = thread.GetStop();
    SendSignal(thread, dwId, ThreadObject::STOP);
    Deadline const deadline = MakeDeadline(PATIENCE);
    while (stop.load(std::memory_order_acquire) == ThreadObject::STOP && FutexWait(stop, ThreadObject::STOP, deadline))
    {
    }
    return stop.load(std::memory_order_acquire);
}

void TellStanding(ThreadObject & thread, std::uint32_t nStop) noexcept
{
    thread.GetStop().store(nStop, std::memory_order_release);
    FutexWake(thread.GetStop(), INT_MAX);
}

/// Makes the thread end at a moment when it holds nothing that the whole process needs. False, and the thread runs on,
/// if there is none.
bool StopForGood(ThreadObject & thread, DWORD dwId) noexcept
{
#if defined(KVX_THREAD_SANITIZER) // it delivers signals late, at a moment of its own choice
    constexpr bool LOOKS = false;
#else
    constexpr bool LOOKS = true;
#endif
    constexpr std::uint32_t PATIENCE = 1000;        // milliseconds
    constexpr std::uint32_t SECTION_PATIENCE = 100; // of them for one stay in critical sections
    bool const bLooks = LOOKS && dwId != GetCurrentThreadId();
    std::optional<HeapProbe> probe;
    if (bLooks)
    {
        probe.emplace();
    }
    Deadline const deadline = MakeDeadline(PATIENCE);
    Deadline sectionDeadline = MakeDeadline(SECTION_PATIENCE);
    std::uint32_t nEntries = 0;
    while (bLooks)
    {
        std::uint32_t const nAnswer = AskToStand(thread, dwId);
        bool const bLast = GetMonotonicTime() >= deadline;
        bool const bInSection = nAnswer == ThreadObject::STANDS_IN_SECTION;
        if (bInSection || nAnswer == ThreadObject::STANDS)
        {
            if (std::exchange(nEntries, thread.m_nEntries) != thread.m_nEntries)
            {
                sectionDeadline = MakeDeadline(SECTION_PATIENCE); // it has been out, and may be again
            }
            bool const bMayEnd = !bInSection || bLast || GetMonotonicTime() >= sectionDeadline;
            bool const bFree = bMayEnd && probe->IsFree();
            TellStanding(thread, bFree ? ThreadObject::END : ThreadObject::RUN_ON);
            if (bFree)
            {
                return true;
            }
            if (bMayEnd)
            {
                probe->Finish();
            }
            if (bLast)
            {
                return false;
            }
        }
        else if (nAnswer == ThreadObject::STOP || bLast)
        {
            break;
        }
        Sleep(1);
    }
    // Whoever doesn't answer is where no lock is held for long, or will be: it ends as soon as it hears of it.
    SendSignal(thread, dwId, ThreadObject::END);
    return true;
}

} // namespace

int GetTerminationSignal() noexcept
{
    return SIGRTMAX - 3;
}

void HandleTerminationSignal() noexcept
{
    struct sigaction action
    {
    };
    action.sa_sigaction = &OnTerminationSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ::sigfillset(&action.sa_mask);
    ::sigaction(GetTerminationSignal(), &action, nullptr);
}

void BuryCorpses() noexcept
{
#if !defined(KVX_THREAD_SANITIZER) // it knows nothing of threads that end in this way, and would wait for them
    UninterruptedScope const scope;
    ReleaseAbandoned();
    for (ThreadObject * pThread = g_pCorpses.exchange(nullptr, std::memory_order_acquire); pThread;)
    {
        ThreadObject * const pNext = pThread->m_pNextCorpse;
        if (::pthread_tryjoin_np(pThread->GetNative(), nullptr) == 0)
        {
            pThread->GetData().Clear();
            pThread->Release();
        }
        else
        {
            PushCorpse(*pThread);
        }
        pThread = pNext;
    }
#endif
}

void CompleteTermination() noexcept
{
    // From here on no scope of this thread comes to its end with a depth of 0.
    g_termination.nDepth = g_termination.nDepth + 1;
    ThreadObject & thread = *g_pThreadData->pThread;
    thread.SignalEnd();
#if defined(KVX_THREAD_SANITIZER)
    ::pthread_detach(thread.GetNative());
#else
    // The C library hands the stack to another thread, which must not find the values of this one under its keys.
    for (pthread_key_t key = 0; key < PTHREAD_KEYS_MAX; ++key)
    {
        ::pthread_setspecific(key, nullptr);
    }
#endif
    PushCorpse(thread);
    for (;;)
    {
        ::syscall(SYS_exit, 0);
    }
}

} // namespace kvx::win32

using namespace kvx::win32;

BOOL TerminateThread(HANDLE hThread, DWORD dwExitCode) noexcept
{
    UninterruptedScope const scope;
    Ref<ThreadObject> thread = FindThread(hThread);
    if (!thread)
    {
        return FALSE;
    }
    DWORD const dwId = thread->WaitForId();
    if (!thread->ClaimEnd(ThreadObject::TERMINATING))
    {
        SetLastError(ERROR_ACCESS_DENIED);
        return FALSE;
    }
    thread->SetTerminationCode(dwExitCode);
    if (!StopForGood(*thread, dwId))
    {
        thread->GiveUpEnd();
        SetLastError(ERROR_BUSY);
        return FALSE;
    }
    thread->SetSignalSent();
    thread = nullptr;
    BuryCorpses();
    return TRUE;
}
