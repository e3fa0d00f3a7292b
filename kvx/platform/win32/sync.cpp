#include "kvx/platform/win32/sync.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/named/named_object.h"
#include "kvx/platform/win32/named/names.h"
#include "kvx/platform/win32/processes.h"
#include "kvx/platform/win32/spinlock.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/threads.h"
#include "kvx/platform/win32/waits.h"

#include <new>

using namespace kvx::win32;

namespace
{

constexpr DWORD SECTION_FREE = 0;
constexpr DWORD SECTION_TAKEN = 1;
constexpr DWORD SECTION_CONTENDED = 2;
constexpr std::uint32_t SECTION_SPINS = 100;

void EnterContended(CRITICAL_SECTION & section) noexcept
{
    for (std::uint32_t nTries = 0; nTries < SECTION_SPINS; ++nTries)
    {
        DWORD nState = section.State.load(std::memory_order_relaxed);
        if (nState == SECTION_CONTENDED)
        {
            break; // others sleep already
        }
        if (nState == SECTION_FREE && section.State.compare_exchange_weak(nState, SECTION_TAKEN))
        {
            return;
        }
        SpinPause(0);
    }
    while (section.State.exchange(SECTION_CONTENDED, std::memory_order_acquire) != SECTION_FREE)
    {
        g_termination.EndSection(); // asleep it holds nothing
        FutexWait(section.State, SECTION_CONTENDED, NEVER);
        g_termination.BeginSection();
    }
}

HANDLE MakeNamed(WaitType type, LPCWSTR pName, bool bInitial, bool bMayCreate) noexcept
{
    UninterruptedScope const scope;
    return OpenNamedHandle(type, pName, bInitial, bMayCreate);
}

bool HasName(LPCWSTR pName) noexcept
{
    return pName && *pName;
}

HANDLE OpenNamed(WaitType type, LPCWSTR pName) noexcept
{
    if (!HasName(pName))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    return MakeNamed(type, pName, false, false);
}

struct EventKinds : KernelObject
{
    static bool Matches(Kind kind) noexcept { return kind == Kind::Event || kind == Kind::NamedEvent; }
};

struct MutexKinds : KernelObject
{
    static bool Matches(Kind kind) noexcept { return kind == Kind::Mutex || kind == Kind::NamedMutex; }
};

template <class Kinds>
Ref<KernelObject> FindOneOf(HANDLE handle) noexcept
{
    return Ref<KernelObject>::Adopt(LookUpHandle(handle, &Kinds::Matches));
}

BOOL ChangeEvent(HANDLE hEvent, bool bSignal) noexcept
{
    UninterruptedScope const scope;
    Ref<KernelObject> const object = FindOneOf<EventKinds>(hEvent);
    if (!object)
    {
        return FALSE;
    }
    if (object->GetKind() == Kind::NamedEvent)
    {
        auto & event = static_cast<NamedObject &>(*object);
        bSignal ? event.Set() : event.Reset();
        return TRUE;
    }
    auto & event = static_cast<EventObject &>(*object);
    WakeList wakes;
    FutexGuard const guard(g_waitLock);
    if (bSignal)
    {
        event.Signal(wakes);
    }
    else
    {
        event.Reset();
    }
    return TRUE;
}

} // namespace

void InitializeCriticalSection(CRITICAL_SECTION * pSection) noexcept
{
    pSection->OwningThread.store(0, std::memory_order_relaxed);
    pSection->RecursionCount = 0;
    pSection->State.store(SECTION_FREE, std::memory_order_release);
}

void DeleteCriticalSection(CRITICAL_SECTION * pSection) noexcept
{
    InitializeCriticalSection(pSection);
}

void EnterCriticalSection(CRITICAL_SECTION * pSection) noexcept
{
    DWORD const dwThread = GetCurrentThreadId();
    DWORD nState = SECTION_FREE;
    g_termination.BeginSection();
    if (!pSection->State.compare_exchange_strong(nState, SECTION_TAKEN, std::memory_order_acquire,
                                                 std::memory_order_relaxed))
    {
        if (pSection->OwningThread.load(std::memory_order_relaxed) == dwThread)
        {
            g_termination.EndSection();
            ++pSection->RecursionCount;
            return;
        }
        EnterContended(*pSection);
    }
    pSection->OwningThread.store(dwThread, std::memory_order_relaxed);
}

BOOL TryEnterCriticalSection(CRITICAL_SECTION * pSection) noexcept
{
    DWORD const dwThread = GetCurrentThreadId();
    DWORD nState = SECTION_FREE;
    g_termination.BeginSection();
    if (pSection->State.compare_exchange_strong(nState, SECTION_TAKEN, std::memory_order_acquire,
                                                std::memory_order_relaxed))
    {
        pSection->OwningThread.store(dwThread, std::memory_order_relaxed);
        return TRUE;
    }
    g_termination.EndSection();
    if (pSection->OwningThread.load(std::memory_order_relaxed) != dwThread)
    {
        return FALSE;
    }
    ++pSection->RecursionCount;
    return TRUE;
}

