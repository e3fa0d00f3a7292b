#pragma once

#include "Churn.h"
#include "NoLeaks.h"
#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"

#include <functional>
#include <string>
#include <vector>

using namespace winsock;

inline SockAddrIn Local(USHORT nPort)
{
    SockAddrIn address{};
    address.sin_family = AddressFamilyInet;
    address.sin_addr.s_addr = (winsock::htonl)(AddressLoopback);
    address.sin_port = (winsock::htons)(nPort);
    return address;
}

inline SockAddr const * Generic(SockAddrIn const & address)
{
    return reinterpret_cast<SockAddr const *>(&address);
}

inline USHORT PortOf(SOCKET hSocket)
{
    SockAddrIn address{};
    int nLength = sizeof address;
    EXPECT_EQ(winsock::getsockname(hSocket, reinterpret_cast<SockAddr *>(&address), &nLength), 0);
    return (winsock::ntohs)(address.sin_port);
}

/// A socket that closes itself.
class Socket
{
public:
    Socket(SOCKET hSocket = winsock::socket(AddressFamilyInet, SocketStream, 0)) : m_hSocket(hSocket) {}
    Socket(Socket && other) noexcept : m_hSocket(std::exchange(other.m_hSocket, INVALID_SOCKET)) {}
    ~Socket() { Close(); }
    void Close()
    {
        EXPECT_TRUE(m_hSocket == INVALID_SOCKET || winsock::closesocket(m_hSocket) == 0);
        m_hSocket = INVALID_SOCKET;
    }
    operator SOCKET() const { return m_hSocket; }

private:
    SOCKET m_hSocket;
};

inline Socket Listener(USHORT nPort = 0, int nBacklog = 5)
{
    Socket listener;
    EXPECT_EQ(winsock::bind(listener, Generic(Local(nPort)), sizeof(SockAddrIn)), 0);
    EXPECT_EQ(winsock::listen(listener, nBacklog), 0);
    return listener;
}

inline Socket ConnectTo(USHORT nPort)
{
    Socket client;
    EXPECT_EQ(winsock::connect(client, Generic(Local(nPort)), sizeof(SockAddrIn)), 0) << GetLastError();
    return client;
}

inline int SelectOne(SOCKET hSocket, bool bRead)
{
    FdSet set;
    FdZero(set);
    FdAdd(hSocket, set);
    return winsock::select(0, bRead ? &set : nullptr, nullptr, bRead ? nullptr : &set, nullptr);
}

class Sockets : public testing::Test
{
    static int Begin()
    {
        WSADATA data;
        return WSAStartup(0x0202, &data);
    }
    static inline int const BEGUN = Begin(); // there is an end to it with the process
    NoLeaks m_noLeaks;
};

/// Closes the socket under a call, which fails.
inline void CloseUnder(Socket & socket, int nRound, std::function<int(SOCKET)> const & call)
{
    SOCKET const hSocket = socket;
    auto const failing = [&]
    {
        EXPECT_EQ(call(hSocket), SOCKET_ERROR);
        DWORD const dwError = GetLastError(); // closed before or while it works
        EXPECT_TRUE(dwError == WSAEINTR || dwError == WSAENOTSOCK) << dwError;
    };
    BreakUnder(nRound, failing, [&] { socket.Close(); });
    EXPECT_TRUE(Fails(winsock::closesocket(hSocket), WSAENOTSOCK, SOCKET_ERROR));
}

inline constexpr int ROUNDS = 200;
