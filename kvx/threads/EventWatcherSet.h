#pragma once

/// The handles that one thread of an event watcher waits for.

#include "kvx/foundation/Lockable.h"

#include <array>
#include <atomic>
#include <memory>
#include <unordered_map>

class CEventWatcher;
class CEventWatcherSet;

/// What a watcher and the threads of its sets share. It outlives a watcher that goes while a function still runs.
class CEventWatcherLink
{
public:
    CCriticalSection m_lock;              // all of this, and the tables of the sets; held for moments, and taken last
    CEventWatcher * m_pWatcher = nullptr; // null from the shutdown on
    std::unordered_map<void *, CEventWatcherSet *> m_map;
    std::atomic<DWORD> m_nFlags{0};
};

/// Up to 31 handles, and the thread of the pool that waits for them until the watcher shuts down. Shared by the two.
///
/// The thread serves what is signalled in passes, under the set's own lock, which it holds while functions run. Whoever
/// removes or replaces a handle passes that lock first: when it is done, no function of a pass has the old handle.
/// Threads: all operations may be called from any thread.
class CEventWatcherSet
{
public:
    /// Throws CAppException * when no thread can be had.
    static std::shared_ptr<CEventWatcherSet> Start(std::shared_ptr<CEventWatcherLink> const & link, int priority,
                                                   CString const & description);
    explicit CEventWatcherSet(std::shared_ptr<CEventWatcherLink> const & link);
    CEventWatcherSet(CEventWatcherSet const &) = delete;
    CEventWatcherSet & operator=(CEventWatcherSet const &) = delete;

    /// False when the set is full. Enters the handle in the watcher's map, as Replace does; Remove takes it out.
    bool Insert(void * handle, void * param);
    bool Remove(void * handle);
    bool Replace(void * old, void * fresh);

    /// Tells the thread to leave.
    void End();
    /// Whether the thread has left in time. The threads of two sets that shut their watcher down don't wait for each
    /// other: `bOnWaitThread` says that the caller is one.
    bool WaitForEnd(DWORD timeout, bool bOnWaitThread);
    bool IsOwnThread() const { return m_nThreadId == GetCurrentThreadId(); }
    void SetShutsDown() { m_shutsEvent.SetEvent(); }

    /// For a thread that changes handles: waits until no pass is under way.
    CCriticalSection & GetServeLock() { return m_serveLock; }

private:
    static constexpr DWORD SLOTS = 32;

    std::shared_ptr<CEventWatcherLink> const m_pLink;
    CCriticalSection m_serveLock;
    // The table, under the link's lock.
    DWORD m_nCount = 1; // slots in use
    std::array<void *, SLOTS> m_handles{};
    std::array<void *, SLOTS> m_params{};
    CEvent m_controlEvent{FALSE, TRUE}; // in slot 0
    CEvent m_leftEvent{FALSE, TRUE};
    CEvent m_shutsEvent{FALSE, TRUE};
    std::atomic<bool> m_bEnds{false};
    std::atomic<DWORD> m_nThreadId{0};

    static unsigned int TriggerProc(void * set);
    bool HasFlag(DWORD flag) const { return (m_pLink->m_nFlags & flag) != 0; }
    DWORD Find(void * handle) const;
    void Forget(void * handle);
    void Compact();
    void Run();
    bool Pass(void * woken);
    bool FindSignalled(DWORD & slot, void * woken, void *& taken);
    bool ServeSlot(DWORD slot, void * woken);
    void ServeAtOnce(DWORD slot, void * handle);
    void Serve(void * handle, void * param);
};
