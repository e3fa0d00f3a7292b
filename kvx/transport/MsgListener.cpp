#include "kvx/transport/MsgListener.h"

#include "kvx/foundation/Timeout.h"
#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgTarget.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgListenerSession.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>
#include <vector>

namespace
{
struct Hook
{
    CCriticalSection lock;
    std::atomic<CMsgListener::EventProc> proc{nullptr};
    void * param = nullptr;
};

Hook & TheHook()
{
    static Hook & hook = *new Hook; // sessions may ask for it until the process has ended
    return hook;
}

constexpr DWORD LOOK = 1000; // milliseconds, between two looks at what no event tells of

/// The listener whose session's thread this is.
thread_local CMsgListener const * t_pServing = nullptr;
/// The run whose accepting thread this is.
thread_local std::shared_ptr<CMsgListenerRun> const * t_pRun = nullptr;
} // namespace

/// A run of a listener, from its start until the last of its threads has ended. One may still be ending when the next
/// one has begun.
class CMsgListenerRun
{
public:
    // All but the events are guarded by the listener's lock.
    std::atomic<bool> m_bStopping{false};
    CMsgConnection * m_pListening = nullptr; // while it accepts
    DWORD m_nError = ERROR_OPERATION_ABORTED;
    std::vector<CMsgListenerSession *> m_sessions; // those that have a thread
    std::vector<CMsgListenerSession *> m_broken;   // those that didn't end by themselves
    bool m_bTurnsAway = false;                     // the last client came beyond the limit

    CEvent m_stopEvent{FALSE, TRUE};    // manual: along with the flag
    CEvent m_startedEvent{FALSE, TRUE}; // manual: the listening has begun or failed
    CEvent m_quietEvent{TRUE, TRUE};    // manual: there are no sessions
    CEvent m_endedEvent{FALSE, TRUE};   // manual: there are no threads
};

CMsgListener::CMsgListener(int listenerPriority, int sessionPriority, DWORD stopTimeout)
    : m_nListenerPriority(listenerPriority), m_nSessionPriority(sessionPriority), m_nStopTimeout(stopTimeout),
      m_notifyQueue(&NotifyRequestProc, this, 1, 0, _T("CMsgListener Notify Request Queue")), m_idleEvent(FALSE, TRUE)
{
    SetLimits(Limits());
}

CMsgListener::~CMsgListener()
{
    EndListener();
}

void CMsgListener::SetTarget(CMsgTarget * target)
{
    CMsgConnectionProvider::SetTarget(target);
    m_strTargetPath = target->GetPath();
}

DWORD CMsgListener::DetachTarget()
{
    StopListener();
    return CMsgConnectionProvider::DetachTarget();
}

void CMsgListener::SetLimits(Limits const & limits)
{
    m_limits = limits;
    m_backlog.SetLimits(limits.nMaxBacklog, limits.nMaxBacklogBytes);
}

int CMsgListener::StartListener()
{
    return kvx::FailingWithoutMemory([this] { return BeginRun(); });
}

int CMsgListener::BeginRun()
{
    auto const run = std::make_shared<CRun>();
    auto start = std::make_unique<std::pair<CMsgListener *, RunPtr>>(this, run);
    {
        CSingleLock guard(&m_runLock, TRUE);
        if (m_run && !m_run->m_bStopping && !m_run->m_endedEvent.Lock(0))
        {
            return 1;
        }
        m_alive.push_back(run);
        m_run = run;
    }
    if (CThreadPool::BeginThread(&ListenerProc, start.get(), m_nListenerPriority))
    {
        start.release(); // the thread's
        return 1;
    }
    CSingleLock guard(&m_runLock, TRUE);
    run->m_bStopping = true;
    run->m_startedEvent.SetEvent();
    run->m_endedEvent.SetEvent();
    std::erase(m_alive, run);
    return 0;
}

int CMsgListener::WaitUntilListening(DWORD timeout)
{
    RunPtr run;
    {
        CSingleLock guard(&m_runLock, TRUE);
        run = m_run;
    }
    DWORD error = ERROR_SERVICE_NOT_FOUND;
    if (run)
    {
        error = ERROR_TIMEOUT;
        if (run->m_startedEvent.Lock(timeout))
        {
            CSingleLock guard(&m_runLock, TRUE);
            error = run->m_nError;
        }
    }
    SetLastError(error);
    return error == 0;
}

