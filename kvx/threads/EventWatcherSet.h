#pragma once

/// The handles that one thread of an event watcher waits for.

#include "kvx/foundation/Lockable.h"
#include "kvx/threads/ThreadContext.h"

#include <array>
#include <memory>

class CEventWatcher;

/// Belongs to CEventWatcher, which holds its own lock around these calls. Holds up to 31 handles; a thread of the pool
/// waits for them as long as the set lives.
class CEventWatcherSet : public CObject
{
public:
    /// Throws CAppException * when no thread can be had.
    CEventWatcherSet(CEventWatcher * watcher, int priority);
    CEventWatcherSet(CEventWatcherSet const &) = delete;
    CEventWatcherSet & operator=(CEventWatcherSet const &) = delete;
    /// Waits until the thread has left, 5 seconds at most; called on that very thread, and during shutdown, it doesn't.
    ~CEventWatcherSet() override;

    /// False when the set is full. Enters the handle in the watcher's map.
    bool Insert(void * handle, void * param);
    bool Remove(void * handle);
    bool Replace(void * old, void * fresh);

private:
    static constexpr DWORD SLOTS = 32;

    /// What set and thread share: it outlives a set that goes while its thread still runs.
    class CTable : public CLockable
    {
    public:
        DWORD m_nCount = 1; // slots in use; 0 ends the thread
        std::array<void *, SLOTS> m_handles{};
        std::array<void *, SLOTS> m_params{};
        CEvent m_controlEvent{FALSE, TRUE}; // in slot 0
        CEvent m_leftEvent{FALSE, TRUE};
        CEventWatcher * m_pWatcher = nullptr;

        DWORD Find(void * handle) const;
        void Run();
        bool Pass(void * woken);
        void ServeAtOnce(DWORD slot, void * handle);
    };

    std::shared_ptr<CTable> m_pTable = std::make_shared<CTable>();
    CThreadContext * m_pThread = nullptr;

    static unsigned int TriggerProc(void * table);
};
