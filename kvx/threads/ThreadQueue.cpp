#include "kvx/threads/ThreadQueue.h"

#include "kvx/logging/LogManager.h"
#include "kvx/threads/ThreadPool.h"

#include <algorithm>
#include <array>

/// Keeps a service thread's entry among the thread ids for as long as it runs.
struct CThreadQueue::StThreadTracker
{
    CThreadQueue * pQueue = nullptr;

    StThreadTracker(CThreadQueue * queue, DWORD id)
    {
        if (AfxIsValidAddress(queue, sizeof(CThreadQueue), TRUE))
        {
            pQueue = queue;
            pQueue->ChangeThreadSlot(0, id);
        }
        else
        {
            LogError(_T("StThreadTracker cannot track threads for queue %08x."), queue);
        }
    }
};

CThreadQueue::CThreadQueue(ServiceProcType proc, void * param, int maxThreads, int priority, CString const & name)
    : m_idleEvent(TRUE, TRUE)
{
    Initialize(proc, param, maxThreads, priority, name);
}

void CThreadQueue::Initialize(ServiceProcType proc, void * param, int maxThreads, int priority, CString const & name)
{
    CSingleLock guard(*this, TRUE);
    m_pServiceProc = proc;
    m_pServiceParam = param;
    m_nMaxThreads = maxThreads;
    m_nPriority = priority;
    m_strName = name;
    m_strThreads.Format(_T("%s (ServiceProc: %08X)"), name.IsEmpty() ? CString(_T("Unnamed ThreadQueue")) : name,
                        &ServiceProc);
    m_threadIds.assign(static_cast<std::size_t>(std::max(maxThreads, 0)), 0);
}

CThreadQueue::Added CThreadQueue::Add(CObject * object)
{
    if (m_bStopped)
    {
        return Added::Refused;
    }
    m_objects.AddTail(object);
    if (m_nThreads >= m_nMaxThreads)
    {
        return Added::Served;
    }
    m_idleEvent.ResetEvent();
    ++m_nThreads;
    return Added::ThreadDue;
}

CThreadQueue::Added CThreadQueue::LockAndAdd(CObject * object)
{
    CSingleLock guard(*this, TRUE);
    return Add(object);
}

int CThreadQueue::HaveServed(Added added)
{
    return added == Added::ThreadDue ? StartServiceThread() : added == Added::Served;
}

int CThreadQueue::Insert(CObject * object)
{
    return HaveServed(LockAndAdd(object));
}

int CThreadQueue::InsertOrDelete(CObject * object)
{
    Added const added = LockAndAdd(object);
    if (added == Added::Refused)
    {
        delete object;
    }
    return HaveServed(added);
}

/// Without the lock, which the thread wants first of all.
int CThreadQueue::StartServiceThread()
{
    if (CThreadPool::BeginThread(&ServiceProc, this, m_nPriority, m_strThreads))
    {
        return 1; // as far as this thread knows the queue may be gone by now
    }
    CSingleLock guard(*this, TRUE);
    if (--m_nThreads == 0 && m_nEnding == 0)
    {
        m_idleEvent.SetEvent(); // no thread runs, and none is due
    }
    return 0;
}

unsigned int CThreadQueue::ServiceProc(void * param)
{
    auto * const queue = static_cast<CThreadQueue *>(param);
    DWORD const id = GetCurrentThreadId();
    StThreadTracker const tracker(queue, id);
    if (!tracker.pQueue)
    {
        return ERROR_INVALID_ACCESS;
    }
    try
    {
        queue->ServiceThreadStarting(id);
    }
    catch (...)
    {
        LogError(_T("CThreadQueue::ServiceProc - Exception in ServiceThreadStarting(%u)"), id);
    }
    while (queue->ServeObjects(id) && !queue->MayEnd())
    {
    }
    try
    {
        queue->ServiceThreadEnding(id);
    }
    catch (...)
    {
        LogError(_T("CThreadQueue::ServiceProc - Exception in ServiceThreadEnding(%u)"), id);
    }
    queue->EndServiceThread(id);
    return 0;
}