void CMsgListener::ReportListenError(DWORD error)
{
    CSingleLock guard(&m_runLock, TRUE);
    (t_pRun ? *t_pRun : m_run)->m_nError = error;
}

CMsgConnection * CMsgListener::GetListeningConnection() const
{
    CSingleLock guard(&m_runLock, TRUE);
    return m_run ? m_run->m_pListening : nullptr;
}

int CMsgListener::StopListener()
{
    if (CKVXBaseApp::IsShuttingDown())
    {
        return 0;
    }
    RunPtr const run = BeginStop();
    if (!run || IsOwnThread())
    {
        return 1;
    }
    kvx::Timeout const patience(m_nStopTimeout);
    if (run->m_endedEvent.Lock(patience.GetRest()))
    {
        m_notifyQueue.WaitForIdle(patience.GetRest());
    }
    return 1;
}

/// From here on nobody is accepted and no client is served any more. Null if there is nothing to stop.
CMsgListener::RunPtr CMsgListener::BeginStop()
{
    CSingleLock guard(&m_runLock, TRUE);
    if (!m_run || m_run->m_bStopping)
    {
        return nullptr;
    }
    m_run->m_bStopping = true;
    m_run->m_stopEvent.SetEvent();
    if (m_run->m_pListening)
    {
        m_run->m_pListening->Disconnect();
    }
    BreakSessions(*m_run);
    return m_run;
}

/// With the lock.
void CMsgListener::BreakSessions(CRun & run)
{
    for (CMsgListenerSession * const session : run.m_sessions)
    {
        if (session->Break() && std::ranges::find(run.m_broken, session) == run.m_broken.end())
        {
            run.m_broken.push_back(session);
        }
    }
}

/// Whether the listener would wait for the calling thread if it waited for its threads.
bool CMsgListener::IsOwnThread() const
{
    if (t_pServing == this || m_notifyQueue.IsServiceThread())
    {
        return true;
    }
    CSingleLock guard(&m_runLock, TRUE);
    return t_pRun && std::ranges::find(m_alive, *t_pRun) != m_alive.end();
}

void CMsgListener::EndListener()
{
    m_idleEvent.SetEvent();
    StopListener();
    BeginStop();
    std::vector<RunPtr> alive;
    {
        CSingleLock guard(&m_runLock, TRUE);
        alive = m_alive;
    }
    for (RunPtr const & run : alive)
    {
        CThreadPool::WaitForThread(run->m_endedEvent, INFINITE);
    }
    m_notifyQueue.Stop(CThreadPool::IsWorthWaiting(), 1);
    CSingleLock guard(&m_runLock, TRUE); // the last thread has let go of it
}

unsigned int CMsgListener::ListenerProc(void * param)
{
    std::unique_ptr<std::pair<CMsgListener *, RunPtr>> const start(
        static_cast<std::pair<CMsgListener *, RunPtr> *>(param));
    auto const & [listener, run] = *start;
    t_pRun = &run;
    kvx::FailingWithoutMemory(
        []
        {
            CString text;
            text.Format(_T("MsgListener::ListenerProc: %X"), &ListenerProc);
            CThreadPool::MarkThread(GetCurrentThreadId(), text, 1);
            return true;
        });
    try
    {
        listener->Run();
    }
    catch (CException * failure)
    {
        failure->Delete();
    }
    catch (...)
    {
    }
    DWORD const lastError = GetLastError();
    t_pRun = nullptr;
    listener->EndRun(run);
    return lastError;
}

void CMsgListener::Run()
{
    CRun & run = **t_pRun;
    HANDLE const event = m_strStartEvent.IsEmpty() ? nullptr : OpenEventW(SYNCHRONIZE, FALSE, m_strStartEvent);
    if (event)
    {
        std::array<HANDLE, 2> const handles{run.m_stopEvent, event};
        WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), FALSE, INFINITE);
        CloseHandle(event);
    }
    bool const bListens = BeginListening(run);
    DWORD const lastError = GetLastError();
    run.m_startedEvent.SetEvent();
    if (bListens)
    {
        LogInfo(_T("Started listener '%s'"), m_strTargetPath);
        AcceptClients(run);
    }
    else
    {
        SetLastError(lastError);
    }
}

