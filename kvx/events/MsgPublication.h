#pragma once

/// One topic of a publisher: the connections that want it.

#include "kvx/foundation/Lockable.h"

#include <memory>
#include <vector>

class CMsgConnection;
class CMsgRequest;

/// A derived class can choose what it sends, and to whom.
///
/// Threads: any. The object's lock is that of publishing: what several threads publish reaches every subscriber in one
/// order. A subscriber that stops reading holds it up as soon as the system's buffers are full, until its connection
/// breaks or is unregistered, or as long as a publisher's limit allows (CMsgPublisher::SetSubscriberLimit). Connections
/// are registered and unregistered meanwhile.
class KVX_API CMsgPublication : public CObject, public CLockable
{
public:
    /// 0 for a connection that is registered already. One that comes with its subscribing request gets nothing before
    /// Confirm: the response to that request goes first.
    virtual int Register(CMsgConnection * connection, CMsgRequest * request);
    /// Nothing is written to the connection any more when it returns: one that somebody is blocked in writing to is
    /// disconnected before.
    virtual void Unregister(CMsgConnection * connection);
    /// Sends the request to every connection, and lists those for which that failed.
    virtual void Service(CMsgRequest & request, CObList & failed);

    void Confirm(CMsgConnection * connection);
    int IsEmpty() const;

protected:
    /// Writes the request, or hands it to the connection's queue, and reads nothing; 0 on failure, with a line in the
    /// log.
    virtual int Service(CMsgRequest & request, CMsgConnection * connection);

private:
    struct Link;
    using LinkPtr = std::shared_ptr<Link>;
    using Links = std::vector<LinkPtr>;

    mutable CCriticalSection m_linksLock; // never held while something is written
    CMap<CMsgConnection *, CMsgConnection *, LinkPtr, LinkPtr const &> m_links{10};
    std::shared_ptr<Links const> m_snapshot; // of their values; null when they have changed

    std::shared_ptr<Links const> GetLinks();
};
