#include "kvx/events/MsgPublisher.h"

#include "kvx/events/MsgPublication.h"
#include "kvx/foundation/AppException.h"
#include "kvx/logging/LogManager.h"
#include "kvx/msgdata/MsgResults.h"
#include "kvx/text/StringTokenizer.h"
#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgConnectionProvider.h"
#include "kvx/transport/MsgListener.h"

#include <memory>
#include <vector>

namespace
{
/// The address alone, for a connection that may be gone by now.
INT_PTR ToKey(CObject const * connection)
{
    return reinterpret_cast<INT_PTR>(connection);
}
} // namespace

class CMsgPublisher::CSubscription : public CObject
{
public:
    CSubscription(CMsgPublisher & publisher, CMsgConnection * connection)
        : m_publisher(publisher), m_pConnection(connection)
    {
        CSingleLock guard(&m_publisher.m_linksLock, TRUE);
        m_publisher.m_links.SetAt(connection, connection);
    }
    CSubscription(CSubscription const &) = delete;
    CSubscription & operator=(CSubscription const &) = delete;
    /// Drops the link first: that frees whoever is blocked in writing to it, and holds a publication meanwhile.
    ~CSubscription() override
    {
        m_pConnection->Disconnect();
        for (CMsgPublication * const publication : m_publications)
        {
            publication->Unregister(m_pConnection);
        }
        {
            CSingleLock guard(&m_publisher.m_linksLock, TRUE);
            m_publisher.m_links.RemoveKey(m_pConnection);
        }
        if (CMsgConnectionProvider * const owner = m_pConnection->GetOwner())
        {
            owner->ReleaseConnection(m_pConnection);
        }
        else
        {
            delete m_pConnection;
        }
    }

    CMsgPublisher & m_publisher;
    CMsgConnection * m_pConnection;
    std::vector<CMsgPublication *> m_publications;
};

CMsgPublisher::CMsgPublisher() = default;

CMsgPublisher::~CMsgPublisher()
{
    DropSubscriptions(); // before the publications, which they leave
}

void CMsgPublisher::DropSubscriptions()
{
    {
        CSingleLock guard(&m_linksLock, TRUE);
        void * key = nullptr;
        void * link = nullptr;
        for (POSITION pos = m_links.GetStartPosition(); pos;)
        {
            m_links.GetNextAssoc(pos, key, link);
            static_cast<CMsgConnection *>(link)->Disconnect();
        }
    }
    CSingleLock guard(*this, TRUE);
    m_subscriptions.RemoveAll(1);
}

int CMsgPublisher::GetSubscriptionCount() const
{
    CSingleLock guard(*this, TRUE);
    return static_cast<int>(m_subscriptions.GetCount());
}

CMsgPublication * CMsgPublisher::LookupPublication(CString const & name, int create)
{
    CSingleLock guard(*this, TRUE);
    CObject * known = m_publications.Lookup(name);
    if (!known && create)
    {
        known = new CMsgPublication;
        m_publications.SetAt(name, known);
    }
    return static_cast<CMsgPublication *>(known);
}

void CMsgPublisher::RegisterPublication(CString const & name, CMsgPublication * publication)
{
    CSingleLock guard(*this, TRUE);
    if (m_publications.Lookup(name))
    {
        delete publication;
        return;
    }
    m_publications.SetAt(name, publication);
}

CStringValue CMsgPublisher::RegisterSubscription(CMsgRequest & request, CString const & events)
{
    CMsgConnection * const connection = request.GetConnection();
    if (!connection)
    {
        ThrowAppException(ERROR_INVALID_PARAMETER, _T("Connection required"));
    }
    CSingleLock guard(*this, TRUE); // whoever drops the subscription waits until the response has gone
    CSubscription const * subscription = LookupSubscription(connection);
    std::size_t const confirmed = subscription ? subscription->m_publications.size() : 0;
    CStringValue const handle = RegisterSubscription(connection, events, &request);
    subscription = LookupSubscription(connection);
    if (!subscription)
    {
        return handle; // there was nothing to subscribe to: an ordinary response goes back
    }
    CMsgListener::TakeConnection(request);
    // What is published from here on waits for the write lock: it goes behind the response, and none of it is missed.
    CSingleLock writing(connection->GetWriteLock(), TRUE);
    for (std::size_t i = confirmed; i < subscription->m_publications.size(); ++i)
    {
        subscription->m_publications[i]->Confirm(connection);
    }
    request.GetResponse().Write(*connection);
    connection->FlushData(); // a client that has gone shows when something is published
    return handle;
}

CStringValue CMsgPublisher::RegisterSubscription(CMsgConnection * connection, CString const & events,
                                                 CMsgRequest * request)
{
    CStringValue handle;
    handle.FromInteger64(ToKey(connection));
    if (events.IsEmpty())
    {
        LogError(_T("CMsgPublisher: no publications to register"));
        return handle;
    }
    CSingleLock guard(*this, TRUE);
    CSubscription * subscription = LookupSubscription(connection);
    if (!subscription)
    {
        subscription = new CSubscription(*this, connection);
        m_subscriptions.SetAt(ToKey(connection), subscription);
    }
    CStringTokenizer names(events, _T(","));
    for (CString name; names.GetNextString(name);)
    {
        CMsgPublication * const publication = LookupPublication(name, 1);
        if (publication->Register(connection, request))
        {
            subscription->m_publications.push_back(publication);
        }
    }
    if (request)
    {
        CMsgResults results(&request->GetResponse());
        results[_T("handle")] = handle;
    }
    return handle;
}

CMsgPublisher::CSubscription * CMsgPublisher::LookupSubscription(CMsgConnection * connection) const
{
    return static_cast<CSubscription *>(m_subscriptions.Lookup(ToKey(connection)));
}

void CMsgPublisher::Service(CMsgRequest & request)
{
    CMsgPublication * const publication = LookupPublication(request.GetCommand(), 0);
    if (!publication)
    {
        return;
    }
    CObList failed(10);
    publication->Service(request, failed);
    for (POSITION pos = failed.GetHeadPosition(); pos;)
    {
        UnregisterKey(ToKey(failed.GetNext(pos)));
    }
}

/// Another thread may have unregistered the connection, and deleted it: it is looked up before it is touched.
void CMsgPublisher::UnregisterKey(INT_PTR key)
{
    CSingleLock guard(*this, TRUE);
    if (auto const * const subscription = static_cast<CSubscription *>(m_subscriptions.Lookup(key)))
    {
        UnregisterSubscription(subscription->m_pConnection);
    }
}

void CMsgPublisher::UnregisterSubscription(CMsgConnection * connection)
{
    CSingleLock guard(*this, TRUE);
    delete m_subscriptions.RemoveKey(ToKey(connection));
}

void CMsgPublisher::UnregisterSubscription(CStringValue const & handle)
{
    UnregisterKey(static_cast<INT_PTR>(handle.ToInteger64()));
}
