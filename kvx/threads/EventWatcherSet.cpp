#include "kvx/threads/EventWatcherSet.h"

#include "kvx/foundation/AppException.h"
#include "kvx/threads/EventWatcher.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"

CEventWatcherSet::CEventWatcherSet(CEventWatcher * watcher, int priority)
{
    m_pTable->m_handles[0] = m_pTable->m_controlEvent;
    m_pTable->m_pWatcher = watcher;
    auto share = std::make_unique<std::shared_ptr<CTable>>(m_pTable);
    CString text;
    text.Format(_T("EventWatcherSet::TriggerProc: %X of EventWatcher %X with EventProc %X"), &TriggerProc, watcher,
                watcher->m_pEventProc.load());
    m_pThread = CThreadPool::BeginThread(&TriggerProc, share.get(), priority, text);
    if (!m_pThread)
    {
        ThrowAppException(GetLastError(), _T("Cannot allocate event queue thread: %s"), CWinError::GetLastErrorText());
    }
    share.release(); // the thread's
}

CEventWatcherSet::~CEventWatcherSet()
{
    constexpr DWORD PATIENCE = 5000; // milliseconds
    {
        CSingleLock guard(*m_pTable, TRUE);
        m_pTable->m_nCount = 0;
        m_pTable->m_controlEvent.SetEvent();
    }
    if (CThreadPool::GetCurrentThreadContext() != m_pThread && !CKVXBaseApp::IsShuttingDown())
    {
        m_pTable->m_leftEvent.Lock(PATIENCE);
    }
}

bool CEventWatcherSet::Insert(void * handle, void * param)
{
    CSingleLock guard(*m_pTable, TRUE);
    DWORD & count = m_pTable->m_nCount;
    if (count >= SLOTS)
    {
        return false;
    }
    m_pTable->m_handles[count] = handle;
    m_pTable->m_params[count] = param;
    ++count;
    m_pTable->m_pWatcher->SetSet(handle, this);
    m_pTable->m_controlEvent.SetEvent();
    return true;
}

bool CEventWatcherSet::Remove(void * handle)
{
    CSingleLock guard(*m_pTable, TRUE);
    DWORD const slot = m_pTable->Find(handle);
    if (slot == 0)
    {
        return false;
    }
    m_pTable->m_handles[slot] = nullptr; // the next pass drops it
    m_pTable->m_controlEvent.SetEvent();
    return true;
}

bool CEventWatcherSet::Replace(void * old, void * fresh)
{
    CSingleLock guard(*m_pTable, TRUE);
    DWORD const slot = m_pTable->Find(old);
    if (slot == 0)
    {
        return false;
    }
    m_pTable->m_handles[slot] = fresh;
    m_pTable->m_controlEvent.SetEvent();
    return true;
}

unsigned int CEventWatcherSet::TriggerProc(void * share)
{
    std::unique_ptr<std::shared_ptr<CTable>> const table(static_cast<std::shared_ptr<CTable> *>(share));
    (*table)->Run();
    (*table)->m_leftEvent.SetEvent();
    return GetLastError();
}

/// 0 if it isn't there.
DWORD CEventWatcherSet::CTable::Find(void * handle) const
{
    for (DWORD slot = 1; slot < m_nCount; ++slot)
    {
        if (m_handles[slot] == handle)
        {
            return slot;
        }
    }
    return 0;
}

void CEventWatcherSet::CTable::Run()
{
    void * woken = nullptr;
    for (;;)
    {
        std::array<void *, SLOTS> handles;
        DWORD count = 0;
        {
            // A function that runs inside the pass may change handles: the watcher's lock comes before the set's.
            CSingleLock watcher(*m_pWatcher, m_pWatcher->ServesOnWaitThread());
            CSingleLock guard(*this, TRUE);
            if (!Pass(woken))
            {
                return;
            }
            handles = m_handles;
            count = m_nCount;
        }
        DWORD slot = WaitForMultipleObjects(count, handles.data(), FALSE, INFINITE);
        if (slot == WAIT_FAILED)
        {
            // Either one was closed, which the next pass drops, or it is of a kind that can only be looked at by
            // itself.
            constexpr DWORD LOOK = 10; // milliseconds
            WaitForSingleObject(handles[0], LOOK);
        }
        slot -= WAIT_OBJECT_0;
        woken = slot > 0 && slot < count ? handles[slot] : nullptr;
        if (woken && m_pWatcher->ImmedeateProcessing())
        {
            ServeAtOnce(slot, woken);
            woken = nullptr;
        }
    }
}

/// Serves all handles that are signalled, and drops those that have been removed, closed or served for the only time.
/// `woken` ended the wait: of an event that resets itself nothing else tells any more. False when the set goes.
bool CEventWatcherSet::CTable::Pass(void * woken)
{
    if (m_nCount == 0 || WaitForSingleObject(m_controlEvent, 0) == WAIT_FAILED)
    {
        return false;
    }
    m_controlEvent.ResetEvent();
    DWORD kept = 1;
    for (DWORD slot = 1; slot < m_nCount; ++slot) // a function may add handles meanwhile
    {
        void * const handle = m_handles[slot];
        void * const param = m_params[slot];
        if (!handle)
        {
            continue;
        }
        DWORD const state = WaitForSingleObject(handle, 0);
        bool const bDrop = state == WAIT_FAILED || m_pWatcher->IsSingleShot();
        if (bDrop)
        {
            // Gone before the call, so that the function may insert the handle again.
            m_handles[slot] = nullptr;
            m_pWatcher->ForgetHandle(handle);
        }
        else
        {
            m_handles[kept] = handle;
            m_params[kept] = param;
            if (kept++ != slot)
            {
                m_handles[slot] = nullptr;
            }
        }
        if (state != WAIT_FAILED && (state != WAIT_TIMEOUT || handle == woken))
        {
            ResetEvent(handle);
            m_pWatcher->Service(handle, param);
            if (m_nCount == 0)
            {
                return false; // the function has shut the watcher down
            }
        }
    }
    m_nCount = kept;
    return true;
}

void CEventWatcherSet::CTable::ServeAtOnce(DWORD slot, void * handle)
{
    CSingleLock guard(*this, TRUE);
    if (slot >= m_nCount || m_handles[slot] != handle)
    {
        return;
    }
    void * const param = m_params[slot];
    guard.Unlock();
    ResetEvent(handle);
    m_pWatcher->Service(handle, param);
}
