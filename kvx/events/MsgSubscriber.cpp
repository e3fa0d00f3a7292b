#include "kvx/events/MsgSubscriber.h"

#include "kvx/foundation/AppException.h"
#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/msgdata/MsgResults.h"
#include "kvx/threads/KVXBaseApp.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgConnectionProvider.h"

#include <array>

CMsgSubscriber::CMsgSubscriber() = default;

CMsgSubscriber::~CMsgSubscriber()
{
    Disconnect();
    ResetConnection();
}

CStringValue CMsgSubscriber::Connect(LPCTSTR command, LPCTSTR connectionString, int priority)
{
    CMsgRequest request;
    request.SetCommand(command);
    return Connect(request, connectionString, priority) ? GetConnectionHandle() : CStringValue();
}

int CMsgSubscriber::Connect(CMsgRequest & request, LPCTSTR connectionString, int priority)
{
    Disconnect();
    m_nPriority = priority;
    int const bKept = kvx::FailingWithoutMemory(
        [&]
        {
            m_strCommand = request.GetCommand();
            m_strConnection = connectionString;
            return 1;
        });
    if (!bKept)
    {
        request.GetResponse().SetError(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
    if (!bKept || !Reconnect(request))
    {
        return 0;
    }
    // The flag is down before the thread runs: a Disconnect that comes at once finds something to end.
    m_bTerminate = 0;
    m_terminateEvent.ResetEvent();
    m_endedEvent.ResetEvent();
    CThreadContext * const thread = CThreadPool::BeginThread(&NotificationProc, this, priority);
    if (!thread)
    {
        m_bTerminate = 1;
        m_endedEvent.SetEvent();
        ResetConnection();
        request.GetResponse().SetError(ERROR_NO_SYSTEM_RESOURCES, nullptr);
        return 0;
    }
    return 1;
}

int CMsgSubscriber::Reconnect(CMsgRequest & request)
{
    try
    {
        ResetConnection();
        CMsgProvider * const created = CMsgDispatcher::GetInstance()->CreateProvider(m_strConnection);
        auto * const provider = dynamic_cast<CMsgConnectionProvider *>(created);
        if (!provider)
        {
            CMsgProvider::DeleteWithModule(created);
            request.GetResponse().SetError(ERROR_INVALID_PARAMETER, _T("Not a connection: %s"), m_strConnection);
            return 0;
        }
        CMsgConnection * connection = nullptr;
        {
            CSingleLock guard(&m_connectionLock, TRUE);
            m_provider = kvx::RefPtr<CMsgProvider>(created);
            m_pConnection = connection = provider->AllocateConnection();
        }
        if (!connection)
        {
            request.GetResponse().SetError(ERROR_NOT_ENOUGH_MEMORY, nullptr);
            return 0;
        }
        request.GetResponse().SetError(0, nullptr); // a request may be used again
        provider->TransmitRequest(connection, request);
        if (!request.GetResponse().Succeeded())
        {
            return 0;
        }
        CMsgResults results(&request.GetResponse());
        CStringValue const handle = results[_T("handle")];
        if (handle.IsEmpty())
        {
            // The connection still belongs to the session that answered: nothing would ever be published on it.
            ResetConnection();
            request.GetResponse().SetError(ERROR_NOT_FOUND, _T("%s subscribes to nothing"), request.GetCommand());
            return 0;
        }
        CSingleLock guard(&m_connectionLock, TRUE);
        m_handle = handle;
        m_params.CopyValues(request);
        return 1;
    }
    catch (CException * failure)
    {
        failure->Delete();
    }
    catch (...)
    {
    }
    LPCTSTR const text = _T("Unknown exception connecting to publisher");
    request.GetResponse().SetError(static_cast<DWORD>(-1), _T("%s"), text);
    LogError(_T("%s"), text);
    return 0;
}

void CMsgSubscriber::ResetConnection()
{
    CSingleLock guard(&m_connectionLock, TRUE);
    if (m_pConnection)
    {
        m_pConnection->Disconnect();
    }
    m_pConnection = nullptr;
    m_provider = nullptr;
    m_handle.Empty();
}

void CMsgSubscriber::BreakConnection()
{
    CSingleLock guard(&m_connectionLock, TRUE);
    if (m_pConnection)
    {
        m_pConnection->Disconnect();
    }
}

void CMsgSubscriber::Disconnect()
{
    if (m_bTerminate.exchange(1) == 1 && m_endedEvent.Lock(0))
    {
        return;
    }
    m_terminateEvent.SetEvent();
    if (m_nThreadId == GetCurrentThreadId())
    {
        BreakConnection();
        return;
    }
    // Again and again: the thread may just be connecting.
    constexpr DWORD LOOK = 20; // milliseconds
    do
    {
        BreakConnection();
    } while (!m_endedEvent.Lock(LOOK) && CThreadPool::IsWorthWaiting());
    ResetConnection();
}

CStringValue CMsgSubscriber::GetConnectionHandle() const
{
    CSingleLock guard(&m_connectionLock, TRUE);
    return m_handle;
}

void CMsgSubscriber::SetReconnectProc(ReconnectProc proc, void * param)
{
    m_pReconnectProc = proc;
    m_pReconnectParam = param;
}

unsigned int CMsgSubscriber::NotificationProc(void * param)
{
    auto * const subscriber = static_cast<CMsgSubscriber *>(param);
    Guarded(
        []
        {
            CString text;
            text.Format(_T("MsgSubscriber::NotificationProc: %X"), &NotificationProc);
            CThreadPool::MarkThread(GetCurrentThreadId(), text, 1);
        });
    subscriber->m_nThreadId = GetCurrentThreadId();
    subscriber->Run();
    DWORD const error = GetLastError();
    subscriber->m_nThreadId = 0;
    subscriber->m_endedEvent.SetEvent();
    return error;
}

void CMsgSubscriber::Run()
{
    while (!m_bTerminate && !CKVXBaseApp::IsShuttingDown())
    {
        Guarded([this] { ReadRequests(); });
        if (m_bTerminate || !m_pReconnectProc)
        {
            return;
        }
        {
            CSingleLock guard(&m_connectionLock, TRUE);
            m_handle.Empty();
        }
        Guarded([this] { m_pReconnectProc(this, m_pReconnectParam); });
    }
}

/// Whatever is thrown counts as the end of the connection.
template <class T>
void CMsgSubscriber::Guarded(T const & work)
{
    try
    {
        work();
    }
    catch (CException * failure)
    {
        std::array<WCHAR, 1024> text{};
        failure->GetErrorMessage(text.data(), static_cast<UINT>(text.size()));
        LogError(_T("%s"), text.data());
        failure->Delete();
    }
    catch (...)
    {
        LogError(_T("Unknown error in CMsgSubscriber::NotificationProc"));
    }
}

/// Serves what comes until the connection is gone.
void CMsgSubscriber::ReadRequests()
{
    CMsgRequest request;
    while (m_pConnection && request.Read(*m_pConnection))
    {
        request.SetFromOutside();
        CMsgDispatcher::GetInstance()->Service(request);
        request.Reset();
    }
}

void CMsgSubscriber::DefaultReconnectProc(CMsgSubscriber * subscriber, void *)
{
    constexpr DWORD PAUSE = 100; // milliseconds
    while (!subscriber->m_bTerminate && !CKVXBaseApp::IsShuttingDown())
    {
        CMsgRequest request;
        request.SetCommand(subscriber->m_strCommand);
        request.SetParams(subscriber->m_params);
        if (subscriber->Reconnect(request))
        {
            return;
        }
        subscriber->m_terminateEvent.Lock(PAUSE);
    }
}
