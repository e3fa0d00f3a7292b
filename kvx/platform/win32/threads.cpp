#include "kvx/platform/win32/threads.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/named.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/waits.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <csignal>
#include <new>
#include <optional>

#include <dlfcn.h>
#include <linux/capability.h>
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
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

namespace
{

constinit thread_local DWORD g_dwThreadId __attribute__((tls_model("initial-exec"))) = 0;

constinit std::atomic<ThreadObject *> g_pCorpses{nullptr};
constinit FutexMutex g_setupLock;
constinit bool g_bSetUp = false;
constinit pthread_key_t g_endKey = 0;

int GetTerminationSignal() noexcept
{
    return SIGRTMAX - 3;
}

void PushCorpse(ThreadObject & thread) noexcept
{
    thread.m_pNextCorpse = g_pCorpses.load(std::memory_order_relaxed);
    while (!g_pCorpses.compare_exchange_weak(thread.m_pNextCorpse, &thread, std::memory_order_release,
                                             std::memory_order_relaxed))
    {
    }
}

/// Frees what terminated threads left: their stacks and their data, once the system is done with them.
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

/// The last thing that a thread does by itself.
void EndThread(void * pValue) noexcept
{
    auto * const pData = static_cast<ThreadData *>(pValue);
    ThreadObject * const pThread = pData->pThread;
    {
        UninterruptedScope const scope;
        if (!pThread || pThread->ClaimEnd(ThreadObject::ENDED))
        {
            AbandonNamed(*pData);
            if (pThread)
            {
                ::pthread_detach(pThread->GetNative());
                pThread->SignalEnd();
            }
            else
            {
                WakeList wakes;
                FutexGuard const guard(g_waitLock);
                AbandonAll(*pData, wakes);
            }
            ReleaseAbandoned();
            pData->Clear();
            g_pThreadData = nullptr;
            if (pThread)
            {
                pThread->Release();
            }
            else
            {
                delete pData;
            }
            return;
        }
    }
    // Terminated at the last moment. The id must stay this thread's until the last signal is sent.
    while (!pThread->IsSignalSent())
    {
        ::sched_yield();
        if (!pThread->IsTerminating())
        {
            return EndThread(pValue); // they have given up
        }
    }
    CompleteTermination();
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

void OnForkedChild() noexcept
{
    g_dwThreadId = 0;
    // What the thread owns across processes stayed with the parent.
    if (g_pThreadData)
    {
        g_pThreadData->nNamedOwned = 0;
    }
}

/// What the first thread of the process needs: the end of threads noticed, terminations and forks handled.
bool SetUp() noexcept
{
    UninterruptedScope const scope;
    FutexGuard const guard(g_setupLock);
    if (g_bSetUp)
    {
        return true;
    }
    struct sigaction action
    {
    };
    action.sa_sigaction = &OnTerminationSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ::sigfillset(&action.sa_mask);
    if (::pthread_key_create(&g_endKey, &EndThread) != 0)
    {
        return false;
    }
    ::sigaction(GetTerminationSignal(), &action, nullptr);
    ::pthread_atfork(nullptr, nullptr, &OnForkedChild);
    g_bSetUp = true;
    return true;
}

/// Whether the user may set a nice value and come back to 0 afterwards.
bool MayChangeNice(int nNice) noexcept
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2]{};
    if (::syscall(SYS_capget, &header, sets) == 0 && (sets[0].effective & 1u << CAP_SYS_NICE) != 0)
    {
        return true;
    }
    rlimit limit{};
    return ::getrlimit(RLIMIT_NICE, &limit) == 0 && limit.rlim_cur >= static_cast<rlim_t>(20 - std::min(nNice, 0));
}

struct PriorityRow
{
    int nPriority;
    int nNice;
};

constexpr std::array PRIORITIES{
    PriorityRow{THREAD_PRIORITY_IDLE, 19},           PriorityRow{THREAD_PRIORITY_LOWEST, 10},
    PriorityRow{THREAD_PRIORITY_BELOW_NORMAL, 5},    PriorityRow{THREAD_PRIORITY_NORMAL, 0},
    PriorityRow{THREAD_PRIORITY_ABOVE_NORMAL, -5},   PriorityRow{THREAD_PRIORITY_HIGHEST, -10},
    PriorityRow{THREAD_PRIORITY_TIME_CRITICAL, -19},
};

ThreadData * MakeForeignThreadData() noexcept
{
    auto * const pData = new (std::nothrow) ThreadData(nullptr);
    if (pData && ::pthread_setspecific(g_endKey, pData) == 0)
    {
        return pData;
    }
    delete pData;
    return nullptr;
}

DWORD MakeThreadId() noexcept
{
    SetUp(); // so that a forked child forgets the id
    return g_dwThreadId = static_cast<DWORD>(::gettid());
}

} // namespace

