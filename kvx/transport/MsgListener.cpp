#include "kvx/transport/MsgListener.h"

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgTarget.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgListenerSession.h"

#include <algorithm>
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
    static Hook hook;
    return hook;
}

constexpr DWORD POLL = 20; // milliseconds, where a stop has to be repeated until it has reached its thread
} // namespace

CMsgListener::CMsgListener(int listenerPriority, int sessionPriority, DWORD stopTimeout)
    : m_nListenerPriority(listenerPriority), m_nSessionPriority(sessionPriority), m_nStopTimeout(stopTimeout),
      m_notifyQueue(&NotifyRequestProc, this, 1, 0, _T("CMsgListener Notify Request Queue")), m_idleEvent(FALSE, TRUE),
      m_runDone(TRUE, TRUE), m_startDone(FALSE, TRUE), m_noneActive(TRUE, TRUE)
{
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

int CMsgListener::StartListener()
{
    if (m_pThread)
    {
        return 1;
    }
    m_bStopping = false;
    m_startDone.ResetEvent();
    m_runDone.ResetEvent();
    CThreadContext * const thread = CThreadPool::BeginThread(&ListenerProc, this, m_nListenerPriority);
    if (!thread)
    {
        m_runDone.SetEvent();
        return 0;
    }
    m_pThread = thread;
    return 1;
}

int CMsgListener::WaitUntilListening(DWORD timeout)
{
    if (!m_startDone.Lock(timeout))
    {
        SetLastError(ERROR_TIMEOUT);
        return 0;
    }
    SetLastError(m_nListenError);
    return m_nListenError == 0;
}

int CMsgListener::StopListener()
{
    if (CKVXBaseApp::IsShuttingDown())
    {
        return 0;
    }
    if (!m_pThread.exchange(nullptr))
    {
        return 1;
    }
    m_bStopping = true;
    DWORD const start = GetTickCount();
    // A one-way request may itself be what stops the listener: that one isn't waited for.
    if (WaitForThreads(m_nStopTimeout) && !m_notifyQueue.IsServiceThread() && !CThreadPool::IsTerminated())
    {
        m_notifyQueue.WaitForIdle(GetRest(m_nStopTimeout, start));
    }
    return 1;
}

DWORD CMsgListener::GetRest(DWORD timeout, DWORD start)
{
    return timeout == INFINITE ? INFINITE : timeout - std::min(timeout, GetTickCount() - start);
}

/// Makes the listener thread leave, and waits. The listening connection is dropped again and again, for the thread may
/// have been anywhere between two looks at the flag.
bool CMsgListener::WaitForThreads(DWORD timeout)
{
    DWORD const start = GetTickCount();
    for (;;)
    {
        if (CMsgConnection * const listening = m_pListening.load())
        {
            listening->Disconnect();
        }
        if (m_runDone.Lock(POLL))
        {
            return true;
        }
        if (GetRest(timeout, start) == 0)
        {
            return false;
        }
    }
}

void CMsgListener::EndListener()
{
    m_idleEvent.SetEvent();
    StopListener();
    m_bStopping = true;
    // A thread that is still inside must not find the listener gone. Threads that the library's shutdown has killed
    // never say that they are done.
    while (!CThreadPool::IsTerminated() && !WaitForThreads(POLL))
    {
    }
    m_notifyQueue.Stop(!CThreadPool::IsTerminated(), 1);
}

unsigned int CMsgListener::ListenerProc(void * param)
{
    auto * const listener = static_cast<CMsgListener *>(param);
    CString text;
    text.Format(_T("MsgListener::ListenerProc: %X"), &ListenerProc);
    CThreadPool::MarkThread(GetCurrentThreadId(), text, 1);
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
    listener->m_runDone.SetEvent();
    return lastError;
}

/// False if the listener was stopped meanwhile.
bool CMsgListener::WaitForStartEvent()
{
    HANDLE const event = m_strStartEvent.IsEmpty() ? nullptr : OpenEventW(SYNCHRONIZE, FALSE, m_strStartEvent);
    if (event)
    {
        while (!m_bStopping && WaitForSingleObject(event, POLL) == WAIT_TIMEOUT)
        {
        }
        CloseHandle(event);
    }
    return !m_bStopping;
}

void CMsgListener::Run()
{
    CMsgConnection * listening = nullptr;
    m_nListenError = ERROR_OPERATION_ABORTED;
    if (WaitForStartEvent())
    {
        listening = AllocateConnection();
        m_pListening = listening;
        if (listening)
        {
            bool const bListens = listening->Listen() != 0;
            m_nListenError = bListens ? 0 : GetLastError();
            m_startDone.SetEvent();
            if (bListens)
            {
                LogInfo(_T("Started listener '%s'"), m_strTargetPath);
                AcceptClients();
            }
        }
    }
    DWORD const lastError = GetLastError();
    m_startDone.SetEvent();
    m_pListening = nullptr;
    if (listening)
    {
        listening->Disconnect();
        ReleaseConnection(listening);
    }
    else
    {
        LogError(_T("Releasing null listening connection"));
    }
    StopSessions();
    SetLastError(lastError);
}

void CMsgListener::AcceptClients()
{
    CMsgConnection * const listening = m_pListening;
    CMsgConnection * client = AllocateConnection();
    while (client && !m_bStopping && listening->Accept(client))
    {
        CMsgListenerSession * const session = AllocateSession();
        SessionBegins();
        if (session->Activate(client, m_nSessionPriority))
        {
            client = AllocateConnection();
        }
        else
        {
            // No thread: this client is turned away, and the next one may have more luck.
            client->Disconnect();
            m_sessions.Return(session);
            SessionEnds();
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

void CMsgListener::StopSessions()
{
    std::vector<CMsgListenerSession *> sessions;
    {
        CSingleLock guard(m_sessions, TRUE);
        for (POSITION pos = m_sessions.GetStartPosition(); pos;)
        {
            sessions.push_back(static_cast<CMsgListenerSession *>(m_sessions.GetNext(pos)));
        }
    }
    for (CMsgListenerSession * const session : sessions)
    {
        session->Stop(INFINITE);
    }
    m_noneActive.Lock(INFINITE);
    CSingleLock guard(&m_activeLock, TRUE); // the last session's thread has let go of it
}

bool CMsgListener::SessionBegins()
{
    CSingleLock guard(&m_activeLock, TRUE);
    ++m_nActive;
    return m_noneActive.ResetEvent();
}

void CMsgListener::SessionEnds()
{
    CSingleLock guard(&m_activeLock, TRUE);
    if (--m_nActive == 0)
    {
        m_noneActive.SetEvent();
    }
}

CMsgListenerSession * CMsgListener::AllocateSession()
{
    auto * session = static_cast<CMsgListenerSession *>(m_sessions.Allocate());
    if (!session)
    {
        session = new CMsgListenerSession(this);
        m_sessions.Insert(session, 1);
    }
    return session;
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
    auto request = std::make_unique<CListenerRequest>(session, connection);
    while (ReadRequest(connection, *request))
    {
        {
            CSingleLock guard(&m_progressLock, TRUE);
            ++m_nInProgress;
        }
        if (request->DiscardResults())
        {
            // The queue serves a copy, which is tied to no connection. The request at hand is as good as one: it goes
            // there, and a new one takes its place.
            request->SetConnection(nullptr);
            CObject * const copy = request.release();
            if (!m_notifyQueue.InsertOrDelete(copy))
            {
                CSingleLock guard(&m_progressLock, TRUE);
                --m_nInProgress;
            }
            request = std::make_unique<CListenerRequest>(session, connection);
            continue;
        }
        DispatchRequest(*request);
        if (!request->GetConnection())
        {
            ResetRequest(*request);
            return; // a provider has taken the connection
        }
        NotifyEvent(CMsgListenerEvent::BEFORE_RESPONSE, session, request.get());
        WriteResponse(connection, *request); // a dead client shows at the next read
        NotifyEvent(CMsgListenerEvent::AFTER_RESPONSE, session, request.get());
        ResetRequest(*request);
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
        listener->DispatchRequest(*request);
        listener->ResetRequest(*request);
    }
}

void CMsgListener::DispatchRequest(CListenerRequest & request)
{
    NotifyEvent(CMsgListenerEvent::BEFORE_DISPATCH, request.GetSession(), &request);
    CString command = request.GetCommand();
    CMsgTarget * const target = GetTarget();
    if (target && command.AsView().starts_with(m_strTargetPath.AsView()))
    {
        if (!m_strTargetPath.IsEmpty())
        {
            command = command.Mid(m_strTargetPath.GetLength() + 1);
        }
        target->Service(command, request);
    }
    if (!request.IsHandled() && request.GetResponse().Succeeded())
    {
        request.GetResponse().SetError(ERROR_NOT_SUPPORTED, _T("%s"), _T("Unsupported command: ") + command);
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
