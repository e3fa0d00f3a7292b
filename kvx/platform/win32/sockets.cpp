#include "kvx/platform/win32/sockets.h"

#include "kvx/platform/BlockedCalls.h"
#include "kvx/platform/SocketPeer.h"
#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/low_descriptors.h"
#include "kvx/platform/win32/retry.h"
#include "kvx/platform/win32/unique_fd.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

using namespace kvx::win32;

static_assert(std::endian::native == std::endian::little, "htonl and kin swap bytes");
static_assert(sizeof(winsock::SockAddrIn) == sizeof(sockaddr_in) &&
              offsetof(winsock::SockAddrIn, sin_port) == offsetof(sockaddr_in, sin_port) &&
              offsetof(winsock::SockAddrIn, sin_addr) == offsetof(sockaddr_in, sin_addr) &&
              winsock::AddressFamilyInet == AF_INET && winsock::SocketStream == SOCK_STREAM &&
              winsock::SocketDatagram == SOCK_DGRAM && winsock::ShutdownReceive == SHUT_RD &&
              winsock::ShutdownSend == SHUT_WR && winsock::ShutdownBoth == SHUT_RDWR &&
              winsock::ReceivePeek == MSG_PEEK);

namespace
{

class Socket final : public KernelObject
{
public:
    static constexpr Kind KIND = Kind::Socket;

    Socket(UniqueFd socket, int nType) noexcept : KernelObject(KIND), m_socket(std::move(socket)), m_nType(nType) {}

    int Get() const { return m_socket.Get(); }
    bool IsStream() const { return m_nType == SOCK_STREAM; }
    bool IsClosed() const { return m_bClosed.load(std::memory_order_seq_cst); }

    /// The flag comes first: whoever is woken by the shutdown, or begins to wait after it, sees it.
    void OnHandleClosed() noexcept override
    {
        m_bClosed.store(true, std::memory_order_seq_cst);
        ::shutdown(m_socket.Get(), SHUT_RDWR);
    }

private:
    UniqueFd const m_socket;
    int const m_nType;
    std::atomic<bool> m_bClosed{false};
};

Ref<Socket> FindSocket(SOCKET hSocket)
{
    Ref<Socket> socket = FindObject<Socket>(reinterpret_cast<HANDLE>(hSocket));
    if (!socket) [[unlikely]]
    {
        SetLastError(WSAENOTSOCK);
    }
    return socket;
}

int Fail(DWORD dwError)
{
    SetLastError(dwError);
    return SOCKET_ERROR;
}

/// The end of a call that has failed with errno, on a socket that may have been closed under it.
int FailFromErrno(Socket const & socket)
{
    return Fail(socket.IsClosed() ? WSAEINTR : WsaErrorFromErrno(errno));
}

sockaddr const * ToHostAddress(winsock::SockAddr const * pAddress)
{
    return reinterpret_cast<sockaddr const *>(pAddress);
}

bool IsAddress(winsock::SockAddr const * pAddress, int nLength)
{
    if (!pAddress || nLength < static_cast<int>(sizeof(winsock::SockAddrIn)))
    {
        SetLastError(WSAEFAULT);
        return false;
    }
    if (pAddress->sa_family != AF_INET)
    {
        SetLastError(WSAEAFNOSUPPORT);
        return false;
    }
    return true;
}

bool HasRoom(winsock::SockAddr const * pAddress, int const * pnLength)
{
    if (pAddress && pnLength && *pnLength >= static_cast<int>(sizeof(winsock::SockAddrIn)))
    {
        return true;
    }
    SetLastError(WSAEFAULT);
    return false;
}

void CopyAddress(sockaddr_in const & address, winsock::SockAddr * pAddress, int * pnLength)
{
    std::memcpy(pAddress, &address, sizeof address);
    *pnLength = sizeof address;
}

/// getpeername and getsockname, which differ in the call only.
int NameOf(SOCKET hSocket, winsock::SockAddr * pAddress, int * pnLength, int (*pCall)(int, sockaddr *, socklen_t *))
{
    Ref<Socket> const socket = FindSocket(hSocket);
    if (!socket || !HasRoom(pAddress, pnLength))
    {
        return SOCKET_ERROR;
    }
    sockaddr_in address{};
    socklen_t nLength = sizeof address;
    if (pCall(socket->Get(), reinterpret_cast<sockaddr *>(&address), &nLength) != 0)
    {
        return FailFromErrno(*socket);
    }
    CopyAddress(address, pAddress, pnLength);
    return 0;
}

DWORD ErrorOfResolver(int nError)
{
    switch (nError)
    {
    case EAI_AGAIN:
        return WSATRY_AGAIN;
    case EAI_MEMORY:
        return WSAENOBUFS;
    case EAI_SYSTEM:
        return WsaErrorFromErrno(errno);
    case EAI_NONAME:
        return WSAHOST_NOT_FOUND;
    case EAI_NODATA:
    case EAI_ADDRFAMILY:
        return WSANO_DATA;
    default:
        return WSANO_RECOVERY;
    }
}

/// The answer of gethostbyname and gethostbyaddr that a thread holds.
class HostAnswer
{
public:
    static constexpr std::size_t MAX_ADDRESSES = 64;

