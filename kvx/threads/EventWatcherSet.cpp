#include "kvx/threads/EventWatcherSet.h"

#include "kvx/foundation/AppException.h"
#include "kvx/logging/LogManager.h"
#include "kvx/threads/EventWatcher.h"
#include "kvx/threads/ThreadPool.h"

#include <algorithm>

CEventWatcherSet::CEventWatcherSet(std::shared_ptr<CEventWatcherLink> const & link) : m_pLink(link)
{
    m_handles[0] = m_controlEvent;
}

std::shared_ptr<CEventWatcherSet> CEventWatcherSet::Start(std::shared_ptr<CEventWatcherLink> const & link, int priority,
                                                          CString const & description)
{
    auto const set = std::make_shared<CEventWatcherSet>(link);
    auto share = std::make_unique<std::shared_ptr<CEventWatcherSet>>(set);
    CString text;
    text.Format(_T("EventWatcherSet::TriggerProc: %X of "), &TriggerProc);
    if (!CThreadPool::BeginThread(&TriggerProc, share.get(), priority, text + description))
    {
        ThrowAppException(GetLastError(), _T("Cannot allocate event queue thread: %s"), CWinError::GetLastErrorText());
    }
    share.release(); // the thread's
    return set;
}

bool CEventWatcherSet::Insert(void * handle, void * param)
{
    CSingleLock guard(&m_pLink->m_lock, TRUE);
    if (m_nCount >= SLOTS)
    {
        return false;
    }
    m_pLink->m_map[handle] = this; // needs memory: before anything else changes
    m_handles[m_nCount] = handle;
    m_params[m_nCount] = param;
    ++m_nCount;
    m_controlEvent.SetEvent();
    return true;
}

bool CEventWatcherSet::Remove(void * handle)
{
    CSingleLock guard(&m_pLink->m_lock, TRUE);
    DWORD const slot = Find(handle);
    if (slot == 0)
    {
        return false;
    }
    m_handles[slot] = nullptr; // the next pass drops it
    Forget(handle);
    m_controlEvent.SetEvent();
    return true;
}

bool CEventWatcherSet::Replace(void * old, void * fresh)
{
    CSingleLock guard(&m_pLink->m_lock, TRUE);
    DWORD const slot = Find(old);
    if (slot == 0)
    {
        return false;
    }
    m_pLink->m_map[fresh] = this;
    m_handles[slot] = fresh;
    Forget(old);
    m_controlEvent.SetEvent();
    return true;
}

void CEventWatcherSet::End()
{
    m_bEnds = true;
    m_controlEvent.SetEvent();
}

bool CEventWatcherSet::WaitForEnd(DWORD timeout, bool bOnWaitThread)
{
    std::array<HANDLE, 2> const events{m_leftEvent, m_shutsEvent};
    return WaitForMultipleObjects(bOnWaitThread ? 2 : 1, events.data(), FALSE, timeout) != WAIT_TIMEOUT;
}

unsigned int CEventWatcherSet::TriggerProc(void * share)
{
    std::unique_ptr<std::shared_ptr<CEventWatcherSet>> const owned(
        static_cast<std::shared_ptr<CEventWatcherSet> *>(share));
    CEventWatcherSet & set = **owned;
    set.m_nThreadId = GetCurrentThreadId();
    set.Run();
    set.m_nThreadId = 0;
    set.m_leftEvent.SetEvent();
    return GetLastError();
}

/// 0 if it isn't there.
DWORD CEventWatcherSet::Find(void * handle) const
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

void CEventWatcherSet::Forget(void * handle)
{
    auto const found = m_pLink->m_map.find(handle);
    if (found != m_pLink->m_map.end() && found->second == this)
    {
        m_pLink->m_map.erase(found);
    }
}

/// Drops the slots whose handles have gone.
void CEventWatcherSet::Compact()
{
    DWORD kept = 1;
    for (DWORD slot = 1; slot < m_nCount; ++slot)
    {
        if (m_handles[slot])
        {
            m_handles[kept] = m_handles[slot];
            m_params[kept] = m_params[slot];
            ++kept;
        }
    }
    std::fill(m_handles.begin() + kept, m_handles.begin() + m_nCount, nullptr);
    m_nCount = kept;
}

