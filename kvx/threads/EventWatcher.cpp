#include "kvx/threads/EventWatcher.h"

#include "kvx/foundation/Timeout.h"
#include "kvx/threads/EventWatcherSet.h"
#include "kvx/threads/KVXBaseApp.h"

#include <algorithm>
#include <utility>

CEventWatcher::CEventWatcher(EVENT_WATCHER_PROC proc, int priority, int maxThreads)
{
    Initialize(proc, priority, maxThreads);
}

CEventWatcher::~CEventWatcher()
{
    CEventWatcher::ShutDown();
    m_triggerQueue.Stop(1, 0); // the cache owns the triggers
}

void CEventWatcher::Initialize(EVENT_WATCHER_PROC proc, int priority, int maxThreads)
{
    CSingleLock guard(*this, TRUE);
    if (!m_pLink || !m_pLink->m_pWatcher)
    {
        m_sets.clear();
        m_pLink = std::make_shared<CEventWatcherLink>();
        m_pLink->m_pWatcher = this;
        m_pLink->m_nFlags = m_nFlags.load();
    }
    m_nPriority = priority;
    m_pEventProc = proc;
    CString name;
    name.Format(_T("EventWatcher.m_triggerQueue::ServiceTriggerProc: %X, EVENT_WATCHER_PROC: %X"), &ServiceTriggerProc,
                proc);
    m_triggerQueue.Initialize(&ServiceTriggerProc, this, maxThreads, 0, name);
}

void CEventWatcher::SetFlags(DWORD flags)
{
    m_nFlags = flags;
    m_pLink->m_nFlags = flags;
    m_triggerQueue.Merge((flags & FLAG_MERGE) != 0);
}

int CEventWatcher::Insert(void * handle, void * param)
{
    return kvx::MemoryGuarded([&] { return InsertNew(handle, param); });
}

int CEventWatcher::InsertNew(void * handle, void * param)
{
    CSingleLock guard(*this, TRUE);
    SetLastError(handle ? 0 : ERROR_INVALID_HANDLE);
    EVENT_WATCHER_PROC const proc = m_pEventProc;
    if (!handle || !proc)
    {
        return 0;
    }
    if (FindSet(handle))
    {
        SetLastError(ERROR_OBJECT_ALREADY_EXISTS);
        return 0;
    }
    for (auto const & set : GetSets())
    {
        if (set->Insert(handle, param))
        {
            return 1;
        }
    }
    CString text;
    text.Format(_T("EventWatcher %X with EventProc %X"), this, proc);
    auto const set = CEventWatcherSet::Start(m_pLink, m_nPriority, text);
    CSingleLock link(&m_pLink->m_lock, TRUE);
    try
    {
        m_sets.push_back(set);
    }
    catch (std::bad_alloc const &)
    {
        set->End();
        throw;
    }
    set->Insert(handle, param);
    return 1;
}

/// The set that has the handle, when no pass of it is under way. A function, which holds its own set's lock, waits for
/// no other: two of them might wait for each other.
std::shared_ptr<CEventWatcherSet> CEventWatcher::LockSet(void * handle, std::unique_ptr<CSingleLock> & serving)
{
    auto set = FindSet(handle);
    if (set && std::ranges::none_of(GetSets(), [](auto const & any) { return any->IsOwnThread(); }))
    {
        serving = std::make_unique<CSingleLock>(&set->GetServeLock(), TRUE);
    }
    return set;
}

int CEventWatcher::Remove(void * handle)
{
    SetLastError(handle ? 0 : ERROR_INVALID_HANDLE);
    if (!handle)
    {
        return 0;
    }
    return kvx::FailingWithoutMemory(
        [&]
        {
            std::unique_ptr<CSingleLock> serving;
            auto const set = LockSet(handle, serving);
            if (!set || !set->Remove(handle))
            {
                SetLastError(ERROR_NOT_FOUND);
                return 0;
            }
            return 1;
        });
}

int CEventWatcher::ReplaceKey(void * old, void * fresh)
{
    std::unique_ptr<CSingleLock> serving;
    auto const set = old && fresh && old != fresh ? LockSet(old, serving) : nullptr;
    CSingleLock guard(*this, TRUE); // nobody inserts the new handle meanwhile
    if (!old || !fresh || old == fresh || FindSet(fresh))
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    if (!set || !set->Replace(old, fresh))
    {
        SetLastError(ERROR_NOT_FOUND);
        return 0;
    }
    SetLastError(0);
    return 1;
}

