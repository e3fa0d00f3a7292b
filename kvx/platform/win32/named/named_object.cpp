#include "kvx/platform/win32/named/named_object.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/named/shared_state.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <span>
#include <utility>

#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

namespace kvx::win32
{

void InitMutex(pthread_mutex_t & mutex) noexcept
{
    pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    ::pthread_mutex_init(&mutex, &attributes);
    ::pthread_mutexattr_destroy(&attributes);
}

namespace
{

/// False if a living thread holds it.
bool TryLockRobust(pthread_mutex_t & mutex) noexcept
{
    int const nResult = ::pthread_mutex_trylock(&mutex);
    if (nResult == EOWNERDEAD)
    {
        ::pthread_mutex_consistent(&mutex);
    }
    return nResult == 0 || nResult == EOWNERDEAD;
}

NamedOwnership * FindOwnership(ThreadData const & thread, NamedObject::Identity const & identity) noexcept
{
    std::span const owned(thread.pNamedOwned, thread.nNamedOwned);
    auto const found = std::ranges::find(
        owned, identity, [](NamedOwnership const & ownership) { return ownership.pObject->GetIdentity(); });
    return found == owned.end() ? nullptr : &*found;
}

} // namespace

bool ReserveOwnership(ThreadData & thread, std::size_t nMore) noexcept
{
    std::size_t const nNeeded = thread.nNamedOwned + nMore;
    if (nNeeded <= thread.nNamedCapacity)
    {
        return true;
    }
    auto * const pNew = new (std::nothrow) NamedOwnership[nNeeded];
    if (!pNew)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return false;
    }
    std::copy_n(thread.pNamedOwned, thread.nNamedOwned, pNew);
    delete[] thread.pNamedOwned;
    thread.pNamedOwned = pNew;
    thread.nNamedCapacity = static_cast<std::uint32_t>(nNeeded);
    return true;
}

NamedObject::NamedObject(WaitType type, std::u16string strKey, std::string strFile, UniqueFd file, SharedState * pState,
                         Identity identity) noexcept
    : KernelObject(*GetRow(type).namedKind), m_type(type), m_file(std::move(file)), m_pState(pState),
      m_identity(identity), m_strKey(std::move(strKey)), m_strFile(std::move(strFile)), m_nProcess(::getpid())
{
}

NamedObject::~NamedObject()
{
    ::munmap(m_pState, sizeof(SharedState));
}

void NamedObject::Lock() noexcept
{
    if (::pthread_mutex_lock(&m_pState->lock) == EOWNERDEAD)
    {
        ::pthread_mutex_consistent(&m_pState->lock);
    }
}

void NamedObject::Unlock() noexcept
{
    ::pthread_mutex_unlock(&m_pState->lock);
}

bool NamedObject::IsAvailable(ThreadData const & thread) const noexcept
{
    return m_type == WaitType::Mutex ? m_pState->nOwner < 0 || FindOwnership(thread, m_identity) : m_pState->bSignalled;
}

bool NamedObject::IsDead(int nSlot) noexcept
{
    SharedSlot & slot = m_pState->slots[nSlot];
    if (!TryLockRobust(slot.alive))
    {
        return false;
    }
    slot.word.store(SLOT_FREE, std::memory_order_relaxed);
    ::pthread_mutex_unlock(&slot.alive);
    return true;
}

void NamedObject::FreeFromDead() noexcept
{
    if (m_pState->nOwner < 0 || !IsDead(m_pState->nOwner))
    {
        return;
    }
    m_pState->nOwner = -1;
    m_pState->bAbandoned = true;
}

int NamedObject::TakeSlot(std::uint32_t nWord) noexcept
{
    std::span const slots(m_pState->slots, static_cast<std::size_t>(m_pState->nSlots));
    auto const isFree = [](SharedSlot & slot) { return slot.word.load(std::memory_order_relaxed) == SLOT_FREE; };
    auto nSlot = static_cast<int>(std::ranges::find_if(slots, isFree) - slots.begin());
    if (nSlot == static_cast<int>(MAX_SLOTS))
    {
        for (nSlot = 0; nSlot < static_cast<int>(MAX_SLOTS) && (nSlot == m_pState->nOwner || !IsDead(nSlot));)
        {
            ++nSlot;
        }
        if (nSlot == static_cast<int>(MAX_SLOTS))
        {
            SetLastError(ERROR_NO_SYSTEM_RESOURCES);
            return -1;
        }
    }
    SharedSlot & slot = m_pState->slots[nSlot];
    if (nSlot == m_pState->nSlots)
    {
        InitMutex(slot.alive);
        m_pState->nSlots = nSlot + 1;
    }
    TryLockRobust(slot.alive);
    slot.nTicket = m_pState->nNextTicket++;
    slot.word.store(nWord, std::memory_order_relaxed);
    return nSlot;
}

void NamedObject::FreeSlot(int nSlot) noexcept
{
    SharedSlot & slot = m_pState->slots[nSlot];
    slot.word.store(SLOT_FREE, std::memory_order_relaxed);
    ::pthread_mutex_unlock(&slot.alive);
}

FutexWord & NamedObject::GetWord(int nSlot) noexcept
{
    return m_pState->slots[nSlot].word;
}

void NamedObject::AddOwnership(ThreadData & thread, int nSlot) noexcept
{
    AddRef();
    thread.pNamedOwned[thread.nNamedOwned++] = {this, nSlot, 1};
}