void CEventWatcherSet::Run()
{
    // Told to end by the pool, the thread leaves as well.
    HANDLE const endEvent = CThreadPool::GetCurrentThreadContext()->GetActiveHandle();
    void * woken = nullptr;
    bool bTold = true; // the control event may be signalled
    for (;;)
    {
        if (bTold)
        {
            m_controlEvent.ResetEvent(); // before the pass looks at what it tells of
        }
        if (!Pass(woken))
        {
            return;
        }
        std::array<void *, SLOTS + 1> handles;
        DWORD count = 0;
        {
            CSingleLock guard(&m_pLink->m_lock, TRUE);
            Compact();
            count = m_nCount;
            std::copy_n(m_handles.begin(), count, handles.begin());
        }
        handles[count] = endEvent;
        DWORD slot = WaitForMultipleObjects(count + 1, handles.data(), FALSE, INFINITE);
        if (slot == WAIT_OBJECT_0 + count)
        {
            return;
        }
        bTold = slot == WAIT_OBJECT_0 || slot == WAIT_FAILED;
        if (slot == WAIT_FAILED)
        {
            // Either one was closed, which the next pass drops, or it is of a kind that can only be looked at by
            // itself.
            constexpr DWORD LOOK = 10; // milliseconds
            WaitForSingleObject(handles[0], LOOK);
        }
        slot -= WAIT_OBJECT_0;
        woken = slot > 0 && slot < count ? handles[slot] : nullptr;
        if (woken && HasFlag(CEventWatcher::FLAG_IMMEDIATE_PROCESSING))
        {
            ServeAtOnce(slot, woken);
            woken = nullptr;
        }
    }
}

/// Serves all handles that are signalled, and drops those that have been closed or served for the only time. `woken`
/// ended the wait: of an event that resets itself nothing else tells any more. False when the set ends.
bool CEventWatcherSet::Pass(void * woken)
{
    CSingleLock serving(&m_serveLock, TRUE);
    bool bEach = HasFlag(CEventWatcher::FLAG_SINGLE_SHOT);
    for (DWORD slot = 1; !m_bEnds; ++slot)
    {
        void * taken = nullptr;
        if (!bEach && !FindSignalled(slot, woken, taken))
        {
            bEach = true;
        }
        if (!ServeSlot(slot, taken ? taken : woken))
        {
            break;
        }
    }
    return !m_bEnds;
}

/// Moves the slot on to the next one that has to be looked at by itself. With one wait for all handles on the way
/// there, which `taken` has ended, if any: that takes the signal, too. False if some of them can't be waited for.
bool CEventWatcherSet::FindSignalled(DWORD & slot, void * woken, void *& taken)
{
    std::array<void *, SLOTS> handles;
    DWORD count = 0;
    {
        CSingleLock guard(&m_pLink->m_lock, TRUE);
        while (slot + count < m_nCount && m_handles[slot + count] && m_handles[slot + count] != woken)
        {
            handles[count] = m_handles[slot + count];
            ++count;
        }
    }
    if (count == 0)
    {
        return true;
    }
    DWORD state = WaitForMultipleObjects(count, handles.data(), FALSE, 0);
    if (state == WAIT_FAILED)
    {
        return false;
    }
    if (state == WAIT_TIMEOUT)
    {
        slot += count;
        return true;
    }
    state -= state < WAIT_ABANDONED_0 ? WAIT_OBJECT_0 : WAIT_ABANDONED_0;
    slot += state;
    taken = handles[state];
    return true;
}

/// False behind the last slot; a function may add handles meanwhile.
bool CEventWatcherSet::ServeSlot(DWORD slot, void * woken)
{
    CSingleLock guard(&m_pLink->m_lock, TRUE);
    if (slot >= m_nCount)
    {
        return false;
    }
    void * const handle = m_handles[slot];
    guard.Unlock();
    DWORD const state = handle ? WaitForSingleObject(handle, 0) : WAIT_TIMEOUT;
    bool const bServe = handle && state != WAIT_FAILED && (state != WAIT_TIMEOUT || handle == woken);
    bool const bDrop = state == WAIT_FAILED || HasFlag(CEventWatcher::FLAG_SINGLE_SHOT);
    if (!bServe && !bDrop)
    {
        return true;
    }
    guard.Lock();
    if (m_handles[slot] != handle)
    {
        return true; // removed or replaced meanwhile
    }
    void * const param = m_params[slot];
    if (bDrop)
    {
        // Gone before the call, so that the function may insert the handle again.
        m_handles[slot] = nullptr;
        Forget(handle);
    }
    guard.Unlock();
    if (bServe)
    {
        Serve(handle, param);
    }
    return true;
}

void CEventWatcherSet::ServeAtOnce(DWORD slot, void * handle)
{
    CSingleLock guard(&m_pLink->m_lock, TRUE);
    if (slot >= m_nCount || m_handles[slot] != handle)
    {
        return;
    }
    void * const param = m_params[slot];
    guard.Unlock();
    Serve(handle, param);
}

/// When this comes back the watcher may have gone.
void CEventWatcherSet::Serve(void * handle, void * param)
{
    CSingleLock guard(&m_pLink->m_lock, TRUE);
    CEventWatcher * const watcher = m_pLink->m_pWatcher;
    guard.Unlock();
    if (!watcher)
    {
        return;
    }
    ResetEvent(handle);
    LPCTSTR const text = _T("CEventWatcher::Unhandled exception in thread 0x%08X.");
    try
    {
        watcher->Service(handle, param);
    }
    catch (CException * failure)
    {
        failure->Delete();
        LogError(text, GetCurrentThreadId());
    }
    catch (...)
    {
        LogError(text, GetCurrentThreadId());
    }
}
