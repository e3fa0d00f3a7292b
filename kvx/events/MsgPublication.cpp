#include "kvx/events/MsgPublication.h"

#include "kvx/foundation/AppException.h"
#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgRequest.h"
#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgSendQueue.h"

/// A connection that is registered. Its lock is held while something is written to it.
struct CMsgPublication::Link
{
    Link(CMsgConnection * connection, bool confirmed) : pConnection(connection), bConfirmed(confirmed) {}

    CCriticalSection lock;
    CMsgConnection * pConnection; // null when it has been unregistered
    bool bConfirmed;
};

int CMsgPublication::Register(CMsgConnection * connection, CMsgRequest * request)
{
    CSingleLock guard(&m_linksLock, TRUE);
    LinkPtr known;
    if (m_links.Lookup(connection, known))
    {
        return 0;
    }
    m_links.SetAt(connection, std::make_shared<Link>(connection, request == nullptr));
    m_snapshot = nullptr;
    return 1;
}

void CMsgPublication::Confirm(CMsgConnection * connection)
{
    LinkPtr link;
    {
        CSingleLock guard(&m_linksLock, TRUE);
        m_links.Lookup(connection, link);
    }
    if (link)
    {
        CSingleLock guard(&link->lock, TRUE);
        link->bConfirmed = true;
    }
}

void CMsgPublication::Unregister(CMsgConnection * connection)
{
    LinkPtr link;
    {
        CSingleLock guard(&m_linksLock, TRUE);
        if (!m_links.Lookup(connection, link))
        {
            return;
        }
        m_links.RemoveKey(connection);
        m_snapshot = nullptr;
    }
    CSingleLock guard(&link->lock, TRUE);
    link->pConnection = nullptr;
}

int CMsgPublication::IsEmpty() const
{
    CSingleLock guard(&m_linksLock, TRUE);
    return m_links.IsEmpty();
}

std::shared_ptr<CMsgPublication::Links const> CMsgPublication::GetLinks()
{
    CSingleLock guard(&m_linksLock, TRUE);
    if (!m_snapshot)
    {
        auto links = std::make_shared<Links>();
        links->reserve(static_cast<std::size_t>(m_links.GetCount()));
        for (auto const * pair = m_links.PGetFirstAssoc(); pair; pair = m_links.PGetNextAssoc(pair))
        {
            links->push_back(pair->value);
        }
        m_snapshot = std::move(links);
    }
    return m_snapshot;
}

void CMsgPublication::Service(CMsgRequest & request, CObList & failed)
{
    CSingleLock publishing(*this, TRUE);
    auto const links = GetLinks();
    for (LinkPtr const & link : *links)
    {
        CSingleLock guard(&link->lock, TRUE);
        if (link->pConnection && link->bConfirmed && !Service(request, link->pConnection))
        {
            failed.AddTail(link->pConnection);
        }
    }
}

int CMsgPublication::Service(CMsgRequest & request, CMsgConnection * connection)
{
    CMsgSendQueue * const queue = connection->GetSendQueue();
    if (queue)
    {
        if (queue->Post(request))
        {
            return 1;
        }
    }
    else
    {
        // The connection may be registered with other publications too, which have locks of their own.
        CSingleLock guard(connection->GetWriteLock(), TRUE);
        if (request.Write(*connection) && connection->FlushData())
        {
            return 1;
        }
    }
    LogError(_T("%s"), queue && GetLastError() == ERROR_TIMEOUT
                           ? CString(_T("A subscriber that doesn't read what is published is dropped"))
                           : CWinError::GetLastErrorText());
    return 0;
}
