#include "kvx/platform/win32/named/named_wait.h"

#include "kvx/platform/win32/named/named_object.h"
#include "kvx/platform/win32/named/shared_state.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/termination.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>
#include <utility>

namespace kvx::win32
{

namespace
{

constexpr Deadline DEATH_POLL_NS = 100'000'000;

NamedObject * AsNamed(WaitNode const & node) noexcept
{
    return IsNamedKind(node.pObject->GetKind()) ? static_cast<NamedObject *>(node.pObject) : nullptr;
}

Waitable & AsLocal(WaitNode const & node) noexcept
{
    return *static_cast<Waitable *>(node.pObject);
}

bool IsExpired(Deadline deadline) noexcept
{
    return deadline != NEVER && GetMonotonicTime() >= deadline;
}

/// A wait that holds named objects. No lock covers objects of several processes, so that two of them may satisfy one
/// wait at the same moment: the wait then keeps the first and gives the other back as it was.
class NamedWait
{
public:
    explicit NamedWait(ThreadData & thread) noexcept
        : m_thread(thread), m_waiter(thread.waiter), m_nodes(m_waiter.pNodes, m_waiter.nNodes)
    {
        m_bHasMutex = std::ranges::any_of(m_nodes, [](WaitNode const & node)
                                          { return node.pObject->GetKind() == Kind::NamedMutex; });
        m_got.fill(NOTHING);
    }

    DWORD RunAny(Deadline deadline) noexcept
    {
        {
            UninterruptedScope const scope;
            bool const bQueue = !IsExpired(deadline);
            if (!ReserveOwnership(m_thread, m_nodes.size()))
            {
                return Finish(true);
            }
            for (WaitNode & node : m_nodes)
            {
                Step const step = AsNamed(node) ? TryNamed(node, bQueue) : TryLocal(node, bQueue);
                if (step != Step::Next)
                {
                    return Finish(step == Step::Failed);
                }
            }
            if (!bQueue)
            {
                return Finish(false);
            }
        }
        for (;;)
        {
            Sleep(deadline);
            UninterruptedScope const scope;
            if (IsSatisfied() || IsExpired(deadline))
            {
                return Finish(false);
            }
            PassOnFromDead();
        }
    }

    DWORD RunAll(Deadline deadline) noexcept
    {
        for (;;)
        {
            {
                UninterruptedScope const scope;
                if (!ReserveOwnership(m_thread, m_nodes.size()))
                {
                    return Finish(true);
                }
                DWORD dwResult = 0;
                switch (TryAll(dwResult))
                {
                case Step::Done:
                    Finish(false);
                    return dwResult;
                case Step::Failed:
                    return Finish(true);
                case Step::Next:
                    if (IsExpired(deadline))
                    {
                        return Finish(false);
                    }
                }
            }
            Sleep(deadline);
        }
    }

private:
    enum class Step
    {
        Next,
        Done,
        Failed
    };
    enum : std::int8_t
    {
        NOTHING = -1,
        GOT = 0,
        GOT_ABANDONED = 1
    };

    Step TryNamed(WaitNode & node, bool bQueue) noexcept
    {
        NamedObject & object = *AsNamed(node);
        NamedGuard const guard(object);
        object.FreeFromDead();
        if (object.IsAvailable(m_thread))
        {
            int const nTaken = object.Take(m_thread, -1);
            m_got[node.nIndex] = static_cast<std::int8_t>(nTaken);
            return nTaken < 0 ? Step::Failed : Step::Done;
        }
        if (bQueue)
        {
            node.nSlot = static_cast<std::int16_t>(object.TakeSlot(SLOT_WAITING));
            if (node.nSlot < 0)
            {
                return Step::Failed;
            }
        }
        return Step::Next;
    }

    Step TryLocal(WaitNode & node, bool bQueue) noexcept
    {
        FutexGuard const guard(g_waitLock);
        if (m_waiter.word.load(std::memory_order_relaxed) == Waiter::DONE)
        {
            return Step::Done;
        }
        Waitable & object = AsLocal(node);
        if (object.IsAvailable(m_thread))
        {
            m_got[node.nIndex] = object.Take(m_thread) ? GOT_ABANDONED : GOT;
            return Step::Done;
        }
        if (bQueue)
        {
            object.Enqueue(node);
        }
        return Step::Next;
    }

