#pragma once

/// The server's end of subscriptions: a client's own connection is kept, and from then on carries requests to the
/// client.

#include "kvx/foundation/Lockable.h"
#include "kvx/foundation/ObLookup.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/threads/ShutdownHook.h"
#include "kvx/transport/MsgSendQueue.h"

#include <map>

class CMsgConnection;
class CMsgPublication;

/// An application's handler of a subscribing command calls RegisterSubscription. Publishing is serving a request: its
/// whole command is the name of the publication, and all who subscribed to that name get the request. The connection
/// must be the subscriber's own: see CMsgRelayProvider.
///
/// Threads: any number may publish, subscribe and unsubscribe at once, also while somebody is blocked in writing to a
/// subscriber that has stopped reading. See CMsgPublication for what such a one does to those who publish, and
/// SetSubscriberLimit for the cure.
class KVX_API CMsgPublisher : public CMsgProvider, public CLockable
{
public:
    CMsgPublisher();
    /// Drops all subscriptions. Nobody may be publishing.
    ~CMsgPublisher() override;

    /// For subscriptions that come from now on: each has a queue of its own, of so many messages and bytes (0 for no
    /// limit of that kind, 0 for both for no queues, as it is by default). Publishing then goes on while a subscriber
    /// doesn't read. When the queue is full publishing waits for that subscriber as long as it makes progress; one that
    /// has taken nothing for `patience` milliseconds is dropped, with a line in the log. Order is kept.
    void SetSubscriberLimit(DWORD messages, ULONGLONG bytes, DWORD patience = 1000);

    /// Sends the request to the subscribers of the publication of that name; without such a publication nothing
    /// happens. Subscribers that can't be reached are dropped.
    void Service(CMsgRequest & request) override;

    /// Takes over a publication that the application made. One of that name which is there already stays, and the new
    /// one is deleted.
    virtual void RegisterPublication(CString const & name, CMsgPublication * publication);

    /// Subscribes a connection to publications, `name,name,...`, and creates those that are missing. A `request` gets
    /// the value "handle" in its response. Gives the handle, which is unique among the subscriptions of this publisher.
    virtual CStringValue RegisterSubscription(CMsgConnection * connection, CString const & events,
                                              CMsgRequest * request);
    /// The same for the connection that the request came on. The publisher takes the connection over and writes the
    /// response itself. Throws CAppException * with code 87 if there is none.
    virtual CStringValue RegisterSubscription(CMsgRequest & request, CString const & events);
    /// Drops the connection, and what it subscribed to. A connection or handle that isn't known is ignored.
    virtual void UnregisterSubscription(CMsgConnection * connection);
    virtual void UnregisterSubscription(CStringValue const & handle);

    /// Drops all subscriptions, at once also those that somebody is blocked in writing to. Any thread; subscriptions
    /// that come meanwhile may stay.
    void DropSubscriptions();

    int GetSubscriptionCount() const;
    int HasSubscriptions() const { return GetSubscriptionCount() > 0; }

protected:
    /// Null if there is none and `create` is 0.
    CMsgPublication * LookupPublication(CString const & name, int create);

private:
    class CSubscription;
    using SubscriptionPtr = kvx::RefPtr<CSubscription>;

    CObStringLookup m_publications{1};
    // Never held while something is written, nor while a publication is called.
    mutable CCriticalSection m_subscriptionsLock;
    std::map<INT_PTR, SubscriptionPtr> m_subscriptions; // by the connection's address
    CMsgSendQueue::Limits m_limits;
    CShutdownHook m_shutdownHook{&BreakConnections, this};

    static void BreakConnections(void * publisher);
    SubscriptionPtr LookupSubscription(CMsgConnection * connection, bool bCreate);
    SubscriptionPtr TakeSubscription(INT_PTR key);
    void UnregisterKey(INT_PTR key);
};
