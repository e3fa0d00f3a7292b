#pragma once

/// Sockets. The calls and types that share their names with the C library's stand in the namespace winsock, the
/// constants too, since the C library's are macros. A program may include <sys/socket.h> beside this header.
///
/// A SOCKET is a number of the handle table. closesocket from another thread ends a call that is blocked on the
/// socket: it fails with WSAEINTR. The descriptor behind is closed when the last call has let go of it.
/// Failures give SOCKET_ERROR, INVALID_SOCKET or null, and a WSA code as the thread's last error
/// (WSAENOTSOCK for a number that is no socket). No call raises a signal or is ended by one.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

using SOCKET = UINT_PTR;
inline constexpr SOCKET INVALID_SOCKET = ~SOCKET{0};
inline constexpr int SOCKET_ERROR = -1;

struct WSADATA
{
    WORD wVersion;
    WORD wHighVersion;
    unsigned short iMaxSockets;
    unsigned short iMaxUdpDg;
    char * lpVendorInfo;
    char szDescription[257];
    char szSystemStatus[129];
};
using LPWSADATA = WSADATA *;

/// Always succeeds; the subset needs no start.
KVX_API int WSAStartup(WORD wVersion, LPWSADATA pData);
KVX_API int WSACleanup();
/// The thread's last error under its other name.
KVX_API int WSAGetLastError();
KVX_API void WSASetLastError(int nError);

namespace winsock
{

inline constexpr int AddressFamilyInet = 2;
inline constexpr int SocketStream = 1;
inline constexpr int SocketDatagram = 2;
inline constexpr int ShutdownReceive = 0;
inline constexpr int ShutdownSend = 1;
inline constexpr int ShutdownBoth = 2;
inline constexpr int ListenBacklogMax = 0x7FFFFFFF;
inline constexpr int ReceivePeek = 2;
inline constexpr int ReceiveWaitAll = 8;
inline constexpr int ReceiveAcknowledge = 0x20000; ///< what has come before is acknowledged at once
inline constexpr int SendMore = 0x10000;           ///< more follows at once: an incomplete segment waits for it
inline constexpr ULONG AddressAny = 0;
inline constexpr ULONG AddressLoopback = 0x7F000001;
inline constexpr ULONG AddressNone = 0xFFFFFFFF;

/// An IPv4 address in network order.
struct InAddr
{
    ULONG s_addr;
};

struct SockAddr
{
    USHORT sa_family;
    char sa_data[14];
};

struct SockAddrIn
{
    SHORT sin_family;
    USHORT sin_port; ///< in network order
    InAddr sin_addr;
    char sin_zero[8];
};

struct HostEnt
{
    char * h_name;
    char ** h_aliases;
    SHORT h_addrtype;
    SHORT h_length;
    char ** h_addr_list;
};

struct TimeVal
{
    LONG tv_sec;
    LONG tv_usec;
};

struct FdSet
{
    UINT fd_count;
    SOCKET fd_array[64];
};

/// A set without a socket.
inline void FdZero(FdSet & set)
{
    set.fd_count = 0;
}

inline bool FdHas(SOCKET hSocket, FdSet const & set)
{
    for (UINT i = 0; i < set.fd_count; ++i)
    {
        if (set.fd_array[i] == hSocket)
        {
            return true;
        }
    }
    return false;
}

/// Adds the socket unless it is there already, or the set is full.
inline void FdAdd(SOCKET hSocket, FdSet & set)
{
    if (set.fd_count < 64 && !FdHas(hSocket, set))
    {
        set.fd_array[set.fd_count++] = hSocket;
    }
}

/// A blocking socket of AddressFamilyInet, of the type SocketStream or SocketDatagram. Not inherited by
/// child processes.
KVX_API SOCKET socket(int nFamily, int nType, int nProtocol);

/// A stream address can be bound although old connections linger on it; one with a living listener can't.
KVX_API int bind(SOCKET hSocket, SockAddr const * pAddress, int nLength);

/// WSAEADDRINUSE when another socket has begun to listen on the address since it was bound. The length of the queue is
/// a hint: a short one is made longer.
KVX_API int listen(SOCKET hSocket, int nBacklog);

/// Both pointers may be null. Connections that died in the queue are passed over.
KVX_API SOCKET accept(SOCKET hSocket, SockAddr * pAddress, int * pnLength);

/// Blocks as long as the host tries.
KVX_API int connect(SOCKET hSocket, SockAddr const * pAddress, int nLength);

/// Returns the bytes sent: all, unless the connection broke in the middle. The only flag is SendMore.
KVX_API int send(SOCKET hSocket, char const * pBuffer, int nLength, int nFlags);

/// Returns the bytes received, 0 when the peer has closed. Flags: ReceivePeek, ReceiveWaitAll, ReceiveAcknowledge.
KVX_API int recv(SOCKET hSocket, char * pBuffer, int nLength, int nFlags);

KVX_API int shutdown(SOCKET hSocket, int nHow);
KVX_API int closesocket(SOCKET hSocket);

/// Waits until a socket is ready in one of the sets, which may be null, but not all empty (WSAEINVAL). The first
/// parameter is ignored. The sets are left with the ready sockets, whose number is returned: 0 when the time
/// is over (null waits without end). The exception set is for urgent data.
KVX_API int select(int nIgnored, FdSet * pRead, FdSet * pWrite, FdSet * pExcept, TimeVal const * pTimeout);

KVX_API int getpeername(SOCKET hSocket, SockAddr * pAddress, int * pnLength);
KVX_API int getsockname(SOCKET hSocket, SockAddr * pAddress, int * pnLength);

/// IPv4 addresses of a host name, a dotted address, or (empty or null) this machine; null with
/// WSAHOST_NOT_FOUND, WSATRY_AGAIN, WSANO_RECOVERY or WSANO_DATA. The result belongs to the thread and holds until
/// its next call of this function or gethostbyaddr.
KVX_API HostEnt * gethostbyname(char const * pszName);
KVX_API HostEnt * gethostbyaddr(char const * pAddress, int nLength, int nFamily);

/// AddressNone for what is no address.
KVX_API ULONG inet_addr(char const * pszAddress);
/// The text belongs to the thread and holds until its next call.
KVX_API char * inet_ntoa(InAddr address);

// In parentheses, as <netinet/in.h> makes macros of these names in optimised builds. A file that includes it
// calls them so too: (winsock::htons)(nPort).
constexpr ULONG(htonl)(ULONG n)
{
    return __builtin_bswap32(n);
}

constexpr USHORT(htons)(USHORT n)
{
    return __builtin_bswap16(n);
}

constexpr ULONG(ntohl)(ULONG n)
{
    return __builtin_bswap32(n);
}

constexpr USHORT(ntohs)(USHORT n)
{
    return __builtin_bswap16(n);
}

} // namespace winsock
