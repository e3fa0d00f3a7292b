#pragma once

/// Watches any number of waitable handles and calls a function for each that is signalled.

#include "kvx/foundation/ObCache.h"
#include "kvx/threads/ThreadQueue.h"

#include <memory>

class CEventWatcherLink;
class CEventWatcherSet;

using EVENT_WATCHER_PROC = void (*)(void * handle, void * param);

/// The handles are divided over sets of 31, each with a thread that waits. A signal becomes a trigger, which a queue
/// serves on its threads, so that a slow function doesn't hold up the watching. Handles are treated as manual-reset
/// events: the watcher resets them, before the call.
///
/// Insert, Remove and ReplaceKey leave the last error: 0, or 6 for a null handle, 5010 for one that is watched already,
/// 1168 for one that isn't (ReplaceKey: 6 for a new handle that is watched already, or the same one). Insert throws
/// CAppException * when a set's thread can't be had. A handle whose wait fails, a closed one say, is dropped silently.
///
/// Threads: all operations may be called from any thread, a function included. With FLAG_ON_WAIT_THREAD the function
/// holds up the handles of its set, and those who remove or replace one of them: when Remove comes back, no function
/// has that handle any more. So it must not wait for another thread that changes handles of its set; a function itself
/// waits for none when it changes handles. What a function throws goes to the log.
class KVX_API CEventWatcher : public CLockable, public CAutoDelete
{
public:
    // Flags.
    static constexpr DWORD FLAG_SINGLE_SHOT = 1;          ///< a handle is dropped after the first pass of its set
    static constexpr DWORD FLAG_ON_WAIT_THREAD = 2;       ///< the function runs on the wait thread
    static constexpr DWORD FLAG_IMMEDIATE_PROCESSING = 4; ///< the handle that ended a wait is served before the others
    static constexpr DWORD FLAG_MERGE = 8;                ///< one waiting trigger for each parameter

    explicit CEventWatcher(EVENT_WATCHER_PROC proc = nullptr, int priority = 0, int maxThreads = 4);
    CEventWatcher(CEventWatcher const &) = delete;
    CEventWatcher & operator=(CEventWatcher const &) = delete;
    /// Shuts down and waits for triggers that are being served; those that wait are dropped. A function on a wait
    /// thread that takes longer than ShutDown waits may find the watcher gone, and so may one that destroys it: the
    /// threads leave it alone from then on.
    ~CEventWatcher() override;

    /// For a watcher without handles: the function, the priority of the wait threads, the most service threads.
    void Initialize(EVENT_WATCHER_PROC proc, int priority, int maxThreads);
    void SetFlags(DWORD flags);
    int IsSingleShot() const { return (m_nFlags & FLAG_SINGLE_SHOT) != 0; }
    int ImmedeateProcessing() const { return (m_nFlags & FLAG_IMMEDIATE_PROCESSING) != 0; }

    /// The handle stays the caller's, who keeps it open while it is watched. 0 also without a function.
    int Insert(void * handle, void * param);
    /// A trigger that waits already is still served.
    int Remove(void * handle);
    /// Watches `fresh` in place of `old`, with the same parameter.
    int ReplaceKey(void * old, void * fresh);

    /// Called on the wait thread for each signal.
    virtual void Service(void * handle, void * param);
    /// Ends the watching for good. Waits for the sets' threads, at most 5 seconds for all of them, and not for the one
    /// that it is called on; several threads may call it at once.
    virtual void ShutDown();

private:
    class CTrigger : public CObject
    {
    public:
        void * m_pHandle = nullptr;
        void * m_pParam = nullptr;
    };

    class CEventWatcherThreadQueue : public CThreadQueue
    {
    public:
        CEventWatcherThreadQueue() : CThreadQueue(nullptr, nullptr, 0, 0, CString()) {}

        /// False if the trigger is refused: one with its parameter waits already, or the queue is stopped.
        bool Take(CTrigger * trigger);
        void Merge(bool bMerges) { m_bMerges = bMerges; }

    protected:
        CObject * PopNextObject() override;

    private:
        CMapPtrToWord m_waiting; // the parameters of the triggers that wait
        std::atomic<bool> m_bMerges{false};
    };

    int m_nPriority = 0;
    std::shared_ptr<CEventWatcherLink> m_pLink;
    std::vector<std::shared_ptr<CEventWatcherSet>> m_sets; // under the link's lock
    std::atomic<EVENT_WATCHER_PROC> m_pEventProc{nullptr};
    std::atomic<DWORD> m_nFlags{0};
    CCache<CTrigger> m_triggers;
    CEventWatcherThreadQueue m_triggerQueue;

    bool ServesOnWaitThread() const { return (m_nFlags & FLAG_ON_WAIT_THREAD) != 0; }
    static void ServiceTriggerProc(CObject * trigger, void * watcher);
    int InsertNew(void * handle, void * param);
    std::vector<std::shared_ptr<CEventWatcherSet>> GetSets();
    std::shared_ptr<CEventWatcherSet> FindSet(void * handle);
    std::shared_ptr<CEventWatcherSet> LockSet(void * handle, std::unique_ptr<CSingleLock> & serving);
};
