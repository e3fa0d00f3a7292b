#pragma once

/// The hop between two processes: passes requests on through connections of its own.

#include "kvx/messaging/MsgFactory.h"
#include "kvx/transport/MsgConnectionProvider.h"

/// A request that a listener read is pinned to its client's connection, on which any other connection provider would
/// send it back. A relay uses its own, whatever the request carries.
///
/// A subscription doesn't pass a relay: the publisher would take over the relay's connection, not the subscriber's.
class KVX_API CMsgRelayProvider : public CMsgConnectionProvider
{
public:
    /// Takes the provider over: it makes the relay's connections, and is never put on a target.
    explicit CMsgRelayProvider(CMsgConnectionProvider * inner) : m_inner(inner) {}

    void Service(CMsgRequest & request) override;

protected:
    CMsgConnection * CreateConnection() override;

private:
    kvx::RefPtr<CMsgConnectionProvider> m_inner;
};

/// "relay": the params are the configuration of a provider that makes connections; null for any other.
class KVX_API CMsgRelayFactory : public CMsgFactory
{
public:
    CMsgProvider * CreateProvider(LPCTSTR params) override;
};
