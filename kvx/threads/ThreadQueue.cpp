#include "kvx/threads/ThreadQueue.h"

#include "kvx/logging/LogManager.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/threads/ThreadTie.h"

#include <algorithm>
#include <array>
#include <memory>
#include <typeinfo>

/// One that serves, or is about to. The queue may go while the thread is in a function of the application.
struct CThreadQueue::StServiceThread : kvx::ThreadTie
{
    explicit StServiceThread(CThreadQueue * queue) : pQueue(queue) {}

    CThreadQueue * const pQueue;
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
}

CThreadQueue::~CThreadQueue()
{
    for (;;)
    {
        {
            CSingleLock guard(*this, TRUE);
            m_bStopped = true;
            m_objects.RemoveAll();
            std::erase_if(m_serviceThreads, [](StServiceThread * thread) { return thread->Cut(); });
            if (m_serviceThreads.empty() || CThreadPool::IsTerminated())
            {
                return;
            }
        }
        Sleep(0); // one is in the queue's own code, for a moment
    }
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

int CThreadQueue::Insert(CObject * object)
{
    Added const added = LockAndAdd(object);
    return added == Added::ThreadDue ? StartServiceThread() : added == Added::Served;
}

int CThreadQueue::InsertOrDelete(CObject * object)
{
    std::unique_ptr<CObject> owned(object);
    Added const added = LockAndAdd(object);
    if (added == Added::Refused)
    {
        return 0;
    }
    owned.release();
    if (added == Added::ThreadDue)
    {
        StartServiceThread();
    }
    return 1;
}

/// Without the lock, which the thread wants first of all.
int CThreadQueue::StartServiceThread()
{
    auto fresh = kvx::FailingWithoutMemory(
        [this]
        {
            auto thread = std::make_unique<StServiceThread>(this);
            CSingleLock guard(*this, TRUE);
            m_serviceThreads.push_back(thread.get());
            return thread;
        });
    if (fresh && CThreadPool::BeginThread(&ServiceProc, fresh.get(), m_nPriority, m_strThreads))
    {
        fresh.release(); // the thread's; and as far as this one knows the queue may be gone by now
        return 1;
    }
    CSingleLock guard(*this, TRUE);
    if (--m_nThreads == 0 && m_nEnding == 0)
    {
        m_idleEvent.SetEvent(); // no thread runs, and none is due
    }
    if (!fresh)
    {
        return 0;
    }
    if (!m_bDeferred && !CKVXBaseApp::IsShuttingDown() &&
        CThreadPool::BeginThreadLater(&DeferredProc, fresh.get(), m_nPriority, m_strThreads))
    {
        m_bDeferred = true;
        fresh.release();
        return 0;
    }
    std::erase(m_serviceThreads, fresh.get());
    return 0;
}

unsigned int CThreadQueue::ServiceProc(void * param)
{
    std::unique_ptr<StServiceThread> const self(static_cast<StServiceThread *>(param));
    if (!self->Enter())
    {
        LogError(_T("StThreadTracker cannot track threads for queue %08x."), self->pQueue);
        return ERROR_INVALID_ACCESS;
    }
    self->pQueue->Run(*self);
    return 0;
}

/// The same on a thread that came late: there may be nothing left to do.
unsigned int CThreadQueue::DeferredProc(void * param)
{
    std::unique_ptr<StServiceThread> const self(static_cast<StServiceThread *>(param));
    if (self->Enter() && self->pQueue->TakeUpService(*self))
    {
        self->pQueue->Run(*self);
    }
    return 0;
}

bool CThreadQueue::TakeUpService(StServiceThread & self)
{
    CSingleLock guard(*this, TRUE);
    m_bDeferred = false;
    if (m_objects.IsEmpty() || m_nThreads >= m_nMaxThreads)
    {
        std::erase(m_serviceThreads, &self);
        return false;
    }
    m_idleEvent.ResetEvent();
    ++m_nThreads;
    return true;
}

/// Entered by its thread; whenever that comes back from a function of the application, the queue may have gone.
void CThreadQueue::Run(StServiceThread & self)
{
    self.SetThread(GetCurrentThreadId());
    if (m_bTrace)
    {
        LogInfo(_T("CThreadQueue adding service thread %04d."), self.GetThreadId());
    }
    if (!CallHook(self, &CThreadQueue::ServiceThreadStarting, _T("ServiceThreadStarting")) || !ServeObjects(self) ||
        !CallHook(self, &CThreadQueue::ServiceThreadEnding, _T("ServiceThreadEnding")))
    {
        return;
    }
    if (m_bTrace)
    {
        LogInfo(_T("CThreadQueue ending service thread %04d."), self.GetThreadId());
    }
    Forget(self);
}

/// False if the queue has gone.
bool CThreadQueue::CallHook(StServiceThread & self, void (CThreadQueue::*hook)(DWORD), LPCTSTR name)
{
    if (typeid(*this) == typeid(CThreadQueue))
    {
        return true; // its own are empty
    }
    DWORD const id = self.GetThreadId();
    LPCTSTR const text = _T("CThreadQueue::ServiceProc - Exception in %s(%u)");
    self.Leave();
    try
    {
        (this->*hook)(id);
    }
    catch (CException * failure)
    {
        failure->Delete();
        LogError(text, name, id);
    }
    catch (...)
    {
        LogError(text, name, id);
    }
    return self.Enter();
}

/// False if the queue has gone.
bool CThreadQueue::ServeObjects(StServiceThread & self)
{
    LPCTSTR const text = _T("CThreadQueue::Unhandled exception in thread 0x%08X (pQueue=0x%08X)");
    try
    {
        do
        {
            while (GetObjectCount() != 0)
            {
                if (CObject * const object = PopNextObject(); object && !ServeObject(object, self))
                {
                    return false;
                }
            }
            Linger();
        } while (!MayEnd());
        return true;
    }
    catch (CException * failure)
    {
        failure->Delete();
        LogError(text, self.GetThreadId(), this);
    }
    catch (...)
    {
        LogError(text, self.GetThreadId(), this);
    }
    LeaveService();
    return true;
}

/// False if the queue has gone.
bool CThreadQueue::ServeObject(CObject * object, StServiceThread & self)
{
    DWORD const id = self.GetThreadId();
    ServiceProcType const proc = m_pServiceProc;
    void * const param = m_pServiceParam;
    bool const bPlain = typeid(*this) == typeid(CThreadQueue); // then nothing of the queue is needed from here on
    self.Leave();
    try
    {
        if (!bPlain)
        {
            Service(object, param);
        }
        else if (proc)
        {
            proc(object, param);
        }
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
                 proc);
    }
    return self.Enter();
}

/// Gives whoever fills the queue a moment, where he runs on the same CPU or is just about to insert: to end a service
/// and to begin the next one costs more than some looks, and a flood would have to pay that for every object.
void CThreadQueue::Linger() const
{
    constexpr int LOOKS = 4;
    for (int i = 0; i < LOOKS && GetObjectCount() == 0; ++i)
    {
        SwitchToThread();
    }
}

/// A service thread has found the queue empty. False if an object came in since, which nobody else may serve before the
/// next Insert. From a true result on, Insert no longer counts on this thread.
bool CThreadQueue::MayEnd()
{
    CSingleLock guard(*this, TRUE);
    if (!m_objects.IsEmpty())
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
void CThreadQueue::Forget(StServiceThread & self)
{
    CSingleLock guard(*this, TRUE);
    std::erase(m_serviceThreads, &self);
    if (--m_nEnding == 0 && m_nThreads == 0)
    {
        m_idleEvent.SetEvent();
    }
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
    if (IsServiceThread() || !CThreadPool::WaitForThread(m_idleEvent, timeout))
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
    return std::ranges::find(m_serviceThreads, GetCurrentThreadId(), &StServiceThread::GetThreadId) !=
           m_serviceThreads.end();
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
