#include "kvx/platform/win32/waits.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/named/named_object.h"
#include "kvx/platform/win32/named/named_wait.h"
#include "kvx/platform/win32/processes.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/termination.h"

#include <algorithm>
#include <new>

namespace kvx::win32
{

constinit thread_local ThreadData * g_pThreadData = nullptr;
constinit FutexMutex g_waitLock;

namespace
{

constinit MutexObject * g_pLateMutexes = nullptr; // under the wait lock

Waitable & GetLocal(WaitNode const & node) noexcept
{
    return *static_cast<Waitable *>(node.pObject);
}

void Complete(Waiter & waiter, DWORD dwResult, WakeList & wakes) noexcept
{
    DequeueAll(waiter);
    waiter.dwResult = dwResult;
    if (waiter.word.exchange(Waiter::DONE, std::memory_order_acq_rel) == Waiter::ASLEEP)
    {
        wakes.Add(waiter.word);
    }
}

/// Takes all objects of a wait for all if every one is available.
bool TryTakeAll(std::span<WaitNode> nodes, ThreadData & thread, DWORD & dwResult) noexcept
{
    if (!std::ranges::all_of(nodes, [&](WaitNode const & node) { return GetLocal(node).IsAvailable(thread); }))
    {
        return false;
    }
    dwResult = WAIT_OBJECT_0;
    for (WaitNode & node : nodes)
    {
        if (GetLocal(node).Take(thread))
        {
            dwResult = WAIT_ABANDONED_0;
        }
    }
    return true;
}

} // namespace

void ThreadData::Clear() noexcept
{
    while (nNamedOwned > 0)
    {
        pNamedOwned[--nNamedOwned].pObject->Release();
    }
    delete[] pNamedOwned;
    pNamedOwned = nullptr;
    nNamedCapacity = 0;
    delete[] pTlsEntries;
    pTlsEntries = nullptr;
    nTlsEntries = 0;
    while (waiter.nNodes > 0)
    {
        waiter.pNodes[--waiter.nNodes].pObject->Release();
    }
    if (waiter.pNodes != waiter.inlineNodes)
    {
        delete[] waiter.pNodes;
    }
    waiter.pNodes = waiter.inlineNodes;
    waiter.nCapacity = Waiter::INLINE_NODES;
}

bool Waitable::IsAvailable(ThreadData const & thread) const noexcept
{
    return m_bSignalled ||
           (GetRule() == WaitRule::Owned && static_cast<MutexObject const *>(this)->GetOwner() == &thread);
}

bool Waitable::Take(ThreadData & thread) noexcept
{
    if (GetRule() == WaitRule::Stays)
    {
        return false;
    }
    m_bSignalled = false;
    return GetRule() == WaitRule::Owned && static_cast<MutexObject *>(this)->TakeOwnership(thread);
}

void Waitable::GiveBack(bool bAbandoned, WakeList & wakes) noexcept
{
    if (GetRule() == WaitRule::Consumed)
    {
        Signal(wakes);
    }
    else if (GetRule() == WaitRule::Owned && static_cast<MutexObject *>(this)->LeaveOwnership(bAbandoned, wakes))
    {
        Release();
    }
}

void Waitable::Signal(WakeList & wakes) noexcept
{
    m_bSignalled = true;
    for (WaitNode *pNode = m_pFirst, *pNext = nullptr; pNode && m_bSignalled; pNode = pNext)
    {
        ThreadData & thread = *pNode->pThread;
        Waiter & waiter = thread.waiter;
        // An object that stands in one wait twice has its nodes side by side, and completing takes them all away.
        for (pNext = pNode->pNext; pNext && pNext->pThread == &thread;)
        {
            pNext = pNext->pNext;
        }
        if (waiter.mode == Waiter::Mode::Watch)
        {
            if (waiter.word.exchange(Waiter::POKED, std::memory_order_acq_rel) == Waiter::ASLEEP)
            {
                wakes.Add(waiter.word);
            }
        }
        else if (waiter.mode == Waiter::Mode::All)
        {
            DWORD dwResult = 0;
            if (TryTakeAll({waiter.pNodes, waiter.nNodes}, thread, dwResult))
            {
                Complete(waiter, dwResult, wakes);
            }
        }
        else
        {
            DWORD const dwBase = Take(thread) ? WAIT_ABANDONED_0 : WAIT_OBJECT_0;
            Complete(waiter, dwBase + pNode->nIndex, wakes);
        }
    }
}

void Waitable::Enqueue(WaitNode & node) noexcept
{
    node.pPrevious = m_pLast;
    node.pNext = nullptr;
    (m_pLast ? m_pLast->pNext : m_pFirst) = &node;
    m_pLast = &node;
    node.bQueued = true;
}

void Waitable::Dequeue(WaitNode & node) noexcept
{
    (node.pPrevious ? node.pPrevious->pNext : m_pFirst) = node.pNext;
    (node.pNext ? node.pNext->pPrevious : m_pLast) = node.pPrevious;
    node.bQueued = false;
}

bool MutexObject::TakeOwnership(ThreadData & thread) noexcept
{
    if (m_pOwner == &thread)
    {
        ++m_nRecursion;
        return false;
    }
    AddRef();
    m_pOwner = &thread;
    m_nRecursion = 1;
    m_pPreviousOwned = nullptr;
    m_pNextOwned = thread.pOwnedMutexes;
    if (m_pNextOwned)
    {
        m_pNextOwned->m_pPreviousOwned = this;
    }
    thread.pOwnedMutexes = this;
    return std::exchange(m_bAbandoned, false);
}

bool MutexObject::LeaveOwnership(bool bAbandoned, WakeList & wakes) noexcept
{
    if (--m_nRecursion > 0)
    {
        return false;
    }
    (m_pPreviousOwned ? m_pPreviousOwned->m_pNextOwned : m_pOwner->pOwnedMutexes) = m_pNextOwned;
    if (m_pNextOwned)
    {
        m_pNextOwned->m_pPreviousOwned = m_pPreviousOwned;
    }
    m_pOwner = nullptr;
    m_bAbandoned = bAbandoned;
    Signal(wakes);
    return true;
}

void DequeueAll(Waiter & waiter) noexcept
{
    for (WaitNode & node : std::span(waiter.pNodes, waiter.nNodes))
    {
        if (node.bQueued)
        {
            GetLocal(node).Dequeue(node);
        }
    }
}

void AbandonAll(ThreadData & thread, WakeList & wakes) noexcept
{
    DequeueAll(thread.waiter);
    while (MutexObject * const pMutex = thread.pOwnedMutexes)
    {
        pMutex->m_nRecursion = 1;
        pMutex->LeaveOwnership(true, wakes);
        if (pMutex->m_nLateReleases++ == 0)
        {
            pMutex->m_pNextLate = g_pLateMutexes;
            g_pLateMutexes = pMutex;
        }
    }
}

void ReleaseAbandoned() noexcept
{
    UninterruptedScope const scope;
    for (;;)
    {
        MutexObject * pMutex = nullptr;
        DWORD nReleases = 0;
        {
            FutexGuard const guard(g_waitLock);
            pMutex = g_pLateMutexes;
            if (!pMutex)
            {
                return;
            }
            g_pLateMutexes = pMutex->m_pNextLate;
            nReleases = std::exchange(pMutex->m_nLateReleases, 0);
        }
        while (nReleases-- > 0)
        {
            pMutex->Release();
        }
    }
}

bool ReserveNodes(Waiter & waiter, DWORD nNodes) noexcept
{
    if (nNodes <= waiter.nCapacity)
    {
        return true;
    }
    WaitNode * const pNodes = new (std::nothrow) WaitNode[nNodes];
    if (!pNodes)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    if (waiter.pNodes != waiter.inlineNodes)
    {
        delete[] waiter.pNodes;
    }
    waiter.pNodes = pNodes;
    waiter.nCapacity = nNodes;
    return true;
}

bool SleepOn(Waiter & waiter, Deadline deadline) noexcept
{
    std::uint32_t nWord = Waiter::PENDING;
    if (!waiter.word.compare_exchange_strong(nWord, Waiter::ASLEEP, std::memory_order_acq_rel))
    {
        return true;
    }
    for (;;)
    {
        bool const bInTime = FutexWait(waiter.word, Waiter::ASLEEP, deadline);
        if (waiter.word.load(std::memory_order_acquire) != Waiter::ASLEEP)
        {
            return true;
        }
        if (!bInTime)
        {
            return false;
        }
    }
}

} // namespace kvx::win32

