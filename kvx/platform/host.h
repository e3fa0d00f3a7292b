#pragma once

/// The one place that chooses the host: on Windows the real API, elsewhere the subset in
/// kvx/platform/win32. Everything above includes this header (mostly through kvx/platform/mfc) and
/// sees the same names on both.
///
/// Socket calls carry the names of the C library's own, with other types. They stand in the
/// namespace `winsock` on both hosts, so that no program is ever in doubt which one it calls.

#include "kvx/platform/export.h"

#if defined(_WIN32)

#include <winsock2.h>
#include <ws2tcpip.h>

#include <windows.h>

#include <objbase.h>
#include <rpc.h>
#include <sddl.h>
#include <shlwapi.h>
#include <wininet.h>

// <windows.h> spells these as macros; the library has members of those names.
#undef GetCurrentTime
#undef CreateEvent
#undef CreateMutex
#undef GetObject
#undef FindResource
#undef GetMessage
#undef near
#undef far

#ifndef _T
#define KVX_WIDE_(text) L##text
#define _T(text) KVX_WIDE_(text)
#endif

using TCHAR = WCHAR;
using LPCTSTR = WCHAR const *;
using LPTSTR = WCHAR *;

namespace winsock
{
using ::accept;
using ::bind;
using ::closesocket;
using ::connect;
using ::gethostbyaddr;
using ::gethostbyname;
using ::getpeername;
using ::getsockname;
using ::htonl;
using ::htons;
using ::inet_addr;
using ::inet_ntoa;
using ::listen;
using ::ntohl;
using ::ntohs;
using ::recv;
using ::select;
using ::send;
using ::shutdown;
using ::socket;
using SockAddr = ::sockaddr;
using SockAddrIn = ::sockaddr_in;
using InAddr = ::in_addr;
using TimeVal = ::timeval;
using HostEnt = ::hostent;
using FdSet = ::fd_set;

inline constexpr int AddressFamilyInet = AF_INET;
inline constexpr int SocketStream = SOCK_STREAM;
inline constexpr int SocketDatagram = SOCK_DGRAM;
inline constexpr int ShutdownReceive = SD_RECEIVE;
inline constexpr int ShutdownSend = SD_SEND;
inline constexpr int ShutdownBoth = SD_BOTH;
inline constexpr int ListenBacklogMax = SOMAXCONN;
inline constexpr int ReceivePeek = MSG_PEEK;
inline constexpr int ReceiveWaitAll = MSG_WAITALL;
inline constexpr int ReceiveAcknowledge = 0; // this host has neither of these flags
inline constexpr int SendMore = 0;
inline constexpr ULONG AddressAny = INADDR_ANY;
inline constexpr ULONG AddressLoopback = INADDR_LOOPBACK;
inline constexpr ULONG AddressNone = INADDR_NONE;

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

inline void FdAdd(SOCKET hSocket, FdSet & set)
{
    if (set.fd_count < FD_SETSIZE && !FdHas(hSocket, set))
    {
        set.fd_array[set.fd_count++] = hSocket;
    }
}
} // namespace winsock

#else

#include "kvx/platform/win32/win32.h"

#endif