    void Begin(char const * pszName)
    {
        m_strName = pszName;
        m_nAddresses = 0;
    }

    void Add(in_addr address)
    {
        if (m_nAddresses < MAX_ADDRESSES)
        {
            m_addresses[m_nAddresses++] = address;
        }
    }

    winsock::HostEnt * Finish()
    {
        for (std::size_t i = 0; i < m_nAddresses; ++i)
        {
            m_list[i] = reinterpret_cast<char *>(&m_addresses[i]);
        }
        m_list[m_nAddresses] = nullptr;
        m_entry = {m_strName.data(), &m_pNoAlias, AF_INET, sizeof(in_addr), m_list.data()};
        return &m_entry;
    }

private:
    std::string m_strName;
    std::array<in_addr, MAX_ADDRESSES> m_addresses;
    std::size_t m_nAddresses = 0;
    std::array<char *, MAX_ADDRESSES + 1> m_list;
    char * m_pNoAlias = nullptr;
    winsock::HostEnt m_entry;
};

thread_local std::unique_ptr<HostAnswer> t_hostAnswer;

HostAnswer & GetHostAnswer()
{
    if (!t_hostAnswer)
    {
        t_hostAnswer = std::make_unique<HostAnswer>();
    }
    return *t_hostAnswer;
}

/// The sockets of the three sets of one select, each entry of a set on its own.
class Selection
{
public:
    enum Set
    {
        Read,
        Write,
        Except,
        SetCount
    };

    /// False with last error for a set too long, or a member that is no socket.
    bool Add(Set set, winsock::FdSet const * pSockets)
    {
        constexpr short EVENTS[SetCount] = {POLLIN, POLLOUT, POLLPRI};
        if (!pSockets)
        {
            return true;
        }
        if (pSockets->fd_count > std::size(pSockets->fd_array))
        {
            SetLastError(WSAEINVAL);
            return false;
        }
        for (UINT i = 0; i < pSockets->fd_count; ++i)
        {
            m_sockets[m_nCount] = FindSocket(pSockets->fd_array[i]);
            if (!m_sockets[m_nCount])
            {
                return false;
            }
            m_polled[m_nCount] = {m_sockets[m_nCount]->Get(), EVENTS[set], 0};
            m_sets[m_nCount] = set;
            m_numbers[m_nCount++] = pSockets->fd_array[i];
        }
        return true;
    }

    std::size_t Count() const { return m_nCount; }

    bool IsAnyClosed() const
    {
        return std::any_of(m_sockets.begin(), m_sockets.begin() + m_nCount,
                           [](Ref<Socket> const & socket) { return socket->IsClosed(); });
    }

    /// As ppoll; a time below 0 waits without end.
    int Poll(LONGLONG nNanoseconds)
    {
        timespec const time = {nNanoseconds / 1000000000, nNanoseconds % 1000000000};
        return ppoll(m_polled.data(), m_nCount, nNanoseconds < 0 ? nullptr : &time, nullptr);
    }

