#pragma once

/// The server's end: waits for clients on a listening connection, and serves each of them on a session of its own.

#include "kvx/threads/ThreadQueue.h"
#include "kvx/transport/MsgBacklog.h"
#include "kvx/transport/MsgConnectionProvider.h"

#include <memory>
#include <vector>

class CMsgListener;
class CMsgListenerRun;
class CMsgListenerSession;
class CMsgListenerSessionBase;
class CThreadContext;

/// What a listener tells the process-wide hook. Lives for the length of the call.
class KVX_API CMsgListenerEvent : public CObject
{
public:
    enum EventType : DWORD
    {
        SESSION_RELEASED = 0, // a session that holds a connection
        REQUESTS_IDLE = 3,    // no request is in progress any more
        BEFORE_DISPATCH = 5,
        AFTER_DISPATCH = 7,
        BEFORE_RESPONSE = 8,
        AFTER_RESPONSE = 9,
        SESSION_UNUSED = 10, // a session without a connection is released
    };

    DWORD m_nType = 0;
    DWORD m_nThreadId = 0;
    SYSTEMTIME m_time{};                // local
    CMsgRequest * m_pRequest = nullptr; // null for events of sessions
    CMsgListener * m_pListener = nullptr;
    CMsgListenerSessionBase * m_pSession = nullptr;
};

/// A listener has one thread that accepts, one for each connected client, and one that serves one-way requests in order
/// of arrival. The handshake with a client runs on the client's thread, so that a silent one holds up nobody.
///
/// A command that begins with the path of the listener's target, in any case, is served below that target; anything
/// else is answered with code 50.
///
/// One-way requests that come faster than they are served wait in a backlog of limited size. While it is full a session
/// keeps the one-way request that it has read in hand and reads no further, so that its client is slowed by the
/// transport's own flow control: nothing is lost, the order is kept, and other clients' two-way requests are served
/// (one behind a one-way request that is held back, on the same connection, waits with it). A handler of one-way
/// requests must therefore not send more of them to its own listener than the backlog holds.
///
/// Threads: StartListener and StopListener are the owner's. Whoever started a listener stops it before the tree is torn
/// down. A handler may stop its listener, which then doesn't wait for it, but mustn't delete it.
class KVX_API CMsgListener : public CMsgConnectionProvider
{
public:
    class CListenerRequest;
    using EventProc = void (*)(CMsgListenerEvent *, void *);

    /// What a listener puts up with; 0 is no limit.
    struct Limits
    {
        /// One-way requests that wait to be served, and their bytes on the wire. In memory they take several times
        /// that.
        DWORD nMaxBacklog = 4096;
        ULONGLONG nMaxBacklogBytes = ULONGLONG{8} << 20;
        /// The bytes of one message on the wire. A longer one ends its session. It is noticed as it arrives, up to 256
        /// KiB late.
        ULONGLONG nMaxMessageBytes = 0;
        /// Clients at a time. Those that come beyond are disconnected at once.
        DWORD nMaxClients = 0;
    };

    ~CMsgListener() override;

    void SetTarget(CMsgTarget * target) override;
    DWORD DetachTarget() override;
    /// Ends the listener for good: as StopListener, but whatever is in service is waited for beyond the stop time-out,
    /// and one-way requests that are unserved by then are dropped.
    void TargetEnding() override { EndListener(); }
    /// Does nothing: requests reach a listener's target through its sessions.
    void Service(CMsgRequest &) override {}
    void RegisterProviderMap() override {}
    /// Does nothing: the connections are those of clients, and end with the listener.
    int StopProvider() override { return 1; }

    /// For a listener that is stopped.
    void SetLimits(Limits const & limits);

    /// 0 if no thread could be had. The listening itself begins on that thread: see WaitUntilListening. A listener that
    /// is stopping may be started: what is still in service goes on to its end.
    virtual int StartListener();
    /// Stops accepting and drops all clients, at once: of what they sent only the one-way requests that have come in
    /// are still served. Then waits for what is in service, and for these, within the stop time-out. 0 while the
    /// library shuts down, and then nothing is touched.
    virtual int StopListener();
    /// Waits until the listener accepts clients or has failed to: 1, or 0 with the reason as the thread's last error,
    /// which is 1243 for a listener that was never started.
    virtual int WaitUntilListening(DWORD timeout);
    /// 0 before it listens, and once it has stopped, also by itself.
    int IsListening() const { return GetListeningConnection() != nullptr; }