bool ThreadObject::Start(SIZE_T nStackSize) noexcept
{
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    if (nStackSize != 0)
    {
        SIZE_T const nPage = static_cast<SIZE_T>(::sysconf(_SC_PAGESIZE));
        SIZE_T const nSize = std::max<SIZE_T>(nStackSize, static_cast<SIZE_T>(PTHREAD_STACK_MIN) + 4 * nPage);
        if (nSize < SIZE_MAX - nPage)
        {
            ::pthread_attr_setstacksize(&attributes, (nSize + nPage - 1) / nPage * nPage);
        }
    }
    AddRef();
    int const nError = ::pthread_create(&m_thread, &attributes, &Run, this);
    ::pthread_attr_destroy(&attributes);
    if (nError == 0)
    {
        return true;
    }
    Release();
    SetLastError(nError == EAGAIN ? ERROR_NO_PROC_SLOTS : ErrorFromErrno(nError));
    return false;
}

void * ThreadObject::Run(void * pThis) noexcept
{
    auto & thread = *static_cast<ThreadObject *>(pThis);
    g_pThreadData = &thread.m_data;
    bool const bEndKnown = ::pthread_setspecific(g_endKey, &thread.m_data) == 0;
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, GetTerminationSignal());
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    thread.m_id.store(GetCurrentThreadId(), std::memory_order_release);
    FutexWake(thread.m_id, INT_MAX);
    thread.m_returnCode.store(thread.m_pProcedure(thread.m_pParameter), std::memory_order_relaxed);
    if (!bEndKnown)
    {
        EndThread(&thread.m_data);
    }
    return nullptr;
}

ThreadData * MakeThreadData() noexcept
{
    UninterruptedScope const scope;
    if (SetUp())
    {
        g_pThreadData = MakeForeignThreadData();
    }
    if (!g_pThreadData)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    }
    return g_pThreadData;
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

Ref<KernelObject> GetCurrentThreadObject() noexcept
{
    if (g_pThreadData && g_pThreadData->pThread)
    {
        return Ref<KernelObject>(g_pThreadData->pThread);
    }
    SetLastError(ERROR_NOT_SUPPORTED);
    return {};
}

namespace
{

Ref<ThreadObject> FindThread(HANDLE hThread) noexcept
{
    return hThread == GetCurrentThread() && g_pThreadData && g_pThreadData->pThread
               ? Ref<ThreadObject>(g_pThreadData->pThread)
               : FindObject<ThreadObject>(hThread);
}

// ---- termination -----------------------------------------------------------------------------------------------

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

// ---- slots -----------------------------------------------------------------------------------------------------

constexpr DWORD TLS_SLOTS = 1088;

/// Odd while the slot is allocated. A value counts only as long as the generation is that under which it was set, so
/// that a slot is null in all threads when it is given out again.
constinit std::array<std::atomic<std::uint32_t>, TLS_SLOTS> g_tlsGenerations{};

bool IsAllocated(std::uint32_t nGeneration) noexcept
{
    return (nGeneration & 1) != 0;
}

bool GrowTls(ThreadData & thread, DWORD dwIndex) noexcept
{
    UninterruptedScope const scope;
    DWORD const nEntries = std::min(TLS_SLOTS, std::max<DWORD>(8, std::bit_ceil(dwIndex + 1)));
    auto * const pEntries = new (std::nothrow) TlsEntry[nEntries]{};
    if (!pEntries)
    {
        return false;
    }
    std::copy_n(thread.pTlsEntries, thread.nTlsEntries, pEntries);
    delete[] std::exchange(thread.pTlsEntries, pEntries);
    thread.nTlsEntries = nEntries;
    return true;
}

} // namespace

} // namespace kvx::win32

using namespace kvx::win32;