void CEventWatcher::Service(void * handle, void * param)
{
    if (ServesOnWaitThread())
    {
        // The last step: what it calls may outlive the watcher.
        if (EVENT_WATCHER_PROC const proc = m_pEventProc)
        {
            proc(handle, param);
        }
        return;
    }
    CTrigger * const trigger = m_triggers.Allocate();
    trigger->m_pHandle = handle;
    trigger->m_pParam = param;
    if (!m_triggerQueue.Take(trigger))
    {
        m_triggers.Return(trigger);
    }
}

void CEventWatcher::ShutDown()
{
    constexpr DWORD PATIENCE = 5000; // milliseconds
    std::vector<std::shared_ptr<CEventWatcherSet>> sets;
    bool bCopied = false;
    {
        CSingleLock guard(*this, TRUE);
        m_pEventProc = nullptr; // no set is added any more
        CSingleLock link(&m_pLink->m_lock, TRUE);
        m_pLink->m_pWatcher = nullptr;
        m_pLink->m_map.clear();
        bCopied = kvx::FailingWithoutMemory(
            [&]
            {
                sets = m_sets;
                return true;
            });
    }
    // The copy is for a watcher that goes meanwhile.
    auto const & ending = bCopied ? sets : m_sets;
    bool bOnWaitThread = false;
    for (auto const & set : ending)
    {
        set->End();
        if (set->IsOwnThread())
        {
            bOnWaitThread = true;
            set->SetShutsDown();
        }
    }
    kvx::Timeout const patience(PATIENCE);
    for (auto const & set : ending)
    {
        if (!set->IsOwnThread() && !CKVXBaseApp::IsShuttingDown())
        {
            set->WaitForEnd(patience.GetRest(), bOnWaitThread);
        }
    }
}

void CEventWatcher::ServiceTriggerProc(CObject * object, void * param)
{
    auto * const watcher = static_cast<CEventWatcher *>(param);
    auto * const trigger = static_cast<CTrigger *>(object);
    void * const handle = trigger->m_pHandle;
    void * const value = trigger->m_pParam;
    watcher->m_triggers.Return(trigger);
    if (EVENT_WATCHER_PROC const proc = watcher->m_pEventProc.load())
    {
        proc(handle, value);
    }
}

std::vector<std::shared_ptr<CEventWatcherSet>> CEventWatcher::GetSets()
{
    CSingleLock guard(&m_pLink->m_lock, TRUE);
    return m_sets;
}

std::shared_ptr<CEventWatcherSet> CEventWatcher::FindSet(void * handle)
{
    CSingleLock guard(&m_pLink->m_lock, TRUE);
    auto const found = m_pLink->m_map.find(handle);
    if (found == m_pLink->m_map.end())
    {
        return nullptr;
    }
    auto const set = std::ranges::find(m_sets, found->second, &std::shared_ptr<CEventWatcherSet>::get);
    return set == m_sets.end() ? nullptr : *set;
}

bool CEventWatcher::CEventWatcherThreadQueue::Take(CTrigger * trigger)
{
    CSingleLock guard(*this, TRUE);
    WORD known = 0;
    if (m_bMerges && m_waiting.Lookup(trigger->m_pParam, known))
    {
        return false;
    }
    Added const added = Add(trigger);
    if (added == Added::Refused)
    {
        return false;
    }
    if (m_bMerges)
    {
        m_waiting.SetAt(trigger->m_pParam, 1);
    }
    guard.Unlock();
    if (added == Added::ThreadDue)
    {
        StartServiceThread(); // the trigger stays in the queue even if no thread can be had now
    }
    return true;
}

CObject * CEventWatcher::CEventWatcherThreadQueue::PopNextObject()
{
    CSingleLock guard(*this, TRUE);
    CObject * const object = CThreadQueue::PopNextObject();
    if (object && !m_waiting.IsEmpty())
    {
        m_waiting.RemoveKey(static_cast<CTrigger *>(object)->m_pParam);
    }
    return object;
}
