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
#include <utility>
#include <vector>

namespace
{
/// The address alone, for a connection that may be gone by now.
INT_PTR ToKey(CObject const * connection)
{
    return reinterpret_cast<INT_PTR>(connection);
}
} // namespace

/// What a connection has subscribed to. The connection goes when the last who uses the subscription lets go of it.
class CMsgPublisher::CSubscription : public CRefObject
{
public:
    CSubscription(CMsgConnection * connection, CMsgSendQueue::Limits const & limits) : m_pConnection(connection)
    {
        if (limits.nMaxMessages != 0 || limits.nMaxBytes != 0)
        {
            m_queue = new CMsgSendQueue(connection, limits);
            connection->SetSendQueue(m_queue.Get());
        }
    }
    CSubscription(CSubscription const &) = delete;
    CSubscription & operator=(CSubscription const &) = delete;
    ~CSubscription() override
    {
        if (!m_pConnection)
        {
            return;
        }
        m_pConnection->SetSendQueue(nullptr);
        if (CMsgConnectionProvider * const owner = m_pConnection->GetOwner())
        {
            owner->ReleaseConnection(m_pConnection);
        }
        else
        {
            delete m_pConnection;
        }
    }

    /// So that the next Add needs no memory.
    void ReserveOne()
    {
        CSingleLock guard(&m_lock, TRUE);
        if (m_publications.size() == m_publications.capacity())
        {
            m_publications.reserve(2 * m_publications.size() + 1);
        }
    }

    /// False if the subscription has ended meanwhile.
    bool Add(CMsgPublication * publication)
    {
        CSingleLock guard(&m_lock, TRUE);
        if (!m_bEnded)
        {
            m_publications.push_back(publication);
        }
        return !m_bEnded;
    }

    std::vector<CMsgPublication *> GetPublications() const
    {
        CSingleLock guard(&m_lock, TRUE);
        return m_publications;
    }

    /// Leaves the connection to whoever had it before. For a subscription that nobody else knows.
    void Abandon()
    {
        m_pConnection->SetSendQueue(nullptr);
        m_pConnection = nullptr;
    }

    /// The same for one that publications know of already.
    void Withdraw()
    {
        std::vector<CMsgPublication *> publications;
        {
            CSingleLock guard(&m_lock, TRUE);
            m_bEnded = true;
            publications.swap(m_publications);
        }
        for (CMsgPublication * const publication : publications)
        {
            publication->Unregister(m_pConnection);
        }
        Abandon();
    }

    /// Drops the link first: that frees whoever is blocked in writing to it.
    void End()
    {
        std::vector<CMsgPublication *> publications;
        {
            CSingleLock guard(&m_lock, TRUE);
            if (std::exchange(m_bEnded, true))
            {
                return;
            }
            publications.swap(m_publications);
        }
        m_pConnection->Disconnect();
        if (m_queue)
        {
            m_queue->Close();
        }
        for (CMsgPublication * const publication : publications)
        {
            publication->Unregister(m_pConnection);
        }
    }

    CMsgConnection * GetConnection() const { return m_pConnection; }
    CMsgSendQueue * GetQueue() const { return m_queue.Get(); }

private:
    CMsgConnection * m_pConnection;
    kvx::RefPtr<CMsgSendQueue> m_queue; // null without a limit
    mutable CCriticalSection m_lock;
    std::vector<CMsgPublication *> m_publications;
    bool m_bEnded = false;
};

CMsgPublisher::CMsgPublisher() = default;

CMsgPublisher::~CMsgPublisher()
{
    DropSubscriptions(); // before the publications, which they leave
}

void CMsgPublisher::SetSubscriberLimit(DWORD messages, ULONGLONG bytes, DWORD patience)
{
    CSingleLock guard(&m_subscriptionsLock, TRUE);
    m_limits = {messages, bytes, patience};
}

void CMsgPublisher::BreakConnections(void * publisher)
{
    auto * const self = static_cast<CMsgPublisher *>(publisher);
    CSingleLock guard(&self->m_subscriptionsLock, TRUE);
    for (auto const & [key, subscription] : self->m_subscriptions)
    {
        subscription->GetConnection()->Disconnect();
    }
}

void CMsgPublisher::DropSubscriptions()
{
    BreakConnections(this); // all at once, for whoever waits for one of them holds up the next
    std::map<INT_PTR, SubscriptionPtr> dropped;
    {
        CSingleLock guard(&m_subscriptionsLock, TRUE);
        dropped.swap(m_subscriptions);
    }
    for (auto const & [key, subscription] : dropped)
    {
        subscription->End();
    }
}