HANDLE CreateThread(SECURITY_ATTRIBUTES *, SIZE_T nStackSize, LPTHREAD_START_ROUTINE pProcedure, LPVOID pParameter,
                    DWORD dwFlags, DWORD * pThreadId) noexcept
{
    UninterruptedScope const scope;
    if (!pProcedure || (dwFlags & ~STACK_SIZE_PARAM_IS_A_RESERVATION) != 0)
    {
        SetLastError(pProcedure ? ERROR_NOT_SUPPORTED : ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    BuryCorpses();
    Ref<ThreadObject> const thread(SetUp() ? new (std::nothrow) ThreadObject(pProcedure, pParameter) : nullptr);
    HANDLE const hThread = OpenHandle(thread);
    if (!hThread)
    {
        return nullptr;
    }
    if (!thread->Start(nStackSize))
    {
        DWORD const dwError = GetLastError();
        CloseObject(hThread);
        SetLastError(dwError);
        return nullptr;
    }
    if (pThreadId)
    {
        *pThreadId = thread->WaitForId();
    }
    return hThread;
}

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

BOOL GetExitCodeThread(HANDLE hThread, DWORD * pExitCode) noexcept
{
    UninterruptedScope const scope;
    Ref<ThreadObject> const thread = FindThread(hThread);
    if (!thread)
    {
        return FALSE;
    }
    if (!pExitCode)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    *pExitCode = thread->IsRunning() ? STILL_ACTIVE : thread->GetExitCode();
    return TRUE;
}

DWORD GetCurrentThreadId() noexcept
{
    return g_dwThreadId != 0 ? g_dwThreadId : MakeThreadId();
}

DWORD GetCurrentProcessId() noexcept
{
    return static_cast<DWORD>(::getpid());
}

BOOL SetThreadPriority(HANDLE hThread, int nPriority) noexcept
{
    UninterruptedScope const scope;
    bool const bForeignSelf = hThread == GetCurrentThread() && !(g_pThreadData && g_pThreadData->pThread);
    Ref<ThreadObject> const thread = bForeignSelf ? Ref<ThreadObject>() : FindThread(hThread);
    ThreadData * const pData = bForeignSelf ? GetThreadData() : thread ? &thread->GetData() : nullptr;
    if (!pData)
    {
        return FALSE;
    }
    auto const row = std::ranges::find(PRIORITIES, nPriority, &PriorityRow::nPriority);
    if (row == PRIORITIES.end())
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (pData->priority.exchange(nPriority, std::memory_order_relaxed) == nPriority || (thread && !thread->IsRunning()))
    {
        return TRUE;
    }
    id_t const nId = bForeignSelf ? GetCurrentThreadId() : thread->WaitForId();
    if (MayChangeNice(row->nNice))
    {
        ::setpriority(PRIO_PROCESS, nId, row->nNice);
    }
    return TRUE;
}

int GetThreadPriority(HANDLE hThread) noexcept
{
    UninterruptedScope const scope;
    if (hThread == GetCurrentThread())
    {
        return g_pThreadData ? g_pThreadData->priority.load(std::memory_order_relaxed) : THREAD_PRIORITY_NORMAL;
    }
    Ref<ThreadObject> const thread = FindObject<ThreadObject>(hThread);
    return thread ? thread->GetData().priority.load(std::memory_order_relaxed) : THREAD_PRIORITY_ERROR_RETURN;
}

void Sleep(DWORD dwMilliseconds) noexcept
{
    if (dwMilliseconds == 0)
    {
        ::sched_yield();
        return;
    }
    Deadline const deadline = MakeDeadline(dwMilliseconds);
    FutexWord word{0}; // nobody knows it
    while (word.load(std::memory_order_relaxed) == 0 && FutexWait(word, 0, deadline))
    {
    }
}

BOOL SwitchToThread() noexcept
{
    return ::sched_yield() == 0;
}

DWORD TlsAlloc() noexcept
{
    for (DWORD dwIndex = 0; dwIndex < TLS_SLOTS; ++dwIndex)
    {
        std::uint32_t nGeneration = g_tlsGenerations[dwIndex].load(std::memory_order_relaxed);
        if (!IsAllocated(nGeneration) &&
            g_tlsGenerations[dwIndex].compare_exchange_strong(nGeneration, nGeneration + 1, std::memory_order_acq_rel))
        {
            return dwIndex;
        }
    }
    SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return TLS_OUT_OF_INDEXES;
}

BOOL TlsFree(DWORD dwIndex) noexcept
{
    if (dwIndex < TLS_SLOTS)
    {
        std::uint32_t nGeneration = g_tlsGenerations[dwIndex].load(std::memory_order_relaxed);
        if (IsAllocated(nGeneration) &&
            g_tlsGenerations[dwIndex].compare_exchange_strong(nGeneration, nGeneration + 1, std::memory_order_acq_rel))
        {
            return TRUE;
        }
    }
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
}

BOOL TlsSetValue(DWORD dwIndex, LPVOID pValue) noexcept
{
    std::uint32_t const nGeneration =
        dwIndex < TLS_SLOTS ? g_tlsGenerations[dwIndex].load(std::memory_order_relaxed) : 0;
    if (!IsAllocated(nGeneration))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    ThreadData * const pThread = GetThreadData();
    if (!pThread || (dwIndex >= pThread->nTlsEntries && !GrowTls(*pThread, dwIndex)))
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    pThread->pTlsEntries[dwIndex] = {pValue, nGeneration};
    return TRUE;
}

LPVOID TlsGetValue(DWORD dwIndex) noexcept
{
    if (dwIndex >= TLS_SLOTS)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    SetLastError(ERROR_SUCCESS);
    ThreadData const * const pThread = g_pThreadData;
    if (!pThread || dwIndex >= pThread->nTlsEntries)
    {
        return nullptr;
    }
    TlsEntry const & entry = pThread->pTlsEntries[dwIndex];
    return entry.nGeneration == g_tlsGenerations[dwIndex].load(std::memory_order_relaxed) ? entry.pValue : nullptr;
}
