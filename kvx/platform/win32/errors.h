#pragma once

/// Error codes, the last error of a thread, and the texts of codes.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

// Signed, as literals are: they compare with DWORD and int without a cast.
inline constexpr LONG NO_ERROR = 0;
inline constexpr LONG ERROR_SUCCESS = 0;
inline constexpr LONG ERROR_INVALID_FUNCTION = 1;
inline constexpr LONG ERROR_FILE_NOT_FOUND = 2;
inline constexpr LONG ERROR_PATH_NOT_FOUND = 3;
inline constexpr LONG ERROR_TOO_MANY_OPEN_FILES = 4;
inline constexpr LONG ERROR_ACCESS_DENIED = 5;
inline constexpr LONG ERROR_INVALID_HANDLE = 6;
inline constexpr LONG ERROR_NOT_ENOUGH_MEMORY = 8;
inline constexpr LONG ERROR_BAD_ENVIRONMENT = 10;
inline constexpr LONG ERROR_BAD_FORMAT = 11;
inline constexpr LONG ERROR_INVALID_ACCESS = 12;
inline constexpr LONG ERROR_INVALID_DATA = 13;
inline constexpr LONG ERROR_OUTOFMEMORY = 14;
inline constexpr LONG ERROR_INVALID_DRIVE = 15;
inline constexpr LONG ERROR_CURRENT_DIRECTORY = 16;
inline constexpr LONG ERROR_NOT_SAME_DEVICE = 17;
inline constexpr LONG ERROR_NO_MORE_FILES = 18;
inline constexpr LONG ERROR_WRITE_PROTECT = 19;
inline constexpr LONG ERROR_NOT_READY = 21;
inline constexpr LONG ERROR_BAD_COMMAND = 22;
inline constexpr LONG ERROR_SEEK = 25;
inline constexpr LONG ERROR_WRITE_FAULT = 29;
inline constexpr LONG ERROR_READ_FAULT = 30;
inline constexpr LONG ERROR_GEN_FAILURE = 31;
inline constexpr LONG ERROR_SHARING_VIOLATION = 32;
inline constexpr LONG ERROR_LOCK_VIOLATION = 33;
inline constexpr LONG ERROR_HANDLE_EOF = 38;
inline constexpr LONG ERROR_HANDLE_DISK_FULL = 39;
inline constexpr LONG ERROR_NOT_SUPPORTED = 50;
inline constexpr LONG ERROR_BAD_NETPATH = 53;
inline constexpr LONG ERROR_FILE_EXISTS = 80;
inline constexpr LONG ERROR_CANNOT_MAKE = 82;
inline constexpr LONG ERROR_INVALID_PARAMETER = 87;
inline constexpr LONG ERROR_NO_PROC_SLOTS = 89;
inline constexpr LONG ERROR_BROKEN_PIPE = 109;
inline constexpr LONG ERROR_OPEN_FAILED = 110;
inline constexpr LONG ERROR_BUFFER_OVERFLOW = 111;
inline constexpr LONG ERROR_DISK_FULL = 112;
inline constexpr LONG ERROR_CALL_NOT_IMPLEMENTED = 120;
inline constexpr LONG ERROR_SEM_TIMEOUT = 121;
inline constexpr LONG ERROR_INSUFFICIENT_BUFFER = 122;
inline constexpr LONG ERROR_INVALID_NAME = 123;
inline constexpr LONG ERROR_MOD_NOT_FOUND = 126;
inline constexpr LONG ERROR_PROC_NOT_FOUND = 127;
inline constexpr LONG ERROR_NEGATIVE_SEEK = 131;
inline constexpr LONG ERROR_DIR_NOT_EMPTY = 145;
inline constexpr LONG ERROR_BAD_PATHNAME = 161;
inline constexpr LONG ERROR_BUSY = 170;
inline constexpr LONG ERROR_ALREADY_EXISTS = 183;
inline constexpr LONG ERROR_BAD_EXE_FORMAT = 193;
inline constexpr LONG ERROR_ENVVAR_NOT_FOUND = 203;
inline constexpr LONG ERROR_FILENAME_EXCED_RANGE = 206;
inline constexpr LONG ERROR_FILE_TOO_LARGE = 223;
inline constexpr LONG ERROR_BAD_PIPE = 230;
inline constexpr LONG ERROR_PIPE_BUSY = 231;
inline constexpr LONG ERROR_NO_DATA = 232;
inline constexpr LONG ERROR_PIPE_NOT_CONNECTED = 233;
inline constexpr LONG ERROR_MORE_DATA = 234;
inline constexpr LONG ERROR_NO_MORE_ITEMS = 259;
inline constexpr LONG ERROR_DIRECTORY = 267;
inline constexpr LONG ERROR_NOT_OWNER = 288;
inline constexpr LONG ERROR_TOO_MANY_POSTS = 298;
inline constexpr LONG ERROR_MR_MID_NOT_FOUND = 317;
inline constexpr LONG ERROR_INVALID_ADDRESS = 487;
inline constexpr LONG ERROR_PIPE_CONNECTED = 535;
inline constexpr LONG ERROR_PIPE_LISTENING = 536;
inline constexpr LONG ERROR_OPERATION_ABORTED = 995;
inline constexpr LONG ERROR_IO_INCOMPLETE = 996;
inline constexpr LONG ERROR_IO_PENDING = 997;
inline constexpr LONG ERROR_NOACCESS = 998;
inline constexpr LONG ERROR_INVALID_FLAGS = 1004;
inline constexpr LONG ERROR_BADDB = 1009;
inline constexpr LONG ERROR_REGISTRY_IO_FAILED = 1016;
inline constexpr LONG ERROR_KEY_DELETED = 1018;
inline constexpr LONG ERROR_NO_UNICODE_TRANSLATION = 1113;
inline constexpr LONG ERROR_IO_DEVICE = 1117;
inline constexpr LONG ERROR_TOO_MANY_LINKS = 1142;
inline constexpr LONG ERROR_NOT_FOUND = 1168;
inline constexpr LONG ERROR_CANCELLED = 1223;
inline constexpr LONG ERROR_CONNECTION_REFUSED = 1225;
inline constexpr LONG ERROR_NETWORK_UNREACHABLE = 1231;
inline constexpr LONG ERROR_CONNECTION_ABORTED = 1236;
inline constexpr LONG ERROR_INCORRECT_ADDRESS = 1241;
inline constexpr LONG ERROR_SERVICE_NOT_FOUND = 1243;
inline constexpr LONG ERROR_PRIVILEGE_NOT_HELD = 1314;
inline constexpr LONG ERROR_DISK_QUOTA_EXCEEDED = 1295;
inline constexpr LONG ERROR_INTERNAL_ERROR = 1359;
inline constexpr LONG ERROR_INVALID_WINDOW_HANDLE = 1400;
inline constexpr LONG ERROR_CANNOT_FIND_WND_CLASS = 1407;
inline constexpr LONG ERROR_CLASS_ALREADY_EXISTS = 1410;
inline constexpr LONG ERROR_CLASS_DOES_NOT_EXIST = 1411;
inline constexpr LONG ERROR_INVALID_THREAD_ID = 1444;
inline constexpr LONG ERROR_NO_SYSTEM_RESOURCES = 1450;
inline constexpr LONG ERROR_TIMEOUT = 1460;
inline constexpr LONG ERROR_RESOURCE_DATA_NOT_FOUND = 1812;
inline constexpr LONG ERROR_RESOURCE_TYPE_NOT_FOUND = 1813;
inline constexpr LONG ERROR_RESOURCE_NAME_NOT_FOUND = 1814;
inline constexpr LONG ERROR_CANT_ACCESS_FILE = 1920;
inline constexpr LONG ERROR_NOT_CONNECTED = 2250;
inline constexpr LONG ERROR_OBJECT_ALREADY_EXISTS = 5010;