int NamedObject::Take(ThreadData & thread, int nSlot) noexcept
{
    if (NamedOwnership * const pOwnership = FindOwnership(thread, m_identity))
    {
        ++pOwnership->nRecursion;
    }
    else if (m_type == WaitType::Mutex)
    {
        if (nSlot < 0 && (nSlot = TakeSlot(SLOT_OWNER)) < 0)
        {
            return -1;
        }
        GetWord(nSlot).store(SLOT_OWNER, std::memory_order_relaxed);
        m_pState->nOwner = nSlot;
        AddOwnership(thread, nSlot);
        return std::exchange(m_pState->bAbandoned, false);
    }
    else if (GetRow(m_type).rule == WaitRule::Consumed)
    {
        m_pState->bSignalled = false;
    }
    if (nSlot >= 0)
    {
        FreeSlot(nSlot);
    }
    return 0;
}

std::optional<int> NamedObject::EndWait(ThreadData & thread, int nSlot) noexcept
{
    std::uint32_t const nWord = GetWord(nSlot).load(std::memory_order_acquire);
    bool const bSatisfied = nWord == SLOT_GRANTED || nWord == SLOT_GRANTED_ABANDONED;
    if (bSatisfied && m_type == WaitType::Mutex)
    {
        GetWord(nSlot).store(SLOT_OWNER, std::memory_order_relaxed);
        AddOwnership(thread, nSlot);
    }
    else
    {
        FreeSlot(nSlot);
    }
    return bSatisfied ? std::optional<int>(nWord == SLOT_GRANTED_ABANDONED) : std::nullopt;
}

int NamedObject::FindOldest() noexcept
{
    for (;;)
    {
        int nOldest = -1;
        for (int nSlot = 0; nSlot < m_pState->nSlots; ++nSlot)
        {
            if (GetWord(nSlot).load(std::memory_order_relaxed) == SLOT_WAITING &&
                (nOldest < 0 || m_pState->slots[nSlot].nTicket < m_pState->slots[nOldest].nTicket))
            {
                nOldest = nSlot;
            }
        }
        if (nOldest < 0 || !IsDead(nOldest))
        {
            return nOldest;
        }
    }
}

NamedObject::SlotSet NamedObject::HandOver() noexcept
{
    SlotSet slots;
    WaitRule const rule = GetRow(m_type).rule;
    auto const isFree = [&] { return rule == WaitRule::Owned ? m_pState->nOwner < 0 : m_pState->bSignalled; };
    while (isFree())
    {
        int const nSlot = FindOldest();
        if (nSlot < 0)
        {
            break;
        }
        bool const bAbandoned = rule == WaitRule::Owned && std::exchange(m_pState->bAbandoned, false);
        if (rule == WaitRule::Owned)
        {
            m_pState->nOwner = nSlot;
        }
        else if (rule == WaitRule::Consumed)
        {
            m_pState->bSignalled = false;
        }
        GetWord(nSlot).store(bAbandoned ? SLOT_GRANTED_ABANDONED : SLOT_GRANTED, std::memory_order_release);
        slots.set(static_cast<std::size_t>(nSlot));
    }
    for (int nSlot = 0; isFree() && nSlot < m_pState->nSlots; ++nSlot)
    {
        std::uint32_t nWord = SLOT_WATCHING;
        if (GetWord(nSlot).compare_exchange_strong(nWord, SLOT_POKED, std::memory_order_release))
        {
            slots.set(static_cast<std::size_t>(nSlot));
        }
    }
    return slots;
}

void NamedObject::Wake(SlotSet const & slots) noexcept
{
    for (std::size_t nSlot = 0; slots.any() && nSlot < MAX_SLOTS; ++nSlot)
    {
        if (slots.test(nSlot))
        {
            FutexWake(m_pState->slots[nSlot].word, 1, FutexScope::Shared);
        }
    }
}

void NamedObject::Set() noexcept
{
    SlotSet slots;
    {
        NamedGuard const guard(*this);
        m_pState->bSignalled = true;
        slots = HandOver();
    }
    Wake(slots);
}

void NamedObject::Reset() noexcept
{
    NamedGuard const guard(*this);
    m_pState->bSignalled = false;
}

bool NamedObject::ReleaseOwnership(ThreadData & thread, bool bAbandoned) noexcept
{
    NamedOwnership * const pOwnership = FindOwnership(thread, m_identity);
    if (!pOwnership)
    {
        return false;
    }
    if (--pOwnership->nRecursion > 0)
    {
        return true;
    }
    // The object that took the ownership has the mapping in which the slot's robust mutex is locked.
    NamedOwnership const ownership = *pOwnership;
    *pOwnership = thread.pNamedOwned[--thread.nNamedOwned];
    SlotSet slots;
    {
        NamedGuard const guard(*ownership.pObject);
        ownership.pObject->FreeSlot(ownership.nSlot);
        SharedState & state = *ownership.pObject->m_pState;
        state.nOwner = -1;
        state.bAbandoned = bAbandoned;
        slots = ownership.pObject->HandOver();
    }
    ownership.pObject->Wake(slots);
    ownership.pObject->Release();
    return true;
}

void AbandonNamed(ThreadData & thread) noexcept
{
    while (thread.nNamedOwned > 0)
    {
        NamedOwnership & ownership = thread.pNamedOwned[thread.nNamedOwned - 1];
        ownership.nRecursion = 1;
        ownership.pObject->ReleaseOwnership(thread, true);
    }
}

} // namespace kvx::win32
