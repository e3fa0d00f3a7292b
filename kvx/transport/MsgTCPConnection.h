#pragma once

/// A connection over TCP, IPv4, without encryption. The one transport that uses compaction.

#include "kvx/transport/MsgBufferedConnection.h"
#include "kvx/transport/MsgSocket.h"
#include "kvx/transport/MsgTCPBase.h"

/// Errors: 1243 when connecting fails, for whatever reason; 10022 for an unknown host when listening; 10101 when the
/// peer has closed; else the system's.
class KVX_API CMsgTCPConnection : public CMsgBufferedConnection, public CMsgTCPBase
{
public:
    explicit CMsgTCPConnection(CConnectInfo * info) : CMsgBufferedConnection(1), CMsgTCPBase(info) {}
    ~CMsgTCPConnection() override { CMsgTCPConnection::Disconnect(); }

    void GetHandles(void *& read, void *& write) override;
    /// "type" is "tcp"; "connect_address" and "connect_name" are the peer's, which is looked up once.
    int GetConnectionInfo(CValueAccessor & info) override;
    int IsConnected() override;
    int Connect() override;
    int Disconnect() override;
    /// Binds to the address that the endpoint's host resolves to.
    int Listen() override;
    int Accept(CMsgConnection * target) override;

    /// The port that the socket is bound to: for a listener on port 0, the one that it got.
    UINT GetLocalPort() const { return m_socket.GetLocalPort(); }

protected:
    int SendAll(void const * buffer, DWORD count, bool bMore) override;
    DWORD ReceiveSome(void * buffer, DWORD size) override;

private:
    CMsgSocket m_socket;
    bool m_bAnswered = true;     // whether anything was sent behind what was received last
    CCriticalSection m_peerLock; // Disconnect may come from another thread
    CStringA m_strPeerName;
    CStringA m_strPeerAddress;
};
