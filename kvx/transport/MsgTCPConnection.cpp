#include "kvx/transport/MsgTCPConnection.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/foundation/ValueAccessor.h"

#include <algorithm>
#include <limits>

namespace
{
// As many clients as may come at once, when a service is back: with a full queue each waits for half a second or more
// before its system tries again.
constexpr int LISTEN_BACKLOG = 128;

constexpr DWORD ACCEPT_PAUSE = 20; // milliseconds

bool IsTransient(DWORD error)
{
    return error == WSAEMFILE || error == WSAENOBUFS || error == WSAECONNABORTED || error == WSAECONNRESET ||
           error == ERROR_TOO_MANY_OPEN_FILES || error == ERROR_NOT_ENOUGH_MEMORY;
}

int TransferSize(DWORD count)
{
    return static_cast<int>(std::min<DWORD>(count, std::numeric_limits<int>::max()));
}
} // namespace

void CMsgTCPConnection::GetHandles(void *& read, void *& write)
{
    read = write = reinterpret_cast<void *>(m_socket.GetSocket());
}

int CMsgTCPConnection::IsConnected()
{
    // The socket goes when the link does, and a peer that has gone shows at the next transfer: every request asks this,
    // so the system isn't.
    return m_socket.IsOpen();
}

int CMsgTCPConnection::Connect()
{
    Disconnect();
    ResetBuffers();
    m_bAnswered = true;
    if (!m_socket.Create(winsock::SocketStream))
    {
        return 0;
    }
    if (!m_socket.Connect(GetServer(), static_cast<UINT>(GetPort())))
    {
        // Callers see one code, whatever the reason was.
        if (GetLastError() != 0)
        {
            SetLastError(ERROR_SERVICE_NOT_FOUND);
        }
        return 0;
    }
    return 1;
}

int CMsgTCPConnection::Disconnect()
{
    if (!m_socket.IsOpen())
    {
        return 1;
    }
    m_socket.Shutdown(winsock::ShutdownBoth);
    m_socket.Close();
    {
        CSingleLock guard(&m_peerLock, TRUE);
        m_strPeerName.Empty();
        m_strPeerAddress.Empty();
    }
    return CMsgConnection::Disconnect();
}

int CMsgTCPConnection::Listen()
{
    winsock::HostEnt const * const host = winsock::gethostbyname(GetServer());
    if (!host || !host->h_addr_list[0])
    {
        WSASetLastError(WSAEINVAL);
        SetLastError(WSAEINVAL);
        return 0;
    }
    winsock::InAddr address{};
    std::memcpy(&address, host->h_addr_list[0], sizeof(address));
    CStringA const dotted = winsock::inet_ntoa(address);
    return m_socket.Create(winsock::SocketStream) && m_socket.Bind(static_cast<UINT>(GetPort()), dotted) &&
           m_socket.Listen(LISTEN_BACKLOG);
}

int CMsgTCPConnection::Accept(CMsgConnection * target)
{
    auto * const connection = static_cast<CMsgTCPConnection *>(target);
    connection->Disconnect();
    connection->ResetBuffers();
    connection->m_bAnswered = true;
    while (!m_socket.Accept(connection->m_socket))
    {
        // Want of descriptors or memory passes, and so does a client that has gone before it was accepted: neither is a
        // reason to turn away everybody else for ever.
        DWORD const error = GetLastError();
        if (!m_socket.IsOpen() || !IsTransient(error))
        {
            SetLastError(error);
            return 0;
        }
        Sleep(ACCEPT_PAUSE);
    }
    return 1;
}

int CMsgTCPConnection::SendAll(void const * buffer, DWORD count, bool bMore)
{
    auto const * from = static_cast<BYTE const *>(buffer);
    m_bAnswered = true;
    while (count > 0)
    {
        int const sent = m_socket.Send(from, TransferSize(count), bMore ? winsock::SendMore : 0);
        if (sent <= 0)
        {
            if (sent == 0)
            {
                SetLastError(WSAEDISCON);
            }
            return 0;
        }
        from += sent;
        count -= static_cast<DWORD>(sent);
    }
    return 1;
}

DWORD CMsgTCPConnection::ReceiveSome(void * buffer, DWORD size)
{
    // An answer carries the acknowledgement of what it answers. Where none was sent, the system would hold the
    // acknowledgement back, and the peer its next small message until it comes.
    int const got = m_socket.Receive(buffer, TransferSize(size), m_bAnswered ? 0 : winsock::ReceiveAcknowledge);
    m_bAnswered = false;
    if (got == 0)
    {
        SetLastError(WSAEDISCON);
    }
    return got > 0 ? static_cast<DWORD>(got) : 0;
}

int CMsgTCPConnection::GetConnectionInfo(CValueAccessor & info)
{
    CSingleLock guard(&m_peerLock, TRUE);
    if (m_strPeerAddress.IsEmpty())
    {
        winsock::SockAddrIn peer{};
        int size = sizeof(peer);
        if (winsock::getpeername(m_socket.GetSocket(), reinterpret_cast<winsock::SockAddr *>(&peer), &size) != 0)
        {
            return 0;
        }
        m_strPeerAddress = winsock::inet_ntoa(peer.sin_addr);
        if (winsock::HostEnt const * const host = winsock::gethostbyaddr(
                reinterpret_cast<char const *>(&peer.sin_addr), sizeof(peer.sin_addr), winsock::AddressFamilyInet))
        {
            m_strPeerName = host->h_name;
        }
    }
    info.CreateValue(_T("type")) = _T("tcp");
    info.CreateValue(_T("connect_address")) = CUtilities::AnsiToString(m_strPeerAddress);
    info.CreateValue(_T("connect_name")) = CUtilities::AnsiToString(m_strPeerName);
    return 1;
}