inline constexpr LONG WSAEINTR = 10004;
inline constexpr LONG WSAEBADF = 10009;
inline constexpr LONG WSAEACCES = 10013;
inline constexpr LONG WSAEFAULT = 10014;
inline constexpr LONG WSAEINVAL = 10022;
inline constexpr LONG WSAEMFILE = 10024;
inline constexpr LONG WSAEWOULDBLOCK = 10035;
inline constexpr LONG WSAEINPROGRESS = 10036;
inline constexpr LONG WSAEALREADY = 10037;
inline constexpr LONG WSAENOTSOCK = 10038;
inline constexpr LONG WSAEDESTADDRREQ = 10039;
inline constexpr LONG WSAEMSGSIZE = 10040;
inline constexpr LONG WSAEPROTOTYPE = 10041;
inline constexpr LONG WSAENOPROTOOPT = 10042;
inline constexpr LONG WSAEPROTONOSUPPORT = 10043;
inline constexpr LONG WSAESOCKTNOSUPPORT = 10044;
inline constexpr LONG WSAEOPNOTSUPP = 10045;
inline constexpr LONG WSAEAFNOSUPPORT = 10047;
inline constexpr LONG WSAEADDRINUSE = 10048;
inline constexpr LONG WSAEADDRNOTAVAIL = 10049;
inline constexpr LONG WSAENETDOWN = 10050;
inline constexpr LONG WSAENETUNREACH = 10051;
inline constexpr LONG WSAENETRESET = 10052;
inline constexpr LONG WSAECONNABORTED = 10053;
inline constexpr LONG WSAECONNRESET = 10054;
inline constexpr LONG WSAENOBUFS = 10055;
inline constexpr LONG WSAEISCONN = 10056;
inline constexpr LONG WSAENOTCONN = 10057;
inline constexpr LONG WSAESHUTDOWN = 10058;
inline constexpr LONG WSAETIMEDOUT = 10060;
inline constexpr LONG WSAECONNREFUSED = 10061;
inline constexpr LONG WSAEHOSTDOWN = 10064;
inline constexpr LONG WSAEHOSTUNREACH = 10065;
inline constexpr LONG WSANOTINITIALISED = 10093;
inline constexpr LONG WSAEDISCON = 10101;
inline constexpr LONG WSAHOST_NOT_FOUND = 11001;
inline constexpr LONG WSATRY_AGAIN = 11002;
inline constexpr LONG WSANO_RECOVERY = 11003;
inline constexpr LONG WSANO_DATA = 11004;

