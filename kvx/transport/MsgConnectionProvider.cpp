#include "kvx/transport/MsgConnectionProvider.h"

#include "kvx/logging/LogManager.h"
#include "kvx/transport/MsgConnection.h"

#include <memory>

CMsgConnectionProvider::CMsgConnectionProvider()
{
    SetProperty(_T("connection_provider"), 1);
}

int CMsgConnectionProvider::StartProvider()
{
    m_bStopped = false;
    return 1;
}

int CMsgConnectionProvider::StopProvider()
{
    m_bStopped = true;
    BreakConnections(this);
    return 1;
}

void CMsgConnectionProvider::BreakConnections(void * object)
{
    auto * const provider = static_cast<CMsgConnectionProvider *>(object);
    CSingleLock guard(provider->m_connections, TRUE);
    for (POSITION pos = provider->m_connections.GetStartPosition(); pos;)
    {
        static_cast<CMsgConnection *>(provider->m_connections.GetNext(pos))->Disconnect();
    }
}

CMsgConnection * CMsgConnectionProvider::AllocateConnection()
{
    if (CObject * const known = m_connections.Allocate())
    {
        return static_cast<CMsgConnection *>(known);
    }
    std::unique_ptr<CMsgConnection> fresh(CreateConnection());
    if (fresh)
    {
        fresh->SetOwner(this);
        m_connections.Insert(fresh.get(), 1);
    }
    return fresh.release();
}

void CMsgConnectionProvider::ReleaseConnection(CMsgConnection * connection)
{
    m_connections.Return(connection);
}

void CMsgConnectionProvider::ForgetConnection(CMsgConnection * connection)
{
    m_connections.Remove(connection);
    connection->SetOwner(nullptr);
}

void CMsgConnectionProvider::Service(CMsgRequest & request)
{
    if (CMsgConnection * const pinned = request.GetConnection())
    {
        TransmitRequest(pinned, request);
        return;
    }
    Exchange(AllocateConnection(), request);
}

/// One exchange on a connection that was allocated for it, and its release.
void CMsgConnectionProvider::Exchange(CMsgConnection * connection, CMsgRequest & request)
{
    try
    {
        TransmitRequest(connection, request);
    }
    catch (...)
    {
        // Out of memory in the middle of a message: the rest of it must not be taken for the next one.
        connection->Disconnect();
        ReleaseConnection(connection);
        throw;
    }
    if (connection)
    {
        ReleaseConnection(connection);
    }
}

bool CMsgConnectionProvider::IsStopped() const
{
    return m_bStopped || CShutdownHook::IsEnding();
}

/// Connects, if necessary. A stop that comes before the link stands is noticed here; a later one breaks the link.
bool CMsgConnectionProvider::IsReady(CMsgConnection & connection)
{
    bool const bConnected =
        connection.IsConnected() || (!IsStopped() && connection.Connect() && RunHandshake(connection));
    if (IsStopped())
    {
        SetLastError(ERROR_OPERATION_ABORTED);
        return false;
    }
    return bConnected;
}

bool CMsgConnectionProvider::RunHandshake(CMsgConnection & connection)
{
    if (connection.AuthenticateClient(1))
    {
        connection.EnableCompact();
        return true;
    }
    return connection.AuthenticateClient(0) != 0;
}

void CMsgConnectionProvider::TransmitRequest(CMsgConnection * connection, CMsgRequest & request)
{
    if (!connection)
    {
        return;
    }
    if (!IsReady(*connection))
    {
        request.GetResponse().SyncLastError();
        connection->Disconnect();
        return;
    }
    if (request.Write(*connection) && connection->FlushData() &&
        (request.DiscardResults() || request.GetResponse().Read(*connection)))
    {
        if (!request.KeepAlive())
        {
            connection->Disconnect();
        }
        request.SetHandled(1);
        return;
    }
    request.GetResponse().SyncLastError();
    connection->Disconnect();
    request.SetHandled(1);
    CString text;
    text.Format(_T("Transmit error: %s"), request.GetResponse().GetErrorText());
    CLogManager::GetInstance()->LogEvent(LOG_ERROR, text, FormatArgs());
}
