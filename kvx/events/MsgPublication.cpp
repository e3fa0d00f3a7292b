#include "kvx/events/MsgPublication.h"

#include "kvx/foundation/AppException.h"
#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgRequest.h"
#include "kvx/transport/MsgConnection.h"

int CMsgPublication::Register(CMsgConnection * connection, CMsgRequest * request)
{
    CSingleLock guard(*this, TRUE);
    void * known = nullptr;
    if (m_connections.Lookup(connection, known))
    {
        return 0;
    }
    m_connections.SetAt(connection, request ? nullptr : connection);
    return 1;
}

void CMsgPublication::Confirm(CMsgConnection * connection)
{
    CSingleLock guard(*this, TRUE);
    void * known = nullptr;
    if (m_connections.Lookup(connection, known))
    {
        m_connections.SetAt(connection, connection);
    }
}

void CMsgPublication::Unregister(CMsgConnection * connection)
{
    CSingleLock guard(*this, TRUE);
    m_connections.RemoveKey(connection);
}

int CMsgPublication::IsEmpty() const
{
    CSingleLock guard(*this, TRUE);
    return m_connections.IsEmpty();
}

void CMsgPublication::Service(CMsgRequest & request, CObList & failed)
{
    CSingleLock guard(*this, TRUE);
    void * key = nullptr;
    void * confirmed = nullptr;
    for (POSITION pos = m_connections.GetStartPosition(); pos;)
    {
        m_connections.GetNextAssoc(pos, key, confirmed);
        auto * const connection = static_cast<CMsgConnection *>(confirmed);
        if (connection && !Service(request, connection))
        {
            failed.AddTail(connection);
        }
    }
}

int CMsgPublication::Service(CMsgRequest & request, CMsgConnection * connection)
{
    // The connection may be registered with other publications too, which have locks of their own.
    CSingleLock guard(connection->GetWriteLock(), TRUE);
    if (request.Write(*connection) && connection->FlushData())
    {
        return 1;
    }
    LogError(_T("%s"), CWinError::GetLastErrorText());
    return 0;
}