    bool IsReady(std::size_t n) const
    {
        constexpr short READY[SetCount] = {POLLIN | POLLHUP | POLLERR, POLLOUT | POLLERR, POLLPRI};
        return m_polled[n].revents & READY[m_sets[n]];
    }

    bool IsAnyReady() const
    {
        for (std::size_t n = 0; n < m_nCount; ++n)
        {
            if (IsReady(n))
            {
                return true;
            }
        }
        return false;
    }

    /// A hang-up is told unasked, again and again. Returns whether an entry was left out from now on.
    bool IgnoreHangUps()
    {
        for (std::size_t n = 0; n < m_nCount; ++n)
        {
            if (m_polled[n].revents)
            {
                m_polled[n].fd = -1;
                m_bIgnoring = true;
            }
        }
        return m_bIgnoring;
    }

    /// Leaves the ready ones in the sets and returns their number.
    int Answer(winsock::FdSet * const (&sets)[SetCount]) const
    {
        for (winsock::FdSet * const pSet : sets)
        {
            if (pSet)
            {
                winsock::FdZero(*pSet);
            }
        }
        int nReady = 0;
        for (std::size_t n = 0; n < m_nCount; ++n)
        {
            if (IsReady(n))
            {
                winsock::FdSet & set = *sets[m_sets[n]];
                set.fd_array[set.fd_count++] = m_numbers[n];
                ++nReady;
            }
        }
        return nReady;
    }

private:
    static constexpr std::size_t MAX = SetCount * 64;

    std::size_t m_nCount = 0;
    bool m_bIgnoring = false;
    std::array<Ref<Socket>, MAX> m_sockets;
    std::array<pollfd, MAX> m_polled;
    std::array<Set, MAX> m_sets;
    std::array<SOCKET, MAX> m_numbers;
};

/// Finishes a connect that was begun without blocking. Returns 0 or an errno value; EINTR when the socket was closed.
int AwaitConnection(Socket const & socket)
{
    // A close before this look has set the flag; one after it finds the connection begun, and its shutdown
    // ends the wait.
    pollfd polled = {socket.Get(), POLLOUT, 0};
    if (socket.IsClosed() || Retry([&] { return poll(&polled, 1, -1); }) < 0 || socket.IsClosed())
    {
        return EINTR;
    }
    int nError = 0;
    socklen_t nLength = sizeof nError;
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &nError, &nLength) != 0)
    {
        return errno;
    }
    return nError;
}

} // namespace

int WSAStartup(WORD wVersion, LPWSADATA pData)
{
    if (!pData)
    {
        return WSAEFAULT;
    }
    *pData = {};
    pData->wVersion = wVersion;
    pData->wHighVersion = 0x0202;
    return 0;
}

int WSACleanup()
{
    return 0;
}

int WSAGetLastError()
{
    return static_cast<int>(GetLastError());
}

void WSASetLastError(int nError)
{
    SetLastError(static_cast<DWORD>(nError));
}

