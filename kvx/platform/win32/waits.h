#pragma once

/// How threads wait for kernel objects: the signal states, the waiter records, and the data of a thread.
/// One lock guards all signal states of the process. Who signals an object completes the waits that this satisfies,
/// so that nothing which happens later can undo or double them; a waiter only sleeps on a word of its own.

#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/types.h"

#include <array>
#include <optional>

namespace kvx::win32
{

/// What a satisfied wait does to the object.
enum class WaitRule : std::uint8_t
{
    Stays,    ///< stays signalled
    Consumed, ///< is reset
    Owned,    ///< belongs to the thread, which may wait again and again
};

enum class WaitType : std::uint8_t
{
    ManualEvent,
    AutoEvent,
    Mutex,
    Thread,
};

struct WaitTypeRow
{
    WaitType type;
    WaitRule rule;
    Kind kind;
    std::optional<Kind> namedKind; ///< objects of the type can have names, by which processes share them
};

inline constexpr std::array WAIT_TYPES{
    WaitTypeRow{WaitType::ManualEvent, WaitRule::Stays, Kind::Event, Kind::NamedEvent},
    WaitTypeRow{WaitType::AutoEvent, WaitRule::Consumed, Kind::Event, Kind::NamedEvent},
    WaitTypeRow{WaitType::Mutex, WaitRule::Owned, Kind::Mutex, Kind::NamedMutex},
    WaitTypeRow{WaitType::Thread, WaitRule::Stays, Kind::Thread, std::nullopt},
};

constexpr WaitTypeRow const & GetRow(WaitType type) noexcept
{
    return WAIT_TYPES[static_cast<std::size_t>(type)];
}

constexpr bool IsNamedKind(Kind kind) noexcept
{
    for (WaitTypeRow const & row : WAIT_TYPES)
    {
        if (row.namedKind == kind)
        {
            return true;
        }
    }
    return false;
}

constexpr bool IsWaitableKind(Kind kind) noexcept
{
    for (WaitTypeRow const & row : WAIT_TYPES)
    {
        if (row.kind == kind || row.namedKind == kind)
        {
            return true;
        }
    }
    return false;
}

struct ThreadData;
class NamedObject;
class ThreadObject;
class Waitable;

struct WaitNode
{
    KernelObject * pObject; // counted while the wait lasts
    WaitNode * pPrevious;
    WaitNode * pNext;
    ThreadData * pThread;
    DWORD nIndex;
    bool bQueued;
    std::int16_t nSlot; // of a named object, -1 for none
};

/// The one wait that a thread can be in. Guarded by the wait lock but for the word.
struct Waiter
{
    enum : std::uint32_t
    {
        IDLE,
        PENDING,
        ASLEEP,
        DONE,
        POKED, ///< a watcher has to look again
    };

    enum class Mode : std::uint8_t
    {
        Any,
        All,
        Watch, ///< signallers complete nothing, they only poke
    };

    FutexWord word{IDLE};
    DWORD dwResult = 0;
    DWORD nNodes = 0;
    DWORD nCapacity = INLINE_NODES;
    Mode mode = Mode::Any;
    bool bNamed = false; ///< some of the objects are named
    WaitNode * pNodes = inlineNodes;

    static constexpr DWORD INLINE_NODES = 2;
    WaitNode inlineNodes[INLINE_NODES]{};
};

class MutexObject;

struct NamedOwnership
{
    NamedObject * pObject; // counted
    std::int32_t nSlot;
    std::uint32_t nRecursion;
};

struct TlsEntry
{
    void * pValue;
    std::uint32_t nGeneration;
};

/// What this layer keeps for a thread: made on first need, gone with the thread.
struct ThreadData
{
    explicit ThreadData(ThreadObject * pThread_) noexcept : pThread(pThread_) {}
    ThreadData(ThreadData const &) = delete;
    ThreadData & operator=(ThreadData const &) = delete;
    ~ThreadData() { Clear(); }

    /// Frees all that the thread held. No wait of it may be queued.
    void Clear() noexcept;

    ThreadObject * const pThread; // null if the thread wasn't made by CreateThread
    Waiter waiter;
    MutexObject * pOwnedMutexes = nullptr; // under the wait lock
    TlsEntry * pTlsEntries = nullptr;
    DWORD nTlsEntries = 0;
    std::uint32_t nNamedOwned = 0;
    std::uint32_t nNamedCapacity = 0;
    NamedOwnership * pNamedOwned = nullptr;
    std::atomic<int> priority{0};
};

extern constinit thread_local ThreadData * g_pThreadData __attribute__((tls_model("initial-exec")));

/// The calling thread's data; null with last error ERROR_NOT_ENOUGH_MEMORY.
ThreadData * MakeThreadData() noexcept;
inline ThreadData * GetThreadData() noexcept
{
    return g_pThreadData ? g_pThreadData : MakeThreadData();
}

extern constinit FutexMutex g_waitLock;

/// The words to wake once the wait lock is released: put it before the guard of the lock.
class WakeList
{
public:
    WakeList() noexcept = default;
    WakeList(WakeList const &) = delete;
    WakeList & operator=(WakeList const &) = delete;
    ~WakeList() { Flush(); }