/// A stop that comes before the connection listens is noticed behind that, and a later one makes Accept fail.
bool CMsgListener::BeginListening(CRun & run)
{
    CMsgConnection * listening = nullptr;
    {
        CSingleLock guard(&m_runLock, TRUE);
        listening = run.m_bStopping ? nullptr : AllocateConnection();
        run.m_pListening = listening;
        run.m_nError = 0; // unless somebody reports another one from here on
    }
    bool const bListens = listening && listening->Listen();
    CSingleLock guard(&m_runLock, TRUE);
    if (run.m_bStopping)
    {
        SetLastError(ERROR_OPERATION_ABORTED);
    }
    if (!bListens || run.m_bStopping)
    {
        run.m_nError = GetLastError() != 0 ? GetLastError() : DWORD{ERROR_OPERATION_ABORTED};
        return false;
    }
    return true;
}

/// For the next client. Want of memory passes, and isn't a reason to turn away everybody for ever.
CMsgConnection * CMsgListener::AllocateClient(CRun & run)
{
    constexpr DWORD PAUSE = 50; // milliseconds
    for (;;)
    {
        bool bHadMemory = false;
        CMsgConnection * const client = kvx::FailingWithoutMemory(
            [&]
            {
                CMsgConnection * const connection = AllocateConnection();
                bHadMemory = true;
                return connection;
            });
        if (client || bHadMemory || run.m_stopEvent.Lock(PAUSE))
        {
            return client;
        }
    }
}

void CMsgListener::AcceptClients(CRun & run)
{
    CMsgConnection * const listening = run.m_pListening; // only this thread changes it
    CMsgConnection * client = AllocateClient(run);
    while (client && !run.m_bStopping && listening->Accept(client))
    {
        if (kvx::FailingWithoutMemory([&] { return BeginSession(*t_pRun, client); }))
        {
            client = AllocateClient(run);
        }
        else
        {
            client->Disconnect();
        }
    }
    if (client)
    {
        DWORD const lastError = GetLastError();
        client->Disconnect();
        ReleaseConnection(client);
        SetLastError(lastError);
    }
}

/// False if this client is turned away: there are too many, or no thread could be had. The next one may have more luck.
bool CMsgListener::BeginSession(RunPtr const & run, CMsgConnection * client)
{
    CMsgListenerSession * session = nullptr;
    bool bFirst = false;
    {
        CSingleLock guard(&m_runLock, TRUE);
        bool const bTooMany = m_limits.nMaxClients != 0 && run->m_sessions.size() >= m_limits.nMaxClients;
        bFirst = bTooMany && !run->m_bTurnsAway;
        run->m_bTurnsAway = bTooMany;
        if (!bTooMany && !run->m_bStopping)
        {
            // Memory first: from there on nothing fails.
            CMsgListenerSession * const fresh = AllocateSession();
            try
            {
                run->m_sessions.push_back(fresh);
                run->m_broken.reserve(run->m_broken.size() + run->m_sessions.size()); // a stop needs none
            }
            catch (std::bad_alloc const &)
            {
                std::erase(run->m_sessions, fresh);
                m_sessions.Return(fresh);
                throw;
            }
            session = fresh;
            session->m_run = run;
            run->m_quietEvent.ResetEvent();
        }
    }
    if (bFirst)
    {
        LogWarning(_T("Listener '%s' has its %u clients: more are turned away"), m_strTargetPath, m_limits.nMaxClients);
    }
    if (!session)
    {
        return false;
    }
    if (!session->Activate(client, m_nSessionPriority))
    {
        EndSession(session);
        return false;
    }
    return true;
}

/// Makes the session free. The last thing that its thread does with the listener.
void CMsgListener::EndSession(CMsgListenerSession * session)
{
    CSingleLock guard(&m_runLock, TRUE);
    RunPtr const run = std::exchange(session->m_run, nullptr);
    std::erase(run->m_sessions, session);
    m_sessions.Return(session);
    if (run->m_sessions.empty())
    {
        run->m_quietEvent.SetEvent();
    }
}

