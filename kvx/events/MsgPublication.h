#pragma once

/// One topic of a publisher: the connections that want it.

#include "kvx/foundation/Lockable.h"

class CMsgConnection;
class CMsgRequest;

/// A derived class can choose what it sends, and to whom.
/// Threads: all operations lock. A subscriber that stops reading blocks whoever publishes to it, as soon as the
/// system's buffers are full, until its connection breaks or is unregistered.
class KVX_API CMsgPublication : public CObject, public CLockable
{
public:
    /// 0 for a connection that is registered already. One that comes with its subscribing request gets nothing before
    /// Confirm: the response to that request goes first.
    virtual int Register(CMsgConnection * connection, CMsgRequest * request);
    virtual void Unregister(CMsgConnection * connection);
    /// Sends the request to every connection, and lists those for which that failed.
    virtual void Service(CMsgRequest & request, CObList & failed);

    void Confirm(CMsgConnection * connection);
    int IsEmpty() const;

protected:
    /// Writes the request and reads nothing; 0 on failure, with a line in the log.
    virtual int Service(CMsgRequest & request, CMsgConnection * connection);

private:
    CMapPtrToPtr m_connections{10}; // to itself, or to null before it is confirmed
};