namespace winsock
{

SOCKET socket(int nFamily, int nType, int nProtocol)
try
{
    if (nFamily != AddressFamilyInet || (nType != SocketStream && nType != SocketDatagram))
    {
        SetLastError(nFamily != AddressFamilyInet ? WSAEAFNOSUPPORT : WSAESOCKTNOSUPPORT);
        return INVALID_SOCKET;
    }
    UniqueFd opened(::socket(AF_INET, nType | SOCK_CLOEXEC, nProtocol));
    if (!opened)
    {
        SetLastError(WsaErrorFromErrno(errno));
        return INVALID_SOCKET;
    }
    HANDLE const handle = OpenHandle(Ref<Socket>(new Socket(std::move(opened), nType)));
    return handle ? reinterpret_cast<SOCKET>(handle) : INVALID_SOCKET;
}
catch (std::bad_alloc const &)
{
    return WithoutMemory<SOCKET>(INVALID_SOCKET);
}

int bind(SOCKET hSocket, SockAddr const * pAddress, int nLength)
{
    Ref<Socket> const socket = FindSocket(hSocket);
    if (!socket || !IsAddress(pAddress, nLength))
    {
        return SOCKET_ERROR;
    }
    int const nOn = 1;
    // On a datagram socket the option would let another program take the address.
    if (socket->IsStream() && setsockopt(socket->Get(), SOL_SOCKET, SO_REUSEADDR, &nOn, sizeof nOn) != 0)
    {
        return FailFromErrno(*socket);
    }
    if (::bind(socket->Get(), ToHostAddress(pAddress), sizeof(sockaddr_in)) != 0)
    {
        return FailFromErrno(*socket);
    }
    return 0;
}

int listen(SOCKET hSocket, int nBacklog)
{
    Ref<Socket> const socket = FindSocket(hSocket);
    if (!socket)
    {
        return SOCKET_ERROR;
    }
    // A full queue makes this system drop the next client's first packet, which that client notices a second later; the
    // original turns clients away at once, and they come again. So small queues are made as long as a burst of clients.
    constexpr int SHORTEST_QUEUE = 128;
    return ::listen(socket->Get(), std::max(nBacklog, SHORTEST_QUEUE)) == 0 ? 0 : FailFromErrno(*socket);
}

SOCKET accept(SOCKET hSocket, SockAddr * pAddress, int * pnLength)
try
{
    Ref<Socket> const socket = FindSocket(hSocket);
    if (!socket || (pAddress && !HasRoom(pAddress, pnLength)))
    {
        return INVALID_SOCKET;
    }
    sockaddr_in address{};
    UniqueFd client;
    do
    {
        socklen_t nLength = sizeof address;
        client = UniqueFd(accept4(socket->Get(), reinterpret_cast<sockaddr *>(&address), &nLength, SOCK_CLOEXEC));
    } while (!client && !socket->IsClosed() && (errno == EINTR || errno == ECONNABORTED || errno == EPROTO));
    if (!client)
    {
        FailFromErrno(*socket);
        return INVALID_SOCKET;
    }
    Ref<Socket> const accepted(new Socket(std::move(client), SOCK_STREAM));
    HANDLE const handle = OpenHandle(accepted);
    if (!handle)
    {
        return INVALID_SOCKET;
    }
    if (pAddress)
    {
        CopyAddress(address, pAddress, pnLength);
    }
    return reinterpret_cast<SOCKET>(handle);
}
catch (std::bad_alloc const &)
{
    return WithoutMemory<SOCKET>(INVALID_SOCKET);
}

int connect(SOCKET hSocket, SockAddr const * pAddress, int nLength)
{
    Ref<Socket> const socket = FindSocket(hSocket);
    if (!socket || !IsAddress(pAddress, nLength))
    {
        return SOCKET_ERROR;
    }
    if (!socket->IsStream())
    {
        return ::connect(socket->Get(), ToHostAddress(pAddress), sizeof(sockaddr_in)) == 0 ? 0 : FailFromErrno(*socket);
    }
    // A shutdown just before a blocking connect would be lost on it; so the connection is begun without blocking.
    int const nFlags = fcntl(socket->Get(), F_GETFL);
    if (nFlags < 0 || fcntl(socket->Get(), F_SETFL, nFlags | O_NONBLOCK) != 0)
    {
        return FailFromErrno(*socket);
    }
    int nError = ::connect(socket->Get(), ToHostAddress(pAddress), sizeof(sockaddr_in)) == 0 ? 0 : errno;
    // Broken off by a signal it goes on in the background all the same.
    if (nError == EINPROGRESS || nError == EINTR)
    {
        nError = AwaitConnection(*socket);
    }
    fcntl(socket->Get(), F_SETFL, nFlags);
    if (nError == 0 && !socket->IsClosed())
    {
        return 0;
    }
    return Fail(socket->IsClosed() ? WSAEINTR : WsaErrorFromErrno(nError));
}

int send(SOCKET hSocket, char const * pBuffer, int nLength, int nFlags)
{
    Ref<Socket> const socket = FindSocket(hSocket);
    if (!socket)
    {
        return SOCKET_ERROR;
    }
    if (nLength < 0 || (nFlags & ~SendMore) != 0)
    {
        return Fail(nLength < 0 ? WSAEINVAL : WSAEOPNOTSUPP);
    }
    int const nHostFlags = MSG_NOSIGNAL | (nFlags & SendMore ? MSG_MORE : 0);
    ssize_t const nSent =
        Retry([&] { return ::send(socket->Get(), pBuffer, static_cast<std::size_t>(nLength), nHostFlags); });
    return nSent >= 0 ? static_cast<int>(nSent) : FailFromErrno(*socket);
}

int recv(SOCKET hSocket, char * pBuffer, int nLength, int nFlags)
{
    Ref<Socket> const socket = FindSocket(hSocket);
    if (!socket)
    {
        return SOCKET_ERROR;
    }
    if (nLength < 0 || (nFlags & ~(ReceivePeek | ReceiveWaitAll | ReceiveAcknowledge)) != 0)
    {
        return Fail(nLength < 0 ? WSAEINVAL : WSAEOPNOTSUPP);
    }
    if (nFlags & ReceiveAcknowledge)
    {
        int const bAtOnce = 1;
        ::setsockopt(socket->Get(), IPPROTO_TCP, TCP_QUICKACK, &bAtOnce, sizeof bAtOnce);
    }
    int const nHostFlags = (nFlags & MSG_PEEK) | (nFlags & ReceiveWaitAll ? MSG_WAITALL : 0);
    ssize_t const nReceived =
        Retry([&] { return ::recv(socket->Get(), pBuffer, static_cast<std::size_t>(nLength), nHostFlags); });
    if (nReceived > 0)
    {
        return static_cast<int>(nReceived);
    }
    // A socket that was closed under the call reads as if the peer had closed.
    if (nReceived < 0 || socket->IsClosed())
    {
        return FailFromErrno(*socket);
    }
    return 0;
}

int shutdown(SOCKET hSocket, int nHow)
{
    Ref<Socket> const socket = FindSocket(hSocket);
    if (!socket)
    {
        return SOCKET_ERROR;
    }
    if (nHow < ShutdownReceive || nHow > ShutdownBoth)
    {
        return Fail(WSAEINVAL);
    }
    return ::shutdown(socket->Get(), nHow) == 0 ? 0 : FailFromErrno(*socket);
}

int closesocket(SOCKET hSocket)
{
    return CloseObject(reinterpret_cast<HANDLE>(hSocket), &IsOfKind<Socket>) ? 0 : Fail(WSAENOTSOCK);
}

int select(int, FdSet * pRead, FdSet * pWrite, FdSet * pExcept, TimeVal const * pTimeout)
{
    Selection selection;
    if (!selection.Add(Selection::Read, pRead) || !selection.Add(Selection::Write, pWrite) ||
        !selection.Add(Selection::Except, pExcept))
    {
        return SOCKET_ERROR;
    }
    if (selection.Count() == 0 || (pTimeout && (pTimeout->tv_sec < 0 || pTimeout->tv_usec < 0)))
    {
        return Fail(WSAEINVAL);
    }
    LONGLONG nLeft = pTimeout ? pTimeout->tv_sec * 1000000000LL + pTimeout->tv_usec * 1000LL : -1;
    Deadline const deadline = nLeft > 0 ? GetMonotonicTime() + nLeft : 0;
    // With sockets left out, their closing is looked for now and then.
    constexpr LONGLONG SLICE = 50000000;
    bool bSliced = false;
    for (;;)
    {
        int const nResult = selection.Poll(bSliced && (nLeft < 0 || nLeft > SLICE) ? SLICE : nLeft);
        if (nResult < 0 && errno != EINTR)
        {
            return Fail(WsaErrorFromErrno(errno));
        }
        if (selection.IsAnyClosed())
        {
            return Fail(WSAEINTR);
        }
        if (nResult > 0)
        {
            if (selection.IsAnyReady())
            {
                break;
            }
            bSliced = selection.IgnoreHangUps();
        }
        if (nLeft > 0)
        {
            nLeft = std::max<LONGLONG>(0, static_cast<LONGLONG>(deadline - GetMonotonicTime()));
        }
        if (nLeft == 0)
        {
            break;
        }
    }
    return selection.Answer({pRead, pWrite, pExcept});
}

int getpeername(SOCKET hSocket, SockAddr * pAddress, int * pnLength)
{
    return NameOf(hSocket, pAddress, pnLength,
                  [](int n, sockaddr * p, socklen_t * pn) { return ::getpeername(n, p, pn); });
}

int getsockname(SOCKET hSocket, SockAddr * pAddress, int * pnLength)
{
    return NameOf(hSocket, pAddress, pnLength,
                  [](int n, sockaddr * p, socklen_t * pn) { return ::getsockname(n, p, pn); });
}

HostEnt * gethostbyname(char const * pszName)
{
    char szOwn[256] = "";
    if (!pszName || !*pszName)
    {
        gethostname(szOwn, sizeof szOwn - 1);
        pszName = szOwn;
    }
    // No name in the network is longer.
    if (strnlen(pszName, 256) > 255)
    {
        SetLastError(WSAHOST_NOT_FOUND);
        return nullptr;
    }
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo * pFound = nullptr;
    LowDescriptorGuard const guard; // of the resolver's own sockets
    if (int const nError = getaddrinfo(pszName, nullptr, &hints, &pFound); nError != 0)
    {
        SetLastError(ErrorOfResolver(nError));
        return nullptr;
    }
    std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> const found(pFound, &freeaddrinfo);
    HostAnswer & answer = GetHostAnswer();
    std::string const strName = found->ai_canonname ? found->ai_canonname : pszName;
    answer.Begin(strName.c_str());
    for (addrinfo const * p = found.get(); p; p = p->ai_next)
    {
        if (p->ai_family == AF_INET)
        {
            sockaddr_in address;
            std::memcpy(&address, p->ai_addr, sizeof address);
            answer.Add(address.sin_addr);
        }
    }
    return answer.Finish();
}

HostEnt * gethostbyaddr(char const * pAddress, int nLength, int nFamily)
{
    if (!pAddress || nLength != sizeof(in_addr) || nFamily != AddressFamilyInet)
    {
        SetLastError(nFamily != AddressFamilyInet ? WSAEAFNOSUPPORT : WSAEFAULT);
        return nullptr;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::memcpy(&address.sin_addr, pAddress, sizeof address.sin_addr);
    char szName[NI_MAXHOST];
    LowDescriptorGuard const guard; // of the resolver's own sockets
    if (int const nError = getnameinfo(reinterpret_cast<sockaddr const *>(&address), sizeof address, szName,
                                       sizeof szName, nullptr, 0, NI_NAMEREQD);
        nError != 0)
    {
        SetLastError(ErrorOfResolver(nError));
        return nullptr;
    }
    HostAnswer & answer = GetHostAnswer();
    answer.Begin(szName);
    answer.Add(address.sin_addr);
    return answer.Finish();
}

ULONG inet_addr(char const * pszAddress)
{
    in_addr address;
    if (pszAddress && inet_aton(pszAddress, &address))
    {
        return address.s_addr;
    }
    return AddressNone;
}

char * inet_ntoa(InAddr address)
{
    static thread_local char szText[INET_ADDRSTRLEN];
    in_addr const host = {address.s_addr};
    ::inet_ntop(AF_INET, &host, szText, sizeof szText);
    return szText;
}

} // namespace winsock

void kvx::EndSocketCalls(SOCKET hSocket)
{
    if (auto const socket = FindSocket(hSocket))
    {
        socket->OnHandleClosed();
    }
}

bool kvx::HasPeerEnded(SOCKET hSocket)
{
    Ref<Socket> const socket = FindSocket(hSocket);
    if (!socket)
    {
        return false;
    }
    pollfd state{socket->Get(), POLLRDHUP, 0};
    return Retry([&] { return ::poll(&state, 1, 0); }) == 1 && (state.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}