    virtual int ReadRequest(CMsgConnection * connection, CMsgRequest & request);
    virtual int WriteResponse(CMsgConnection * connection, CMsgRequest & request);

    /// For a provider that keeps the connection of the request that it serves. Takes it from the request and, if a
    /// listener read that, out of the listener's hands: the session writes no response and ends. The connection belongs
    /// to the caller if it has no owner any more. Null if the request has none.
    static CMsgConnection * TakeConnection(CMsgRequest & request);

    /// Names an event that the listener waits for before it listens, if the event exists.
    void SetEvent(LPCTSTR name) { m_strStartEvent = name; }
    /// One hook for the process, called on the thread that raises the event; null raises nothing.
    static void SetEventProc(EventProc proc, void * param);
    static void GetEventProcInfo(EventProc & proc, void *& param);
    /// 1, 2, 3, ...
    static DWORD AllocateSessionId();

protected:
    CMsgListener(int listenerPriority, int sessionPriority, DWORD stopTimeout);

    virtual void Run();
    /// For the destructors of derived listeners, while CreateConnection can still be called: stops the listener and
    /// waits for its threads without limit, other than those that the library's shutdown has ended.
    void EndListener();

    /// Said on the listener's thread where listening turns out to fail later than in Listen: see WaitUntilListening.
    void ReportListenError(DWORD error);

    /// The connection that listens, null unless the listener runs.
    CMsgConnection * GetListeningConnection() const;

private:
    friend class CMsgListenerSession;

    using CRun = CMsgListenerRun;
    using RunPtr = std::shared_ptr<CRun>;

    CString m_strTargetPath;
    int m_nListenerPriority;
    int m_nSessionPriority;
    DWORD m_nStopTimeout;
    Limits m_limits;
    CObCache m_sessions;
    CString m_strStartEvent;
    LONG m_nInProgress = 0;
    CCriticalSection m_progressLock;
    CMsgBacklog m_backlog;
    CThreadQueue m_notifyQueue;
    CEvent m_idleEvent;

    // Guards the next two and all that the runs hold.
    mutable CCriticalSection m_runLock;
    RunPtr m_run;                // the last one that was started, null before
    std::vector<RunPtr> m_alive; // those that have a thread

    CShutdownHook m_shutdownHook{[](void * self) { static_cast<CMsgListener *>(self)->BeginStop(); }, this};

    static unsigned int ListenerProc(void * start);
    static void NotifyRequestProc(CObject * request, void * listener);

    int BeginRun();
    bool BeginListening(CRun & run);
    CMsgConnection * AllocateClient(CRun & run);
    void AcceptClients(CRun & run);
    bool BeginSession(RunPtr const & run, CMsgConnection * client);
    void EndSession(CMsgListenerSession * session);
    static void BreakSessions(CRun & run);
    void EndRun(RunPtr const & run);
    RunPtr BeginStop();
    bool IsOwnThread() const;
    CMsgListenerSession * AllocateSession();

    void ProcessRequest(CMsgListenerSession * session, CMsgConnection * connection);
    bool IsTooLong(CMsgConnection const & connection, ULONGLONG start) const;
    void QueueRequest(std::unique_ptr<CListenerRequest> request, HANDLE stop);
    void DispatchRequest(CListenerRequest & request);
    void ResetRequest(CListenerRequest & request);
    void ReleaseSession(CMsgListenerSession * session);
    void NotifyEvent(DWORD type, CMsgListenerSessionBase * session, CMsgRequest * request);
};

/// A request that came through a listener.
class KVX_API CMsgListener::CListenerRequest : public CMsgRequest
{
public:
    CListenerRequest(CMsgListenerSessionBase * session, CMsgConnection * connection)
        : m_pSession(session), m_pSavedConnection(connection)
    {
        SetConnection(connection);
    }
    CListenerRequest(CListenerRequest const &) = default;

    CMsgListenerSessionBase * GetSession() const { return m_pSession; }
    CMsgConnection * GetSavedConnection() const { return m_pSavedConnection; }

private:
    friend class CMsgListener;

    CMsgListenerSessionBase * m_pSession;
    CMsgConnection * m_pSavedConnection;
    ULONGLONG m_nBytes = 0; // on the wire
};