/// False if the loop itself failed, which ends the thread.
bool CThreadQueue::ServeObjects(DWORD id)
{
    try
    {
        while (GetObjectCount() != 0)
        {
            if (CObject * const object = PopNextObject())
            {
                ServeObject(object, id);
            }
        }
        return true;
    }
    catch (...)
    {
        LogError(_T("CThreadQueue::Unhandled exception in thread 0x%08X (pQueue=0x%08X)"), id, this);
    }
    LeaveService();
    return false;
}

void CThreadQueue::ServeObject(CObject * object, DWORD id)
{
    try
    {
        Service(object, m_pServiceParam);
    }
    catch (CException * failure)
    {
        std::array<WCHAR, 1024> text{};
        std::ranges::copy(CString::View(_T("<NO EXCEPTION TEXT>")), text.begin());
        failure->GetErrorMessage(text.data(), static_cast<UINT>(text.size()));
        LogError(_T("CThreadQueue::Unhandled MFC exception in thread 0x%08X: %s."), id, text.data());
        failure->Delete();
    }
    catch (...)
    {
        LogError(_T("CThreadQueue::Unhandled exception in thread 0x%08X. error 0x%08X pService=%x"), id, GetLastError(),
                 m_pServiceProc);
    }
}

/// A service thread has found the queue empty. False if an object came in since, which nobody else would serve before
/// the next Insert. From a true result on, Insert no longer counts on this thread.
bool CThreadQueue::MayEnd()
{
    CSingleLock guard(*this, TRUE);
    if (!m_objects.IsEmpty() && m_nThreads >= m_nMaxThreads)
    {
        return false;
    }
    LeaveService();
    return true;
}

void CThreadQueue::LeaveService()
{
    CSingleLock guard(*this, TRUE);
    --m_nThreads;
    ++m_nEnding;
}

/// The last thing that a service thread does with the queue.
void CThreadQueue::EndServiceThread(DWORD id)
{
    CSingleLock guard(*this, TRUE);
    ChangeThreadSlot(id, 0);
    if (--m_nEnding == 0 && m_nThreads == 0)
    {
        m_idleEvent.SetEvent();
    }
}

bool CThreadQueue::ChangeThreadSlot(DWORD old, DWORD fresh)
{
    CSingleLock guard(*this, TRUE);
    auto const slot = std::ranges::find(m_threadIds, old);
    if (slot == m_threadIds.end())
    {
        return false;
    }
    *slot = fresh;
    if (m_bTrace && old != 0)
    {
        LogInfo(_T("CThreadQueue ending service thread %04d."), old);
    }
    if (m_bTrace && fresh != 0)
    {
        LogInfo(_T("CThreadQueue adding service thread %04d."), fresh);
    }
    return true;
}

int CThreadQueue::Stop(int wait, int deleteObjects)
{
    {
        CSingleLock guard(*this, TRUE);
        m_bStopped = true;
        while (!m_objects.IsEmpty())
        {
            CObject * const object = m_objects.RemoveHead();
            if (deleteObjects)
            {
                delete object;
            }
        }
    }
    return wait ? WaitForIdle(INFINITE) : 1;
}

int CThreadQueue::WaitForIdle(DWORD timeout)
{
    if (!m_idleEvent.Lock(timeout))
    {
        return 0;
    }
    // The thread that set the event did so under the lock: it must be out of there before the owner may go on to
    // destroy the queue.
    CSingleLock guard(*this, TRUE);
    return 1;
}

int CThreadQueue::IsStopped() const
{
    CSingleLock guard(*this, TRUE);
    return m_bStopped;
}

int CThreadQueue::IsServiceThread() const
{
    CSingleLock guard(*this, TRUE);
    return std::ranges::find(m_threadIds, GetCurrentThreadId()) != m_threadIds.end();
}

int CThreadQueue::GetObjectCount() const
{
    CSingleLock guard(*this, TRUE);
    return static_cast<int>(m_objects.GetCount());
}

CString CThreadQueue::GetName() const
{
    CSingleLock guard(*this, TRUE);
    return m_strName;
}

CObject * CThreadQueue::PopNextObject()
{
    CSingleLock guard(*this, TRUE);
    return m_objects.IsEmpty() ? nullptr : m_objects.RemoveHead();
}

void CThreadQueue::Service(CObject * object, void * param)
{
    if (m_pServiceProc)
    {
        m_pServiceProc(object, param);
    }
}