inline constexpr LONG ERROR_INTERNET_INVALID_URL = 12005;
inline constexpr LONG ERROR_INTERNET_UNRECOGNIZED_SCHEME = 12006;

inline constexpr DWORD FORMAT_MESSAGE_IGNORE_INSERTS = 0x00000200;
inline constexpr DWORD FORMAT_MESSAGE_FROM_SYSTEM = 0x00001000;

namespace kvx::win32
{

extern KVX_API constinit thread_local DWORD g_dwLastError __attribute__((tls_model("initial-exec")));

/// The Win32 code for an errno value; a value that the table doesn't hold gives ERROR_GEN_FAILURE, 0 gives 0.
KVX_API DWORD ErrorFromErrno(int nErrno) noexcept;

/// The socket code for an errno value, of the same table; one without a socket code gives its Win32 code.
KVX_API DWORD WsaErrorFromErrno(int nErrno) noexcept;

/// Sets the thread's last error from its errno.
KVX_API void SetLastErrorFromErrno() noexcept;

} // namespace kvx::win32

inline DWORD GetLastError() noexcept
{
    return kvx::win32::g_dwLastError;
}

inline void SetLastError(DWORD dwError) noexcept
{
    kvx::win32::g_dwLastError = dwError;
}

namespace kvx::win32
{

/// What a call returns where the C++ library has had no memory, for no call of the API throws: its failure, with
/// ERROR_NOT_ENOUGH_MEMORY as the last error.
template <class T>
T WithoutMemory(T failure) noexcept
{
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return failure;
}

} // namespace kvx::win32

/// Writes the text of a system error code and a line end (CR LF) to pBuffer, which holds nSize characters, and
/// returns the length without the closing zero. A code that stands for an errno value gets the host's own text, in
/// English whatever the locale. dwFlags is FORMAT_MESSAGE_FROM_SYSTEM, with FORMAT_MESSAGE_IGNORE_INSERTS or not;
/// pSource, dwLanguage and pArguments are ignored.
/// 0 with last error: ERROR_MR_MID_NOT_FOUND for an unknown code, ERROR_INSUFFICIENT_BUFFER,
/// ERROR_INVALID_PARAMETER for a null buffer, ERROR_INVALID_FLAGS for other flags. Any thread.
KVX_API DWORD FormatMessageW(DWORD dwFlags, LPCVOID pSource, DWORD dwMessageId, DWORD dwLanguage, LPWSTR pBuffer,
                             DWORD nSize, void * pArguments) noexcept;
