#pragma once

/// A work queue with a bounded number of service threads.

#include "kvx/foundation/Lockable.h"

#include <vector>

/// Objects are served first in, first out, each on a thread of the pool. A service thread exists only while there is
/// work: Insert starts one if fewer than the maximum are running, and a thread ends when it finds the queue empty. With
/// a maximum of 1 objects are served in order, one at a time; with more there is no order among them.
///
/// The queue doesn't own its objects except through Stop: the service procedure owns what it receives. An exception of
/// the procedure goes to the log, and the next object is served.
///
/// The owner stops the queue, and waits, before it destroys it. A queue that goes before lets go of what waits, and the
/// threads leave it behind the object that they are serving: so a program may end whatever its queues are doing.
///
/// No thread to be had means that the system gives none. What waits then is served as soon as a later Insert can have
/// one, or another thread of the pool has done its job. Nothing limits the number of objects that wait.
/// Threads: Insert, Stop and the waits may be called from any thread.
class KVX_API CThreadQueue : public CLockable
{
public:
    using ServiceProcType = void (*)(CObject *, void *);

    CThreadQueue(ServiceProcType proc, void * param, int maxThreads, int priority, CString const & name);
    CThreadQueue(CThreadQueue const &) = delete;
    CThreadQueue & operator=(CThreadQueue const &) = delete;
    ~CThreadQueue() override;

    /// Replaces the five values; for a queue that is idle.
    void Initialize(ServiceProcType proc, void * param, int maxThreads, int priority, CString const & name);

    /// 1 if the object was accepted and, where one was due, a thread started. 0 if the queue is stopped, and the object
    /// stays with the caller; also 0 if no thread could be had, and then the object stays in the queue for a later one.
    virtual int Insert(CObject * object);
    /// Takes the queue out of use for ever. Objects that wait are deleted, or let go of with `deleteObjects` 0. With
    /// `wait` it returns when no service thread runs any more, as WaitForIdle does, else at once with 1.
    virtual int Stop(int wait, int deleteObjects);

    /// Non-zero when no service thread runs within `timeout` milliseconds; the list isn't looked at. 0 at once on a
    /// service thread of this queue, and when the pool's threads have been killed; see CThreadPool::WaitForThread.
    int WaitForIdle(DWORD timeout);
    int IsIdle() { return WaitForIdle(0); }
    int IsStopped() const;
    /// Whether the calling thread is one that serves this queue.
    int IsServiceThread() const;
    int GetObjectCount() const;
    CString GetName() const;

    ServiceProcType GetServiceProc() const { return m_pServiceProc; }
    void SetServiceProc(ServiceProcType proc) { m_pServiceProc = proc; }
    void * GetServiceParam() const { return m_pServiceParam; }
    void SetServiceParam(void * param) { m_pServiceParam = param; }

    /// Inserts, and deletes an object that a stopped queue doesn't take. 0 means exactly that the object is gone; with
    /// 1 it is the queue's, and will be served, or deleted by Stop, also if no thread could be had yet.
    int InsertOrDelete(CObject * object);

protected:
    enum class Added
    {
        Refused, ///< the queue is stopped
        Served,  ///< a thread that runs will come to it
        ThreadDue,
    };
    /// The two halves of Insert, for a derived class that has more to do under the lock: the first is called with it,
    /// and StartServiceThread, which gives the result of Insert, when a thread is due, without it.
    Added Add(CObject * object);
    int StartServiceThread();

    /// Chooses the next object and takes it out of the queue; null if there is none.
    virtual CObject * PopNextObject();
    virtual void Service(CObject * object, void * param);
    virtual void ServiceThreadStarting(DWORD) {}
    virtual void ServiceThreadEnding(DWORD) {}

private:
    struct StServiceThread;

    ServiceProcType m_pServiceProc = nullptr;
    void * m_pServiceParam = nullptr;
    bool m_bStopped = false;
    int m_nPriority = 0;
    int m_nThreads = 0; // that serve, or are about to
    int m_nEnding = 0;  // that have left the list for good, and still run
    int m_nMaxThreads = 0;
    CString m_strName;
    CString m_strThreads; // the description of the service threads
    CEvent m_idleEvent;
    CObList m_objects{10};
    std::vector<StServiceThread *> m_serviceThreads; // each its own thread's
    bool m_bDeferred = false;                        // one of them waits for a thread
    bool m_bTrace = false;

    Added LockAndAdd(CObject * object);
    static unsigned int ServiceProc(void * serviceThread);
    static unsigned int DeferredProc(void * serviceThread);
    bool TakeUpService(StServiceThread & self);
    void Run(StServiceThread & self);
    bool CallHook(StServiceThread & self, void (CThreadQueue::*hook)(DWORD), LPCTSTR name);
    bool ServeObjects(StServiceThread & self);
    bool ServeObject(CObject * object, StServiceThread & self);
    void Linger() const;
    bool MayEnd();
    void LeaveService();
    void Forget(StServiceThread & self);
};