int CMsgPublisher::GetSubscriptionCount() const
{
    CSingleLock guard(&m_subscriptionsLock, TRUE);
    return static_cast<int>(m_subscriptions.size());
}

CMsgPublication * CMsgPublisher::LookupPublication(CString const & name, int create)
{
    CSingleLock guard(*this, TRUE);
    CObject * known = m_publications.Lookup(name);
    if (!known && create)
    {
        auto fresh = std::make_unique<CMsgPublication>();
        m_publications.SetAt(name, fresh.get());
        known = fresh.release();
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
    // Holds the connection until the response has gone, whoever drops the subscription meanwhile.
    SubscriptionPtr const subscription = LookupSubscription(connection, !events.IsEmpty());
    std::size_t const known = subscription ? subscription->GetPublications().size() : 0;
    CStringValue handle;
    std::vector<CMsgPublication *> publications;
    try
    {
        handle = RegisterSubscription(connection, events, &request);
        publications = subscription ? subscription->GetPublications() : publications;
    }
    catch (...)
    {
        // The connection is the session's still, which answers with the failure.
        if (subscription && known == 0 && TakeSubscription(ToKey(connection)))
        {
            subscription->Withdraw();
        }
        throw;
    }
    if (!subscription)
    {
        return handle; // there was nothing to subscribe to: an ordinary response goes back
    }
    if (publications.empty() && TakeSubscription(ToKey(connection)))
    {
        subscription->Abandon();
        return handle;
    }
    CMsgListener::TakeConnection(request);
    // What is published from here on goes behind the response, and none of it is missed: it waits for the write lock,
    // or for its turn in the queue. The lock keeps the response here as well until all publications know of it: a
    // client that has it counts on everything that is published from then on.
    CMsgResponse & response = request.GetResponse();
    CSingleLock writing(connection->GetWriteLock(), TRUE);
    bool const bAnswered = kvx::FailingWithoutMemory(
        [&]
        {
            if (subscription->GetQueue())
            {
                subscription->GetQueue()->PostAtOnce(response);
            }
            for (std::size_t i = known; i < publications.size(); ++i)
            {
                publications[i]->Confirm(connection);
            }
            return subscription->GetQueue() || (response.Write(*connection) && connection->FlushData());
        });
    if (!bAnswered)
    {
        // A client that has gone shows when something is published. One that lives would wait for the answer.
        connection->Disconnect();
    }
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
    SubscriptionPtr const subscription = LookupSubscription(connection, true);
    CStringTokenizer names(events, _T(","));
    for (CString name; names.GetNextString(name);)
    {
        CMsgPublication * const publication = LookupPublication(name, 1);
        // Room first: a publication must know of no connection that its subscription doesn't.
        subscription->ReserveOne();
        if (publication->Register(connection, request) && !subscription->Add(publication))
        {
            publication->Unregister(connection);
        }
    }
    if (request)
    {
        CMsgResults results(&request->GetResponse());
        results[_T("handle")] = handle;
    }
    return handle;
}

CMsgPublisher::SubscriptionPtr CMsgPublisher::LookupSubscription(CMsgConnection * connection, bool bCreate)
{
    CSingleLock guard(&m_subscriptionsLock, TRUE);
    auto const found = m_subscriptions.find(ToKey(connection));
    if (found != m_subscriptions.end())
    {
        return found->second;
    }
    SubscriptionPtr fresh;
    if (bCreate)
    {
        auto const slot = m_subscriptions.emplace(ToKey(connection), SubscriptionPtr()).first;
        try
        {
            slot->second = fresh = SubscriptionPtr(new CSubscription(connection, m_limits));
        }
        catch (...)
        {
            m_subscriptions.erase(slot);
            throw;
        }
    }
    return fresh;
}

/// Null if there is none. Another thread may have unregistered the connection, and deleted it: the key is a number.
CMsgPublisher::SubscriptionPtr CMsgPublisher::TakeSubscription(INT_PTR key)
{
    CSingleLock guard(&m_subscriptionsLock, TRUE);
    auto const found = m_subscriptions.find(key);
    if (found == m_subscriptions.end())
    {
        return SubscriptionPtr();
    }
    SubscriptionPtr subscription = std::move(found->second);
    m_subscriptions.erase(found);
    return subscription;
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

void CMsgPublisher::UnregisterKey(INT_PTR key)
{
    if (SubscriptionPtr const subscription = TakeSubscription(key))
    {
        subscription->End();
    }
}

void CMsgPublisher::UnregisterSubscription(CMsgConnection * connection)
{
    UnregisterKey(ToKey(connection));
}

void CMsgPublisher::UnregisterSubscription(CStringValue const & handle)
{
    UnregisterKey(static_cast<INT_PTR>(handle.ToInteger64()));
}