void LeaveCriticalSection(CRITICAL_SECTION * pSection) noexcept
{
    if (pSection->OwningThread.load(std::memory_order_relaxed) != GetCurrentThreadId())
    {
        return;
    }
    if (pSection->RecursionCount > 0)
    {
        --pSection->RecursionCount;
        return;
    }
    pSection->OwningThread.store(0, std::memory_order_relaxed);
    if (pSection->State.exchange(SECTION_FREE, std::memory_order_release) == SECTION_CONTENDED)
    {
        FutexWake(pSection->State, 1);
    }
    g_termination.EndSection();
}

HANDLE CreateEventW(SECURITY_ATTRIBUTES *, BOOL bManualReset, BOOL bInitialState, LPCWSTR pName) noexcept
{
    if (HasName(pName))
    {
        return MakeNamed(bManualReset ? WaitType::ManualEvent : WaitType::AutoEvent, pName, bInitialState != FALSE,
                         true);
    }
    UninterruptedScope const scope;
    HANDLE const hEvent =
        OpenHandle(Ref<KernelObject>(new (std::nothrow) EventObject(bManualReset != FALSE, bInitialState != FALSE)));
    if (hEvent)
    {
        SetLastError(ERROR_SUCCESS);
    }
    return hEvent;
}

HANDLE OpenEventW(DWORD, BOOL, LPCWSTR pName) noexcept
{
    return OpenNamed(WaitType::ManualEvent, pName);
}

BOOL SetEvent(HANDLE hEvent) noexcept
{
    return ChangeEvent(hEvent, true);
}

BOOL ResetEvent(HANDLE hEvent) noexcept
{
    return ChangeEvent(hEvent, false);
}

HANDLE CreateMutexW(SECURITY_ATTRIBUTES *, BOOL bInitialOwner, LPCWSTR pName) noexcept
{
    if (HasName(pName))
    {
        return MakeNamed(WaitType::Mutex, pName, bInitialOwner != FALSE, true);
    }
    UninterruptedScope const scope;
    ThreadData * const pThread = GetThreadData();
    if (!pThread)
    {
        return nullptr;
    }
    Ref<MutexObject> const mutex(new (std::nothrow) MutexObject);
    if (mutex && bInitialOwner)
    {
        FutexGuard const guard(g_waitLock);
        mutex->Take(*pThread);
    }
    HANDLE const hMutex = OpenHandle(mutex);
    if (hMutex)
    {
        SetLastError(ERROR_SUCCESS);
    }
    else if (mutex && bInitialOwner)
    {
        WakeList wakes;
        FutexGuard const guard(g_waitLock);
        mutex->GiveBack(false, wakes);
    }
    return hMutex;
}

HANDLE OpenMutexW(DWORD, BOOL, LPCWSTR pName) noexcept
{
    return OpenNamed(WaitType::Mutex, pName);
}

BOOL ReleaseMutex(HANDLE hMutex) noexcept
{
    UninterruptedScope const scope;
    Ref<KernelObject> const object = FindOneOf<MutexKinds>(hMutex);
    if (!object)
    {
        return FALSE;
    }
    ThreadData * const pThread = g_pThreadData;
    bool bOwned = false;
    if (object->GetKind() == Kind::NamedMutex)
    {
        bOwned = pThread && static_cast<NamedObject &>(*object).ReleaseOwnership(*pThread);
    }
    else
    {
        auto & mutex = static_cast<MutexObject &>(*object);
        WakeList wakes;
        FutexGuard const guard(g_waitLock);
        bOwned = pThread && mutex.GetOwner() == pThread;
        if (bOwned && mutex.LeaveOwnership(false, wakes))
        {
            mutex.Release(); // never the last one: `object` holds another
        }
    }
    if (!bOwned)
    {
        SetLastError(ERROR_NOT_OWNER);
    }
    return bOwned;
}

BOOL CloseHandle(HANDLE hObject) noexcept
{
    UninterruptedScope const scope;
    return CloseObject(hObject);
}

BOOL DuplicateHandle(HANDLE hSourceProcess, HANDLE hSource, HANDLE hTargetProcess, HANDLE * pTarget, DWORD, BOOL,
                     DWORD dwOptions) noexcept
{
    UninterruptedScope const scope;
    bool const bForeign = hSourceProcess != GetCurrentProcess();
    if (hTargetProcess != GetCurrentProcess() || (bForeign && (dwOptions & DUPLICATE_CLOSE_SOURCE) != 0))
    {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    HANDLE hTarget = nullptr;
    if (pTarget)
    {
        Ref<KernelObject> object = TakeFromProcess(hSourceProcess, hSource);
        if (object)
        {
            hTarget = OpenHandle(std::move(object));
        }
        *pTarget = hTarget;
    }
    else
    {
        SetLastError(ERROR_INVALID_PARAMETER);
    }
    if ((dwOptions & DUPLICATE_CLOSE_SOURCE) != 0 && hSource != GetCurrentThread() && !CloseObject(hSource))
    {
        return FALSE;
    }
    return hTarget != nullptr;
}
