#include "kvx/transport/MsgSocket.h"

#include "kvx/platform/BlockedCalls.h"

void CMsgSocket::InitSocket()
{
    static BOOL const bStarted = AfxSocketInit();
    (void)bStarted;
}

int CMsgSocket::Create(int type)
{
    m_socket = winsock::socket(winsock::AddressFamilyInet, type, 0);
    return IsOpen();
}

namespace
{
constexpr UINT MAX_PORT = 65535;

int Refuse()
{
    WSASetLastError(WSAEINVAL);
    return 0;
}
} // namespace

int CMsgSocket::Bind(UINT port, char const * address)
{
    if (port > MAX_PORT)
    {
        return Refuse();
    }
    winsock::SockAddrIn local{};
    local.sin_family = winsock::AddressFamilyInet;
    local.sin_port = winsock::htons(static_cast<USHORT>(port));
    local.sin_addr.s_addr = address ? winsock::inet_addr(address) : winsock::htonl(winsock::AddressAny);
    if (address && local.sin_addr.s_addr == winsock::AddressNone)
    {
        return Refuse();
    }
    return winsock::bind(m_socket, reinterpret_cast<winsock::SockAddr const *>(&local), sizeof(local)) == 0;
}

int CMsgSocket::Listen(int backlog)
{
    return winsock::listen(m_socket, backlog) == 0;
}

int CMsgSocket::Accept(CMsgSocket & target)
{
    CMsgHandleUses::Use const use(m_uses);
    SOCKET const accepted = winsock::accept(m_socket, nullptr, nullptr);
    target.m_socket = accepted;
    return accepted != INVALID_SOCKET;
}

int CMsgSocket::Connect(char const * host, UINT port)
{
    if (port > MAX_PORT)
    {
        return Refuse();
    }
    winsock::SockAddrIn peer{};
    peer.sin_family = winsock::AddressFamilyInet;
    peer.sin_port = winsock::htons(static_cast<USHORT>(port));
    peer.sin_addr.s_addr = winsock::inet_addr(host);
    if (peer.sin_addr.s_addr == winsock::AddressNone)
    {
        winsock::HostEnt const * const found = winsock::gethostbyname(host);
        if (!found || !found->h_addr_list[0])
        {
            return Refuse();
        }
        std::memcpy(&peer.sin_addr, found->h_addr_list[0], sizeof(peer.sin_addr));
    }
    CMsgHandleUses::Use const use(m_uses);
    return winsock::connect(m_socket, reinterpret_cast<winsock::SockAddr const *>(&peer), sizeof(peer)) == 0;
}

int CMsgSocket::Receive(void * buffer, int size, int flags)
{
    CMsgHandleUses::Use const use(m_uses);
    return winsock::recv(m_socket, static_cast<char *>(buffer), size, flags);
}

int CMsgSocket::Send(void const * buffer, int size, int flags)
{
    CMsgHandleUses::Use const use(m_uses);
    return winsock::send(m_socket, static_cast<char const *>(buffer), size, flags);
}

int CMsgSocket::Shutdown(int how)
{
    CMsgHandleUses::Use const use(m_uses);
    return winsock::shutdown(m_socket, how) == 0;
}

int CMsgSocket::Close()
{
    SOCKET const socket = m_socket.exchange(INVALID_SOCKET);
    return socket == INVALID_SOCKET ||
           (m_uses.End([=] { kvx::EndSocketCalls(socket); }) && winsock::closesocket(socket) == 0);
}

UINT CMsgSocket::GetLocalPort() const
{
    winsock::SockAddrIn local{};
    int size = sizeof(local);
    return winsock::getsockname(m_socket, reinterpret_cast<winsock::SockAddr *>(&local), &size) == 0
               ? winsock::ntohs(local.sin_port)
               : 0;
}