using namespace kvx::win32;

namespace
{

/// Looks up all handles. False with last error ERROR_INVALID_HANDLE and no references held.
bool ResolveHandles(std::span<HANDLE const> handles, std::span<KernelObject *> objects) noexcept
{
    for (std::size_t nIndex = 0; nIndex < handles.size(); ++nIndex)
    {
        objects[nIndex] = LookUpHandle(handles[nIndex], &IsWaitableKind);
        if (!objects[nIndex])
        {
            while (nIndex > 0)
            {
                objects[--nIndex]->Release();
            }
            return false;
        }
    }
    return true;
}

bool HasDuplicate(std::span<KernelObject * const> objects) noexcept
{
    for (std::size_t nIndex = 1; nIndex < objects.size(); ++nIndex)
    {
        if (std::ranges::find(objects.first(nIndex), objects[nIndex]) != objects.begin() + nIndex)
        {
            return true;
        }
    }
    return false;
}

/// Satisfies the wait at once if it can be. WAIT_TIMEOUT if not, and then it is queued when bQueue is set.
DWORD TryLocalWait(ThreadData & thread, std::span<KernelObject * const> objects, bool bAll, bool bQueue) noexcept
{
    FutexGuard const guard(g_waitLock);
    auto const getLocal = [&](std::size_t nIndex) -> Waitable & { return *static_cast<Waitable *>(objects[nIndex]); };
    if (!bAll)
    {
        for (std::size_t nIndex = 0; nIndex < objects.size(); ++nIndex)
        {
            if (getLocal(nIndex).IsAvailable(thread))
            {
                return (getLocal(nIndex).Take(thread) ? WAIT_ABANDONED_0 : WAIT_OBJECT_0) + static_cast<DWORD>(nIndex);
            }
        }
    }
    else if (std::ranges::all_of(objects, [&](KernelObject * pObject)
                                 { return static_cast<Waitable *>(pObject)->IsAvailable(thread); }))
    {
        bool bAbandoned = false;
        for (std::size_t nIndex = 0; nIndex < objects.size(); ++nIndex)
        {
            bAbandoned |= getLocal(nIndex).Take(thread);
        }
        return bAbandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0;
    }
    if (!bQueue)
    {
        return WAIT_TIMEOUT;
    }
    Waiter & waiter = thread.waiter;
    waiter.mode = bAll ? Waiter::Mode::All : Waiter::Mode::Any;
    waiter.nNodes = static_cast<DWORD>(objects.size());
    waiter.word.store(Waiter::PENDING, std::memory_order_relaxed);
    for (std::size_t nIndex = 0; nIndex < objects.size(); ++nIndex)
    {
        WaitNode & node = waiter.pNodes[nIndex];
        node = {objects[nIndex], nullptr, nullptr, &thread, static_cast<DWORD>(nIndex), false, -1};
        getLocal(nIndex).Enqueue(node);
    }
    return WAIT_TIMEOUT;
}

DWORD FinishLocalWait(ThreadData & thread) noexcept
{
    UninterruptedScope const scope;
    Waiter & waiter = thread.waiter;
    DWORD dwResult = 0;
    if (waiter.word.load(std::memory_order_acquire) == Waiter::DONE)
    {
        dwResult = waiter.dwResult;
    }
    else
    {
        FutexGuard const guard(g_waitLock);
        dwResult = waiter.word.load(std::memory_order_acquire) == Waiter::DONE ? waiter.dwResult : WAIT_TIMEOUT;
        DequeueAll(waiter);
    }
    while (waiter.nNodes > 0)
    {
        waiter.pNodes[--waiter.nNodes].pObject->Release();
    }
    return dwResult;
}

DWORD Wait(std::span<HANDLE const> handles, bool bAll, DWORD dwMilliseconds) noexcept
{
    ThreadData * pThread = nullptr;
    {
        UninterruptedScope const scope;
        pThread = GetThreadData();
        KernelObject * buffer[MAXIMUM_WAIT_OBJECTS];
        std::span<KernelObject *> const objects(buffer, handles.size());
        if (!pThread || !ReserveNodes(pThread->waiter, dwMilliseconds == 0 ? 0 : static_cast<DWORD>(handles.size())) ||
            !ResolveHandles(handles, objects))
        {
            return WAIT_FAILED;
        }
        std::optional<DWORD> result;
        if (bAll && HasDuplicate(objects))
        {
            SetLastError(ERROR_INVALID_PARAMETER);
            result = WAIT_FAILED;
        }
        else if (!std::ranges::any_of(objects, [](KernelObject * pObject) { return IsNamedKind(pObject->GetKind()); }))
        {
            DWORD const dwResult = TryLocalWait(*pThread, objects, bAll, dwMilliseconds != 0);
            if (dwResult != WAIT_TIMEOUT || dwMilliseconds == 0)
            {
                result = dwResult;
            }
        }
        else if (ReserveNodes(pThread->waiter, static_cast<DWORD>(objects.size())))
        {
            BeginNamedWait(*pThread, objects);
        }
        else
        {
            result = WAIT_FAILED;
        }
        if (result)
        {
            for (KernelObject * const pObject : objects)
            {
                pObject->Release();
            }
            return *result;
        }
    }
    Deadline const deadline = MakeDeadline(dwMilliseconds);
    if (IsNamedWait(*pThread))
    {
        return RunNamedWait(*pThread, bAll, deadline);
    }
    SleepOn(pThread->waiter, deadline);
    return FinishLocalWait(*pThread);
}

} // namespace

DWORD WaitForSingleObject(HANDLE hObject, DWORD dwMilliseconds) noexcept
{
    DWORD const dwResult = Wait({&hObject, 1}, false, dwMilliseconds);
    // A process is another system object than the rest: it is looked at when nothing else answers to the handle.
    return dwResult == WAIT_FAILED && GetLastError() == ERROR_INVALID_HANDLE ? WaitForProcess(hObject, dwMilliseconds)
                                                                             : dwResult;
}

DWORD WaitForMultipleObjects(DWORD nCount, HANDLE const * pHandles, BOOL bWaitAll, DWORD dwMilliseconds) noexcept
{
    if (nCount == 0 || nCount > MAXIMUM_WAIT_OBJECTS || !pHandles)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return WAIT_FAILED;
    }
    return Wait({pHandles, nCount}, bWaitAll != FALSE && nCount > 1, dwMilliseconds);
}