/// On the thread that has accepted. Whatever the run had is given back, and its sessions are waited for.
void CMsgListener::EndRun(RunPtr const & run)
{
    CMsgConnection * listening = nullptr;
    {
        CSingleLock guard(&m_runLock, TRUE);
        listening = std::exchange(run->m_pListening, nullptr);
        BreakSessions(*run);
    }
    run->m_startedEvent.SetEvent();
    if (listening)
    {
        listening->Disconnect();
        ReleaseConnection(listening);
    }
    else
    {
        LogError(_T("Releasing null listening connection"));
    }
    run->m_quietEvent.Lock(INFINITE);
    for (CMsgListenerSession * const session : run->m_broken)
    {
        NotifyEvent(CMsgListenerEvent::SESSION_UNUSED, session, nullptr);
    }
    CSingleLock guard(&m_runLock, TRUE);
    std::erase(m_alive, run);
    run->m_endedEvent.SetEvent();
}

CMsgListenerSession * CMsgListener::AllocateSession()
{
    if (CObject * const known = m_sessions.Allocate())
    {
        return static_cast<CMsgListenerSession *>(known);
    }
    auto fresh = std::make_unique<CMsgListenerSession>(this);
    m_sessions.Insert(fresh.get(), 1);
    return fresh.release();
}

int CMsgListener::ReadRequest(CMsgConnection * connection, CMsgRequest & request)
{
    return request.Read(*connection);
}

int CMsgListener::WriteResponse(CMsgConnection * connection, CMsgRequest & request)
{
    int const bWritten = request.GetResponse().Write(*connection);
    return bWritten && connection->FlushData();
}

void CMsgListener::ProcessRequest(CMsgListenerSession * session, CMsgConnection * connection)
{
    struct Serving
    {
        explicit Serving(CMsgListener const * listener) { t_pServing = listener; }
        ~Serving() { t_pServing = nullptr; }
    } const serving(this);
    RunPtr const run = session->m_run;
    auto request = std::make_unique<CListenerRequest>(session, connection);
    for (;;)
    {
        ULONGLONG const start = connection->GetBytesRead();
        connection->LimitMessage(m_limits.nMaxMessageBytes);
        int const bRead = ReadRequest(connection, *request);
        request->m_nBytes = connection->GetBytesRead() - start;
        if (m_limits.nMaxMessageBytes != 0 &&
            (bRead ? request->m_nBytes > m_limits.nMaxMessageBytes : GetLastError() == WSAEMSGSIZE))
        {
            LogWarning(_T("Listener '%s': a message of more than %I64u bytes ends its session"), m_strTargetPath,
                       m_limits.nMaxMessageBytes);
            return;
        }
        if (!bRead)
        {
            return;
        }
        request->SetFromOutside();
        {
            CSingleLock guard(&m_progressLock, TRUE);
            ++m_nInProgress;
        }
        if (request->DiscardResults())
        {
            // The queue serves a copy, which is tied to no connection. The request at hand is as good as one: it goes
            // there, and a new one takes its place.
            request->SetConnection(nullptr);
            QueueRequest(std::move(request), run->m_stopEvent);
            request = std::make_unique<CListenerRequest>(session, connection);
            continue;
        }
        if (run->m_bStopping)
        {
            ResetRequest(*request);
            return; // nobody waits for the answer any more
        }
        DispatchRequest(*request);
        if (!request->GetConnection())
        {
            ResetRequest(*request);
            return; // a provider has taken the connection
        }
        NotifyEvent(CMsgListenerEvent::BEFORE_RESPONSE, session, request.get());
        if (!WriteResponse(connection, *request))
        {
            connection->Disconnect(); // the client may live on, and would wait for the rest: the next read ends this
        }
        NotifyEvent(CMsgListenerEvent::AFTER_RESPONSE, session, request.get());
        ResetRequest(*request);
    }
}

void CMsgListener::QueueRequest(std::unique_ptr<CListenerRequest> request, HANDLE stop)
{
    ULONGLONG const bytes = request->m_nBytes;
    while (!m_backlog.TryEnter(bytes))
    {
        if (!m_backlog.AwaitRoom(stop, LOOK))
        {
            m_backlog.Enter(bytes); // it has come in: it is served
            break;
        }
    }
    if (!m_notifyQueue.InsertOrDelete(request.release()))
    {
        m_backlog.Leave(bytes);
        CSingleLock guard(&m_progressLock, TRUE);
        --m_nInProgress;
    }
}

