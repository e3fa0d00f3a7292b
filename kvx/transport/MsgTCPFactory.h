#pragma once

/// TCP's provider, listener and factory. The configuration is `tcp:host:port@seconds.microseconds`.

#include "kvx/messaging/MsgFactory.h"
#include "kvx/transport/MsgListener.h"
#include "kvx/transport/MsgTCPBase.h"

class CMsgDispatcher;

class KVX_API CMsgTCPProvider : public CMsgConnectionProvider, public CMsgTCPBase
{
public:
    explicit CMsgTCPProvider(CConnectInfo * info) : CMsgTCPBase(info) {}

protected:
    CMsgConnection * CreateConnection() override;
};

class KVX_API CMsgTCPListener : public CMsgListener, public CMsgTCPBase
{
public:
    explicit CMsgTCPListener(CConnectInfo * info);
    ~CMsgTCPListener() override { EndListener(); }

    /// The port that clients connect to; 0 while the listener doesn't listen.
    UINT GetListeningPort() const;

protected:
    CMsgConnection * CreateConnection() override;
};

class KVX_API CMsgTCPFactory : public CMsgFactory
{
public:
    CMsgProvider * CreateProvider(LPCTSTR params) override;
    CMsgListener * CreateListener(LPCTSTR params) override;

    /// Registers the type "tcp".
    static void RegisterTypes(CMsgDispatcher & dispatcher);
    static void RegisterTypes();
};
