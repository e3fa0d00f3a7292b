#pragma once

/// The client's end: a provider whose Service sends the request over a pooled connection and reads the response.

#include "kvx/foundation/ObCache.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/threads/ShutdownHook.h"

#include <atomic>

class CMsgConnection;

/// Connections stay open between requests: only a request without KeepAlive or a failure drops one. There is no retry:
/// a broken connection fails the request at hand, and the next one connects anew.
///
/// Threads: any number at once; each request in flight has a connection to itself.
class KVX_API CMsgConnectionProvider : public CMsgProvider
{
public:
    /// Sets the property "connection_provider" to 1.
    CMsgConnectionProvider();

    int StartProvider() override;
    /// Breaks the requests in flight and drops all connections; requests fail with code 995 until the next start. For
    /// an owner that is to end whatever the other end does. One that never starts its provider may use it all the same.
    int StopProvider() override;

    /// Uses the connection that the request is pinned to, or takes one for this call.
    void Service(CMsgRequest & request) override;
    /// One exchange; connects and runs the handshake first if necessary. A one-way request is only written. Failures
    /// are in the response.
    virtual void TransmitRequest(CMsgConnection * connection, CMsgRequest & request);
    /// The connection that was released last, else a new one.
    virtual CMsgConnection * AllocateConnection();
    /// Back to the pool, still connected.
    virtual void ReleaseConnection(CMsgConnection * connection);

protected:
    virtual CMsgConnection * CreateConnection() = 0;
    void Exchange(CMsgConnection * connection, CMsgRequest & request);
    /// Hands a connection that is in use over to the caller.
    void ForgetConnection(CMsgConnection * connection);

private:
    friend class CMsgRelayProvider; // has another provider create its connections

    CObCache m_connections;
    std::atomic<bool> m_bStopped{false};

    CShutdownHook m_shutdownHook{&BreakConnections, this};

    static void BreakConnections(void * provider);
    bool IsStopped() const;
    bool IsReady(CMsgConnection & connection);
    static bool RunHandshake(CMsgConnection & connection);
};