    /// Takes all if all are available, else sees to it that the thread is told of changes.
    Step TryAll(DWORD & dwResult) noexcept
    {
        // Every process locks named objects in the order of their files, and the wait lock after them.
        std::array<NamedObject *, MAXIMUM_WAIT_OBJECTS> named{};
        std::size_t nNamed = 0;
        for (WaitNode const & node : m_nodes)
        {
            if (NamedObject * const pObject = AsNamed(node))
            {
                named[nNamed++] = pObject;
            }
        }
        auto const objects = std::span(named).first(nNamed);
        std::ranges::sort(objects, {}, &NamedObject::GetIdentity);
        auto const isSame = [](NamedObject const * pOne, NamedObject const * pOther)
        { return pOne->GetIdentity() == pOther->GetIdentity(); };
        auto const distinct = std::span(objects.begin(), std::unique(objects.begin(), objects.end(), isSame));
        for (NamedObject * const pObject : distinct)
        {
            pObject->Lock();
        }
        g_waitLock.Lock();
        Step step = PrepareAll();
        if (step == Step::Next && std::ranges::all_of(m_nodes, [&](WaitNode & node) { return IsAvailable(node); }))
        {
            step = Step::Done;
            bool bAbandoned = false;
            for (WaitNode & node : m_nodes)
            {
                if (NamedObject * const pObject = AsNamed(node))
                {
                    bAbandoned |= pObject->Take(m_thread, std::exchange(node.nSlot, std::int16_t(-1))) > 0;
                }
                else
                {
                    bAbandoned |= AsLocal(node).Take(m_thread);
                }
            }
            dwResult = bAbandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0;
        }
        g_waitLock.Unlock();
        for (NamedObject * const pObject : distinct)
        {
            pObject->Unlock();
        }
        return step;
    }

    Step PrepareAll() noexcept
    {
        m_waiter.mode = Waiter::Mode::Watch;
        m_waiter.word.store(Waiter::PENDING, std::memory_order_relaxed);
        for (WaitNode & node : m_nodes)
        {
            NamedObject * const pObject = AsNamed(node);
            if (!pObject)
            {
                if (!node.bQueued)
                {
                    AsLocal(node).Enqueue(node);
                }
                continue;
            }
            pObject->FreeFromDead();
            if (node.nSlot >= 0)
            {
                pObject->GetWord(node.nSlot).store(SLOT_WATCHING, std::memory_order_relaxed);
            }
            else if ((node.nSlot = static_cast<std::int16_t>(pObject->TakeSlot(SLOT_WATCHING))) < 0)
            {
                return Step::Failed;
            }
        }
        return Step::Next;
    }

    bool IsAvailable(WaitNode const & node) const noexcept
    {
        NamedObject * const pObject = AsNamed(node);
        return pObject ? pObject->IsAvailable(m_thread) : AsLocal(node).IsAvailable(m_thread);
    }

    void Sleep(Deadline deadline) noexcept
    {
        std::array<FutexTarget, MAXIMUM_WAIT_OBJECTS + 1> targets;
        std::size_t nTargets = 0;
        bool const bLocal = std::ranges::any_of(m_nodes, [](WaitNode const & node) { return !AsNamed(node); });
        if (bLocal)
        {
            std::uint32_t nWord = Waiter::PENDING;
            if (!m_waiter.word.compare_exchange_strong(nWord, Waiter::ASLEEP, std::memory_order_acq_rel) &&
                nWord != Waiter::ASLEEP)
            {
                return;
            }
            targets[nTargets++] = {&m_waiter.word, Waiter::ASLEEP, FutexScope::Process};
        }
        for (WaitNode const & node : m_nodes)
        {
            if (NamedObject * const pObject = AsNamed(node))
            {
                FutexWord & word = pObject->GetWord(node.nSlot);
                std::uint32_t const nWord = word.load(std::memory_order_acquire);
                if (nWord != SLOT_WAITING && nWord != SLOT_WATCHING)
                {
                    return;
                }
                targets[nTargets++] = {&word, nWord, FutexScope::Shared};
            }
        }
        Deadline const wake = m_bHasMutex ? std::min(deadline, GetMonotonicTime() + DEATH_POLL_NS) : deadline;
        FutexWaitAny(std::span(targets).first(nTargets), wake);
    }

    bool IsSatisfied() const noexcept
    {
        return m_waiter.word.load(std::memory_order_acquire) == Waiter::DONE ||
               std::ranges::any_of(m_nodes,
                                   [](WaitNode const & node)
                                   {
                                       NamedObject * const pObject = AsNamed(node);
                                       return pObject && pObject->GetWord(node.nSlot).load() != SLOT_WAITING;
                                   });
    }