CMsgConnection * CMsgListener::TakeConnection(CMsgRequest & request)
{
    CMsgConnection * const connection = request.GetConnection();
    request.SetConnection(nullptr);
    request.DiscardResults(1);
    request.KeepAlive(0);
    auto * const served = dynamic_cast<CListenerRequest *>(&request);
    auto * const session = served ? dynamic_cast<CMsgListenerSession *>(served->GetSession()) : nullptr;
    if (connection && session && session->TakeServed())
    {
        session->SetConnection(nullptr);
        session->m_pListener->ForgetConnection(connection);
    }
    return connection;
}

void CMsgListener::NotifyRequestProc(CObject * object, void * param)
{
    auto * const listener = static_cast<CMsgListener *>(param);
    std::unique_ptr<CObject> const owner(object);
    if (auto * const request = dynamic_cast<CListenerRequest *>(object); request && listener)
    {
        struct Served
        {
            CMsgListener & listener;
            ULONGLONG nBytes;
            ~Served() { listener.m_backlog.Leave(nBytes); }
        } const served{*listener, request->m_nBytes};
        listener->DispatchRequest(*request);
        listener->ResetRequest(*request);
    }
}

void CMsgListener::DispatchRequest(CListenerRequest & request)
{
    NotifyEvent(CMsgListenerEvent::BEFORE_DISPATCH, request.GetSession(), &request);
    CString const command = request.GetCommand(); // which a provider may change on the way
    CString::View path = command;
    CMsgTarget * const target = GetTarget();
    auto const length = static_cast<std::size_t>(m_strTargetPath.GetLength());
    if (target && m_strTargetPath.CompareNoCase(path.substr(0, length)) == 0 &&
        (length == 0 || path.size() == length || path[length] == _T('.')))
    {
        if (length != 0)
        {
            path.remove_prefix(std::min(length + 1, path.size()));
        }
        target->ServicePath(path, request);
    }
    if (!request.IsHandled() && request.GetResponse().Succeeded())
    {
        request.GetResponse().SetError(ERROR_NOT_SUPPORTED, _T("%s"), _T("Unsupported command: ") + CString(path));
    }
    NotifyEvent(CMsgListenerEvent::AFTER_DISPATCH, request.GetSession(), &request);
}

void CMsgListener::ResetRequest(CListenerRequest & request)
{
    CSingleLock guard(&m_progressLock, TRUE);
    if (--m_nInProgress != 0)
    {
        return;
    }
    NotifyEvent(CMsgListenerEvent::REQUESTS_IDLE, request.GetSession(), &request);
    if (!request.GetConnection())
    {
        request.GetSession()->SetConnection(nullptr);
        m_idleEvent.SetEvent();
    }
    else if (request.KeepAlive())
    {
        request.Reset();
        request.SetConnection(request.GetSavedConnection());
    }
    else
    {
        m_idleEvent.SetEvent();
    }
}

void CMsgListener::ReleaseSession(CMsgListenerSession * session)
{
    if (CMsgConnection * const connection = session->GetConnection())
    {
        NotifyEvent(CMsgListenerEvent::SESSION_RELEASED, session, nullptr);
        connection->Disconnect();
    }
    else
    {
        NotifyEvent(CMsgListenerEvent::SESSION_UNUSED, session, nullptr);
    }
    session->SetConnection(nullptr);
}

void CMsgListener::SetEventProc(EventProc proc, void * param)
{
    Hook & hook = TheHook();
    CSingleLock guard(&hook.lock, TRUE);
    hook.param = param;
    hook.proc = proc;
}

void CMsgListener::GetEventProcInfo(EventProc & proc, void *& param)
{
    Hook & hook = TheHook();
    CSingleLock guard(&hook.lock, TRUE);
    proc = hook.proc;
    param = hook.param;
}

void CMsgListener::NotifyEvent(DWORD type, CMsgListenerSessionBase * session, CMsgRequest * request)
{
    if (!TheHook().proc)
    {
        return;
    }
    EventProc proc = nullptr;
    void * param = nullptr;
    GetEventProcInfo(proc, param);
    if (proc)
    {
        CMsgListenerEvent event;
        event.m_nType = type;
        event.m_nThreadId = GetCurrentThreadId();
        GetLocalTime(&event.m_time);
        event.m_pRequest = request;
        event.m_pListener = this;
        event.m_pSession = session;
        proc(&event, param);
    }
}

DWORD CMsgListener::AllocateSessionId()
{
    static std::atomic<DWORD> sm_nLastSessionId{0};
    return ++sm_nLastSessionId;
}
