#include "kvx/platform/ThreadEnd.h"

#include <malloc.h>

#include <atomic>
#include <new>

namespace
{
/// A call that only ntdll has; null if it hasn't.
template <class CALL>
CALL * GetNtCall(char const * name)
{
    return reinterpret_cast<CALL *>(reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), name)));
}

/// How many critical sections a thread is in, or on its way into.
struct Sections
{
    std::atomic<DWORD> nThread{0}; // 0: it has gone, and another may have these
    std::atomic<LONG> nCount{0};
    Sections * pNext = nullptr;
};

/// All there have ever been; none goes before the process, for whoever looks at one that isn't its own.
constinit std::atomic<Sections *> g_pAll{nullptr};

void WINAPI Forget(void * sections)
{
    if (sections)
    {
        static_cast<Sections *>(sections)->nCount = 0;
        static_cast<Sections *>(sections)->nThread = 0;
    }
}

/// Where a thread has its own: in the system's storage for fibers, which tells when a thread ends. Only while this
/// module is there; before and after that nothing is counted.
class Slot
{
public:
    Slot() { sm_nIndex = FlsAlloc(&Forget); }
    Slot(Slot const &) = delete;
    Slot & operator=(Slot const &) = delete;
    ~Slot()
    {
        // With the process it goes by itself, and the system's list of slots may be as a killed thread has left it.
        auto * const isEnding = GetNtCall<BOOLEAN NTAPI()>("RtlDllShutdownInProgress");
        DWORD const index = sm_nIndex.exchange(FLS_OUT_OF_INDEXES);
        if (!isEnding || !isEnding())
        {
            FlsFree(index);
        }
    }

    static inline constinit std::atomic<DWORD> sm_nIndex{FLS_OUT_OF_INDEXES};
} const g_slot;

Sections * Begin(DWORD slot) noexcept
{
    DWORD const id = GetCurrentThreadId();
    Sections * sections = g_pAll;
    for (DWORD nobody = 0; sections && !sections->nThread.compare_exchange_strong(nobody, id); nobody = 0)
    {
        sections = sections->pNext;
    }
    if (!sections && (sections = new (std::nothrow) Sections))
    {
        sections->nThread = id;
        sections->pNext = g_pAll;
        while (!g_pAll.compare_exchange_weak(sections->pNext, sections))
        {
        }
    }
    FlsSetValue(slot, sections);
    return sections;
}

Sections * Find(DWORD thread) noexcept
{
    for (Sections * one = g_pAll; one; one = one->pNext)
    {
        if (one->nThread == thread)
        {
            return one;
        }
    }
    return nullptr;
}

void Count(LONG change) noexcept
{
    DWORD const slot = Slot::sm_nIndex.load(std::memory_order_relaxed);
    if (slot == FLS_OUT_OF_INDEXES)
    {
        return;
    }
    DWORD const lastError = GetLastError(); // which the system's storage sets to 0
    auto * sections = static_cast<Sections *>(FlsGetValue(slot));
    if (sections || (sections = Begin(slot)))
    {
        // It is this thread's alone; others only look.
        sections->nCount.store(sections->nCount.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
    }
    SetLastError(lastError);
}

/// The loader's lock, if it can be had at once.
class LoaderLock
{
public:
    LoaderLock()
    {
        constexpr ULONG AT_ONCE = 2;
        constexpr ULONG TAKEN = 1;
        static auto const s_pLock = GetNtCall<LONG NTAPI(ULONG, ULONG *, ULONG_PTR *)>("LdrLockLoaderLock");
        ULONG result = TAKEN;
        m_bHeld = !s_pLock || (s_pLock(AT_ONCE, &result, &m_nCookie) >= 0 && result == TAKEN);
    }
    LoaderLock(LoaderLock const &) = delete;
    LoaderLock & operator=(LoaderLock const &) = delete;
    ~LoaderLock()
    {
        static auto const s_pUnlock = GetNtCall<LONG NTAPI(ULONG, ULONG_PTR)>("LdrUnlockLoaderLock");
        if (m_bHeld && s_pUnlock)
        {
            s_pUnlock(0, m_nCookie);
        }
    }

    bool IsHeld() const { return m_bHeld; }

private:
    bool m_bHeld;
    ULONG_PTR m_nCookie = 0;
};

/// The locks of the process's heap and of the C library's. Whoever holds them knows that no other thread does.
class HeapLocks
{
public:
    HeapLocks() : m_heaps{GetProcessHeap(), reinterpret_cast<HANDLE>(_get_heap_handle())}
    {
        for (HANDLE const heap : m_heaps)
        {
            HeapLock(heap);
        }
    }
    HeapLocks(HeapLocks const &) = delete;
    HeapLocks & operator=(HeapLocks const &) = delete;
    ~HeapLocks()
    {
        for (HANDLE const heap : m_heaps)
        {
            HeapUnlock(heap);
        }
    }

private:
    HANDLE const m_heaps[2]; // may be one, which is then locked twice
};

/// Stands still from the moment this returns true.
bool Suspend(HANDLE thread)
{
    CONTEXT context{};
    context.ContextFlags = CONTEXT_CONTROL;
    return SuspendThread(thread) != static_cast<DWORD>(-1) && GetThreadContext(thread, &context); // which waits for it
}
} // namespace

namespace kvx
{
void BeginSection() noexcept
{
    Count(1);
}

void EndSection() noexcept
{
    Count(-1);
}

BOOL EndThread(HANDLE hThread)
{
    constexpr ULONGLONG GRACE = 200;     // ms, for the sections, in which it may well stay
    constexpr ULONGLONG PATIENCE = 1000; // ms
    ULONGLONG const begin = GetTickCount64();
    Sections * const sections = Find(GetThreadId(hThread));
    for (;;)
    {
        bool const bGraceIsOver = GetTickCount64() - begin >= GRACE;
        if (LoaderLock const loader; loader.IsHeld())
        {
            HeapLocks const heaps;
            // Nothing in here may allocate, nor wait for anybody: the thread may hold whatever isn't asked for.
            if (!Suspend(hThread) || bGraceIsOver || !sections || sections->nCount <= 0)
            {
                BOOL const bEnded = TerminateThread(hThread, 0);
                if (bEnded)
                {
                    WaitForSingleObject(hThread, static_cast<DWORD>(PATIENCE));
                    Forget(sections);
                }
                return bEnded;
            }
            ResumeThread(hThread);
        }
        if (GetTickCount64() - begin >= PATIENCE)
        {
            SetLastError(ERROR_BUSY);
            return FALSE;
        }
        Sleep(1);
    }
}
} // namespace kvx
