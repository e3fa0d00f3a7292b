#pragma once

/// A thin wrapper of an IPv4 socket. Results are 1 or 0 unless told otherwise; the reason is the thread's last error.

#include "kvx/platform/mfc/Afx.h"
#include "kvx/transport/MsgHandleUses.h"

#include <atomic>

/// Doesn't close its socket when it goes; copying copies the socket's value.
/// Threads: one at a time, but for Close and Shutdown, which end a call that another thread is blocked in.
class KVX_API CMsgSocket
{
public:
    CMsgSocket() { InitSocket(); }
    CMsgSocket(CMsgSocket const & other)
    {
        InitSocket();
        m_socket = other.m_socket.load();
    }
    CMsgSocket & operator=(CMsgSocket const & other)
    {
        m_socket = other.m_socket.load();
        return *this;
    }
    virtual ~CMsgSocket() = default;

    int Create(int type);
    /// A null address is every interface; a text that is no dotted address gives 10022, and so does a port beyond
    /// 65535.
    int Bind(UINT port, char const * address);
    int Listen(int backlog);
    int Accept(CMsgSocket & target);
    /// A dotted address, or a host name, whose first address is taken; 10022 for an unknown one, or a port beyond
    /// 65535.
    int Connect(char const * host, UINT port);
    /// The number of bytes, or -1.
    int Receive(void * buffer, int size, int flags);
    int Send(void const * buffer, int size, int flags);
    int Shutdown(int how);
    /// 1 also when it is closed already.
    int Close();

    SOCKET GetSocket() const { return m_socket.load(); }
    bool IsOpen() const { return m_socket.load() != INVALID_SOCKET; }
    /// The port that the socket is bound to, 0 if none.
    UINT GetLocalPort() const;

private:
    std::atomic<SOCKET> m_socket{INVALID_SOCKET};
    CMsgHandleUses m_uses;

    static void InitSocket();
};
