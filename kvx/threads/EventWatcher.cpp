#include "kvx/threads/EventWatcher.h"

#include "kvx/threads/EventWatcherSet.h"
#include "kvx/threads/ThreadPool.h"

CEventWatcher::CEventWatcher(EVENT_WATCHER_PROC proc, int priority, int maxThreads)
{
    RegisterAutoDelete(m_sets);
    Initialize(proc, priority, maxThreads);
}

CEventWatcher::~CEventWatcher()
{
    CEventWatcher::ShutDown();
    m_triggerQueue.Stop(!CThreadPool::IsTerminated(), 0); // the cache owns the triggers
}

void CEventWatcher::Initialize(EVENT_WATCHER_PROC proc, int priority, int maxThreads)
{
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
    m_triggerQueue.Merge((flags & FLAG_MERGE) != 0);
}

int CEventWatcher::Insert(void * handle, void * param)
{
    CSingleLock guard(*this, TRUE);
    SetLastError(handle ? 0 : ERROR_INVALID_HANDLE);
    if (!handle || !m_pEventProc.load())
    {
        return 0;
    }
    if (FindSet(handle))
    {
        SetLastError(ERROR_OBJECT_ALREADY_EXISTS);
        return 0;
    }
    for (POSITION pos = m_sets.GetHeadPosition(); pos;)
    {
        if (static_cast<CEventWatcherSet *>(m_sets.GetNext(pos))->Insert(handle, param))
        {
            return 1;
        }
    }
    auto * const set = new CEventWatcherSet(this, m_nPriority);
    m_sets.AddTail(set);
    set->Insert(handle, param);
    return 1;
}

int CEventWatcher::Remove(void * handle)
{
    CSingleLock guard(*this, TRUE);
    SetLastError(handle ? 0 : ERROR_INVALID_HANDLE);
    if (!handle)
    {
        return 0;
    }
    if (CEventWatcherSet * const set = FindSet(handle))
    {
        set->Remove(handle);
    }
    if (!ForgetHandle(handle))
    {
        SetLastError(ERROR_NOT_FOUND);
        return 0;
    }
    return 1;
}

int CEventWatcher::ReplaceKey(void * old, void * fresh)
{
    CSingleLock guard(*this, TRUE);
    if (!old || !fresh || old == fresh || FindSet(fresh))
    {
        SetLastError(ERROR_INVALID_HANDLE);
        return 0;
    }
    CEventWatcherSet * const set = FindSet(old);
    if (!set || !set->Replace(old, fresh))
    {
        SetLastError(ERROR_NOT_FOUND);
        return 0;
    }
    SetLastError(0);
    ForgetHandle(old);
    SetSet(fresh, set);
    return 1;
}

void CEventWatcher::Service(void * handle, void * param)
{
    CTrigger * const trigger = m_triggers.Allocate();
    trigger->m_pHandle = handle;
    trigger->m_pParam = param;
    if (ServesOnWaitThread())
    {
        ServiceTriggerProc(trigger, this);
    }
    else if (!m_triggerQueue.Take(trigger))
    {
        m_triggers.Return(trigger);
    }
}

void CEventWatcher::ShutDown()
{
    {
        CSingleLock guard(*this, TRUE);
        m_pEventProc = nullptr; // no set is added any more
        CSingleLock map(&m_mapLock, TRUE);
        m_map.clear();
    }
    PerformAutoDelete(m_sets, 0); // without the lock, which the sets' threads may want
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

CEventWatcherSet * CEventWatcher::FindSet(void * handle)
{
    CSingleLock guard(&m_mapLock, TRUE);
    auto const found = m_map.find(handle);
    return found != m_map.end() ? found->second : nullptr;
}

void CEventWatcher::SetSet(void * handle, CEventWatcherSet * set)
{
    CSingleLock guard(&m_mapLock, TRUE);
    m_map[handle] = set;
}

bool CEventWatcher::ForgetHandle(void * handle)
{
    CSingleLock guard(&m_mapLock, TRUE);
    return m_map.erase(handle) > 0;
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