    void Add(FutexWord & word) noexcept
    {
        if (m_nWords == m_words.size())
        {
            Flush();
        }
        m_words[m_nWords++] = &word;
    }

    void Flush() noexcept
    {
        while (m_nWords > 0)
        {
            FutexWake(*m_words[--m_nWords], 1);
        }
    }

private:
    std::size_t m_nWords = 0;
    std::array<FutexWord *, 32> m_words;
};

/// An object of this process that threads can wait for. All members but the constructor are called under the
/// wait lock.
class KVX_API Waitable : public KernelObject
{
public:
    static bool Matches(Kind kind) noexcept { return IsWaitableKind(kind) && !IsNamedKind(kind); }

    WaitRule GetRule() const noexcept { return GetRow(m_type).rule; }
    WaitType GetType() const noexcept { return m_type; }

    /// Makes the object signalled and completes the waits that this satisfies.
    void Signal(WakeList & wakes) noexcept;
    void Reset() noexcept { m_bSignalled = false; }

    bool IsAvailable(ThreadData const & thread) const noexcept;

    /// Takes an available object for the thread. True when it was an abandoned mutex.
    bool Take(ThreadData & thread) noexcept;

    /// Undoes a Take of the calling thread.
    void GiveBack(bool bAbandoned, WakeList & wakes) noexcept;

    void Enqueue(WaitNode & node) noexcept;
    void Dequeue(WaitNode & node) noexcept;

protected:
    Waitable(WaitType type, bool bSignalled) noexcept
        : KernelObject(GetRow(type).kind), m_type(type), m_bSignalled(bSignalled)
    {
    }

private:
    WaitType const m_type;
    bool m_bSignalled;
    WaitNode * m_pFirst = nullptr;
    WaitNode * m_pLast = nullptr;
};

class EventObject final : public Waitable
{
public:
    static constexpr Kind KIND = Kind::Event;
    static bool Matches(Kind kind) noexcept { return kind == KIND; }
    EventObject(bool bManual, bool bSignalled) noexcept
        : Waitable(bManual ? WaitType::ManualEvent : WaitType::AutoEvent, bSignalled)
    {
    }
};

/// Signalled while nobody owns it. Its owner's list holds a reference.
class MutexObject final : public Waitable
{
public:
    static constexpr Kind KIND = Kind::Mutex;
    static bool Matches(Kind kind) noexcept { return kind == KIND; }
    MutexObject() noexcept : Waitable(WaitType::Mutex, true) {}

    ThreadData * GetOwner() const noexcept { return m_pOwner; }

    /// As Waitable::Take.
    bool TakeOwnership(ThreadData & thread) noexcept;

    /// Gives up one level of ownership. When it was the last one, the mutex is free (bAbandoned: without its
    /// owner's will), the next waiter gets it, and the result is true: drop the owner's reference after unlocking.
    bool LeaveOwnership(bool bAbandoned, WakeList & wakes) noexcept;

private:
    friend void AbandonAll(ThreadData & thread, WakeList & wakes) noexcept;
    friend void ReleaseAbandoned() noexcept;

    ThreadData * m_pOwner = nullptr;
    DWORD m_nRecursion = 0;
    bool m_bAbandoned = false;
    MutexObject * m_pNextOwned = nullptr;
    MutexObject * m_pPreviousOwned = nullptr;
    DWORD m_nLateReleases = 0; // references of dead owners, dropped by ReleaseAbandoned
    MutexObject * m_pNextLate = nullptr;
};

/// Takes the nodes of the thread's wait out of all queues. Under the wait lock.
void DequeueAll(Waiter & waiter) noexcept;

/// Ends the part that a dying thread has in waits: dequeues it and abandons its mutexes. Frees nothing, so that a
/// terminated thread can call it wherever it was hit. Under the wait lock.
void AbandonAll(ThreadData & thread, WakeList & wakes) noexcept;

/// Drops the references that AbandonAll left over. Not under the wait lock.
void ReleaseAbandoned() noexcept;

/// Room for so many nodes; false with last error ERROR_NOT_ENOUGH_MEMORY.
bool ReserveNodes(Waiter & waiter, DWORD nNodes) noexcept;

/// Sleeps until the thread's word isn't PENDING any more. False at the deadline.
bool SleepOn(Waiter & waiter, Deadline deadline) noexcept;

} // namespace kvx::win32
