#pragma once

/// Named and anonymous pipes, of bytes, between the processes of one user.
///
/// A named pipe's path is `\\.\pipe\NAME` (or `\\MACHINE\pipe\NAME` with this machine's name), at most 256 characters
/// in all; case means nothing, and every character is allowed. Behind a name stands a stream socket in the private
/// folder of kvx/platform/win32/runtime_dir.h: docs/wire-protocol.md tells where. Up to MAX_PIPE_SERVERS processes may
/// have instances of one name, and a name that a killed process leaves behind is free.
///
/// ReadFile gives what has come, at least one byte; WriteFile writes all. Closing a handle or DisconnectNamedPipe, from
/// any thread, ends calls that are blocked on it: 995 or 233. A peer that has gone shows as 109 once all it wrote has
/// been read, and as 232 to a writer.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

inline constexpr DWORD PIPE_ACCESS_INBOUND = 0x00000001;
inline constexpr DWORD PIPE_ACCESS_OUTBOUND = 0x00000002;
inline constexpr DWORD PIPE_ACCESS_DUPLEX = 0x00000003;
inline constexpr DWORD PIPE_TYPE_BYTE = 0x00000000;
inline constexpr DWORD PIPE_READMODE_BYTE = 0x00000000;
inline constexpr DWORD PIPE_WAIT = 0x00000000;
inline constexpr DWORD PIPE_NOWAIT = 0x00000001;
inline constexpr DWORD PIPE_READMODE_MESSAGE = 0x00000002;
inline constexpr DWORD PIPE_TYPE_MESSAGE = 0x00000004;
inline constexpr DWORD PIPE_UNLIMITED_INSTANCES = 255;
inline constexpr DWORD NMPWAIT_WAIT_FOREVER = 0xFFFFFFFF;
inline constexpr DWORD NMPWAIT_USE_DEFAULT_WAIT = 0x00000000;

/// Makes an instance of a named pipe, which a client can open from now on. dwOpenMode: one of PIPE_ACCESS_..., with
/// FILE_FLAG_OVERLAPPED for ConnectNamedPipe not to block. dwPipeMode 0; messages and PIPE_NOWAIT are refused (50).
/// Instances in one process share the limit that the first one set (1 to 255, 255 being none): 231 beyond it. Sizes,
/// the default time-out and the security attributes are ignored: only the user has access. INVALID_HANDLE_VALUE with
/// ERROR_INVALID_NAME (no local pipe's path), ERROR_FILENAME_EXCED_RANGE, ERROR_PIPE_BUSY (also with MAX_PIPE_SERVERS
/// other processes on the name), ERROR_ACCESS_DENIED (an open mode other than the first one's, or a folder that isn't
/// private), ERROR_INVALID_PARAMETER or the system's reason.
KVX_API HANDLE CreateNamedPipeW(LPCWSTR pszName, DWORD dwOpenMode, DWORD dwPipeMode, DWORD nMaxInstances,
                                DWORD nOutBufferSize, DWORD nInBufferSize, DWORD nDefaultTimeOut,
                                LPSECURITY_ATTRIBUTES pSecurity);

/// Waits for a client. FALSE with ERROR_PIPE_CONNECTED when there is one already, or one that came before the call; an
/// overlapped instance gives FALSE with ERROR_IO_PENDING, and GetOverlappedResult takes in the client: the event alone,
/// with nobody in that call, is never set. An instance that was disconnected can be connected anew. ERROR_BAD_PIPE for
/// a handle that is no instance.
KVX_API BOOL ConnectNamedPipe(HANDLE hPipe, LPOVERLAPPED pOverlapped);

/// Ends the client's connection, or the waiting for one. What was written stays readable for the client.
/// ERROR_INVALID_FUNCTION on a client's handle.
KVX_API BOOL DisconnectNamedPipe(HANDLE hPipe);

/// Waits up to so many milliseconds (NMPWAIT_USE_DEFAULT_WAIT: 50) until an instance of the pipe is free. FALSE with
/// ERROR_SEM_TIMEOUT, or at once with ERROR_FILE_NOT_FOUND when no living process has instances; ERROR_BAD_NETPATH for
/// another machine's pipe.
KVX_API BOOL WaitNamedPipeW(LPCWSTR pszName, DWORD nTimeOut);

/// Tells what could be read, and copies up to nSize bytes of it when there is a buffer. FALSE with ERROR_BROKEN_PIPE
/// when the peer has gone and nothing is left, ERROR_BAD_PIPE or ERROR_PIPE_NOT_CONNECTED without a client. Of an
/// anonymous pipe only the number is told: a buffer is refused (50).
KVX_API BOOL PeekNamedPipe(HANDLE hPipe, LPVOID pBuffer, DWORD nSize, LPDWORD pnRead, LPDWORD pnAvailable,
                           LPDWORD pnLeftInMessage);

/// The two ends of an anonymous pipe, which another process of the user can duplicate by these handles' values. nSize
/// is a wish in bytes, 0 for the default. Handles aren't inherited.
KVX_API BOOL CreatePipe(HANDLE * phRead, HANDLE * phWrite, LPSECURITY_ATTRIBUTES pSecurity, DWORD nSize);

/// The result of an overlapped call on the handle. Of these only ConnectNamedPipe is ever pending: others block and are
/// done when they return. Without bWait a pending one gives ERROR_IO_INCOMPLETE.
KVX_API BOOL GetOverlappedResult(HANDLE hFile, LPOVERLAPPED pOverlapped, LPDWORD pnTransferred, BOOL bWait);

namespace kvx::win32
{

/// The processes that can have instances of one name at a time.
inline constexpr int MAX_PIPE_SERVERS = 8;

/// Whether a path is that of a named pipe, on any machine.
bool IsPipePath(LPCWSTR pszPath) noexcept;

/// The client's end, for CreateFileW: null with last error ERROR_PIPE_BUSY when no instance is free, else as
/// WaitNamedPipeW.
HANDLE OpenNamedPipe(LPCWSTR pszPath, DWORD dwAccess, DWORD dwDisposition);

class KernelObject;
template <class T>
class Ref;

/// Opens the end of an anonymous pipe that has this handle in another process. Null with ERROR_INVALID_HANDLE if it has
/// none there, ERROR_ACCESS_DENIED for somebody else's process.
Ref<KernelObject> OpenForeignPipe(int nProcess, HANDLE hForeign);

} // namespace kvx::win32
