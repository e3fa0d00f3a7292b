#include "kvx/transport/MsgListenerSession.h"

#include "kvx/logging/LogManager.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgListener.h"

#include <utility>

CMsgListenerSessionBase::CMsgListenerSessionBase() : m_nId(CMsgListener::AllocateSessionId()) {}

void CMsgListenerSessionBase::SetConnection(CMsgConnection * connection)
{
    if (m_pConnection.exchange(connection) != connection)
    {
        CSingleLock guard(&m_infoLock, TRUE);
        m_info.RemoveAll();
    }
}

int CMsgListenerSessionBase::GetConnectionInfo(CValueAccessor & info) const
{
    CSingleLock guard(&m_infoLock, TRUE);
    if (!m_info.IsEmpty())
    {
        info.CopyValues(m_info);
        return 1;
    }
    CMsgConnection * const connection = m_pConnection.load();
    if (!connection || !connection->GetConnectionInfo(info))
    {
        return 0;
    }
    m_info.CopyValues(info);
    return 1;
}

int CMsgListenerSession::Activate(CMsgConnection * connection, int priority)
{
    SetConnection(connection);
    {
        CSingleLock guard(&m_servedLock, TRUE);
        m_pServed = connection;
    }
    m_done.ResetEvent();
    CThreadContext * const thread = CThreadPool::BeginThread(&SessionProc, this, priority);
    if (!thread)
    {
        TakeServed();
        SetConnection(nullptr);
        m_done.SetEvent();
        return 0;
    }
    return 1;
}

unsigned int CMsgListenerSession::SessionProc(void * session)
{
    static_cast<CMsgListenerSession *>(session)->Run();
    return GetLastError();
}

CMsgConnection * CMsgListenerSession::TakeServed()
{
    CSingleLock guard(&m_servedLock, TRUE);
    return std::exchange(m_pServed, nullptr);
}

void CMsgListenerSession::Run()
{
    CMsgListener * const listener = m_pListener;
    CMsgConnection * const connection = m_pServed; // only this thread takes it away
    CLogManager::GetInstance()->SetThreadSessionId(GetSessionId());
    try
    {
        CString text;
        text.Format(_T("MsgListenerSession::SessionProc: %X"), &SessionProc);
        CThreadPool::MarkThread(GetCurrentThreadId(), text, 1);
        int bCompact = 0;
        if (connection->AuthenticateServer(bCompact))
        {
            if (bCompact)
            {
                connection->EnableCompact();
            }
            listener->ProcessRequest(this, connection);
            listener->ReleaseSession(this);
        }
    }
    catch (CException * failure)
    {
        failure->Delete();
    }
    catch (...)
    {
    }
    SetConnection(nullptr);

    // The session is free when its link has been given back, and not to be touched from then on. A provider may have
    // taken the link for itself.
    if (TakeServed())
    {
        connection->Disconnect();
        listener->ReleaseConnection(connection);
    }
    m_done.SetEvent();
    listener->EndSession(this);
}

/// Drops the client; false if there is none. The thread ends behind it.
bool CMsgListenerSession::Break()
{
    CSingleLock guard(&m_servedLock, TRUE);
    if (!m_pServed)
    {
        return false;
    }
    SetConnection(nullptr);
    m_pServed->Disconnect();
    return true;
}

int CMsgListenerSession::Stop(DWORD timeout)
{
    if (!Break())
    {
        return 1;
    }
    int const bEnded = m_done.Lock(timeout);
    m_pListener->ReleaseSession(this);
    return bEnded;
}