    /// A dead owner wakes nobody: those who wait look after it now and then, and pass the mutex on.
    void PassOnFromDead() noexcept
    {
        for (WaitNode const & node : m_nodes)
        {
            if (NamedObject * const pObject = AsNamed(node); pObject && pObject->GetType() == WaitType::Mutex)
            {
                NamedObject::SlotSet slots;
                {
                    NamedGuard const guard(*pObject);
                    pObject->FreeFromDead();
                    slots = pObject->HandOver();
                }
                pObject->Wake(slots);
            }
        }
    }

    /// Leaves all queues, keeps the lowest index that was satisfied, and gives back what else was.
    DWORD Finish(bool bFailed) noexcept
    {
        UninterruptedScope const scope;
        {
            FutexGuard const guard(g_waitLock);
            DequeueAll(m_waiter);
            if (m_waiter.word.load(std::memory_order_relaxed) == Waiter::DONE)
            {
                bool const bAbandoned = m_waiter.dwResult >= WAIT_ABANDONED_0;
                DWORD const dwIndex = m_waiter.dwResult - (bAbandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0);
                m_got[dwIndex] = bAbandoned ? GOT_ABANDONED : GOT;
            }
            m_waiter.word.store(Waiter::IDLE, std::memory_order_relaxed);
        }
        for (WaitNode & node : m_nodes)
        {
            if (node.nSlot >= 0)
            {
                NamedObject & object = *AsNamed(node);
                NamedGuard const guard(object);
                if (std::optional<int> const got = object.EndWait(m_thread, node.nSlot))
                {
                    m_got[node.nIndex] = static_cast<std::int8_t>(*got);
                }
                node.nSlot = -1;
            }
        }
        DWORD dwResult = bFailed ? WAIT_FAILED : WAIT_TIMEOUT;
        for (WaitNode const & node : m_nodes)
        {
            bool const bAbandoned = m_got[node.nIndex] == GOT_ABANDONED;
            if (m_got[node.nIndex] == NOTHING)
            {
                continue;
            }
            if (dwResult == WAIT_TIMEOUT)
            {
                dwResult = (bAbandoned ? WAIT_ABANDONED_0 : WAIT_OBJECT_0) + node.nIndex;
            }
            else
            {
                GiveBack(node, bAbandoned);
            }
        }
        while (m_waiter.nNodes > 0)
        {
            m_waiter.pNodes[--m_waiter.nNodes].pObject->Release();
        }
        m_waiter.bNamed = false;
        return dwResult;
    }

    void GiveBack(WaitNode const & node, bool bAbandoned) noexcept
    {
        if (NamedObject * const pObject = AsNamed(node))
        {
            if (pObject->GetType() == WaitType::Mutex)
            {
                pObject->ReleaseOwnership(m_thread, bAbandoned);
            }
            else if (GetRow(pObject->GetType()).rule == WaitRule::Consumed)
            {
                pObject->Set();
            }
            return;
        }
        WakeList wakes;
        FutexGuard const guard(g_waitLock);
        AsLocal(node).GiveBack(bAbandoned, wakes);
    }

    ThreadData & m_thread;
    Waiter & m_waiter;
    std::span<WaitNode> const m_nodes;
    bool m_bHasMutex = false;
    std::array<std::int8_t, MAXIMUM_WAIT_OBJECTS> m_got;
};

} // namespace

void BeginNamedWait(ThreadData & thread, std::span<KernelObject * const> objects) noexcept
{
    Waiter & waiter = thread.waiter;
    for (DWORD nIndex = 0; nIndex < objects.size(); ++nIndex)
    {
        waiter.pNodes[nIndex] = {objects[nIndex], nullptr, nullptr, &thread, nIndex, false, -1};
    }
    waiter.nNodes = static_cast<DWORD>(objects.size());
    waiter.mode = Waiter::Mode::Any;
    waiter.bNamed = true;
    waiter.word.store(Waiter::PENDING, std::memory_order_relaxed);
}

bool IsNamedWait(ThreadData const & thread) noexcept
{
    return thread.waiter.bNamed;
}

DWORD RunNamedWait(ThreadData & thread, bool bAll, Deadline deadline) noexcept
{
    NamedWait wait(thread);
    return bAll ? wait.RunAll(deadline) : wait.RunAny(deadline);
}

} // namespace kvx::win32
