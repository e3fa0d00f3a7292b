#include "kvx/platform/win32/errors.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace kvx::win32
{

constinit thread_local DWORD g_dwLastError = 0;

namespace
{

struct ErrnoRow
{
    int nErrno;
    LONG nError;
    LONG nWsaError; ///< 0: none of its own
};

// The one table between errno and the codes. The text of a code is that of the first row that has it.
constexpr std::array ERRNO_TABLE{
    ErrnoRow{ENOENT, ERROR_FILE_NOT_FOUND, 0},
    ErrnoRow{ENOTDIR, ERROR_PATH_NOT_FOUND, 0},
    ErrnoRow{ELOOP, ERROR_PATH_NOT_FOUND, 0},
    ErrnoRow{EMFILE, ERROR_TOO_MANY_OPEN_FILES, WSAEMFILE},
    ErrnoRow{ENFILE, ERROR_TOO_MANY_OPEN_FILES, WSAEMFILE},
    ErrnoRow{EACCES, ERROR_ACCESS_DENIED, WSAEACCES},
    ErrnoRow{EPERM, ERROR_ACCESS_DENIED, WSAEACCES},
    ErrnoRow{EISDIR, ERROR_ACCESS_DENIED, 0},
    ErrnoRow{ENOTSOCK, ERROR_INVALID_HANDLE, WSAENOTSOCK},
    ErrnoRow{EBADF, ERROR_INVALID_HANDLE, WSAENOTSOCK},
    ErrnoRow{ENOTTY, ERROR_INVALID_FUNCTION, 0},
    ErrnoRow{ENOBUFS, ERROR_NO_SYSTEM_RESOURCES, WSAENOBUFS},
    ErrnoRow{ENOMEM, ERROR_NOT_ENOUGH_MEMORY, WSAENOBUFS},
    ErrnoRow{EXDEV, ERROR_NOT_SAME_DEVICE, 0},
    ErrnoRow{EROFS, ERROR_WRITE_PROTECT, 0},
    ErrnoRow{ENXIO, ERROR_NOT_READY, 0},
    ErrnoRow{ENODEV, ERROR_NOT_READY, 0},
    ErrnoRow{ESPIPE, ERROR_SEEK, 0},
    ErrnoRow{ETXTBSY, ERROR_SHARING_VIOLATION, 0},
    ErrnoRow{ENOLCK, ERROR_LOCK_VIOLATION, 0},
    ErrnoRow{EDEADLK, ERROR_LOCK_VIOLATION, 0},
    ErrnoRow{EOPNOTSUPP, ERROR_NOT_SUPPORTED, WSAEOPNOTSUPP},
    ErrnoRow{EINVAL, ERROR_INVALID_PARAMETER, WSAEINVAL},
    ErrnoRow{ECONNABORTED, ERROR_CONNECTION_ABORTED, WSAECONNABORTED},
    ErrnoRow{EPIPE, ERROR_BROKEN_PIPE, WSAECONNABORTED},
    ErrnoRow{ENOSPC, ERROR_DISK_FULL, 0},
    ErrnoRow{ENOSYS, ERROR_CALL_NOT_IMPLEMENTED, 0},
    ErrnoRow{EILSEQ, ERROR_NO_UNICODE_TRANSLATION, 0},
    ErrnoRow{ENOTEMPTY, ERROR_DIR_NOT_EMPTY, 0},
    ErrnoRow{EBUSY, ERROR_BUSY, 0},
    ErrnoRow{EEXIST, ERROR_ALREADY_EXISTS, 0},
    ErrnoRow{ENOEXEC, ERROR_BAD_EXE_FORMAT, 0},
    ErrnoRow{ENAMETOOLONG, ERROR_FILENAME_EXCED_RANGE, 0},
    ErrnoRow{EFBIG, ERROR_FILE_TOO_LARGE, 0},
    ErrnoRow{EAGAIN, ERROR_NO_DATA, WSAEWOULDBLOCK},
    ErrnoRow{EINTR, ERROR_OPERATION_ABORTED, WSAEINTR},
    ErrnoRow{ECANCELED, ERROR_OPERATION_ABORTED, WSAEINTR},
    ErrnoRow{EFAULT, ERROR_NOACCESS, WSAEFAULT},
    ErrnoRow{EIO, ERROR_IO_DEVICE, 0},
    ErrnoRow{EMLINK, ERROR_TOO_MANY_LINKS, 0},
    ErrnoRow{ECONNREFUSED, ERROR_CONNECTION_REFUSED, WSAECONNREFUSED},
    ErrnoRow{ENETUNREACH, ERROR_NETWORK_UNREACHABLE, WSAENETUNREACH},
    ErrnoRow{EDQUOT, ERROR_DISK_QUOTA_EXCEEDED, 0},
    ErrnoRow{ETIMEDOUT, ERROR_TIMEOUT, WSAETIMEDOUT},
    ErrnoRow{ECONNRESET, ERROR_BROKEN_PIPE, WSAECONNRESET},
    ErrnoRow{EINPROGRESS, ERROR_IO_PENDING, WSAEINPROGRESS},
    ErrnoRow{EALREADY, ERROR_IO_PENDING, WSAEALREADY},
    ErrnoRow{EDESTADDRREQ, ERROR_INCORRECT_ADDRESS, WSAEDESTADDRREQ},
    ErrnoRow{EMSGSIZE, ERROR_MORE_DATA, WSAEMSGSIZE},
    ErrnoRow{EPROTOTYPE, ERROR_NOT_SUPPORTED, WSAEPROTOTYPE},
    ErrnoRow{ENOPROTOOPT, ERROR_NOT_SUPPORTED, WSAENOPROTOOPT},
    ErrnoRow{EPROTONOSUPPORT, ERROR_NOT_SUPPORTED, WSAEPROTONOSUPPORT},
    ErrnoRow{EAFNOSUPPORT, ERROR_NOT_SUPPORTED, WSAEAFNOSUPPORT},
    ErrnoRow{EADDRINUSE, ERROR_ALREADY_EXISTS, WSAEADDRINUSE},
    ErrnoRow{EADDRNOTAVAIL, ERROR_INCORRECT_ADDRESS, WSAEADDRNOTAVAIL},
    ErrnoRow{ENETDOWN, ERROR_NETWORK_UNREACHABLE, WSAENETDOWN},
    ErrnoRow{ENETRESET, ERROR_CONNECTION_ABORTED, WSAENETRESET},
    ErrnoRow{EISCONN, ERROR_PIPE_CONNECTED, WSAEISCONN},
    ErrnoRow{ENOTCONN, ERROR_PIPE_NOT_CONNECTED, WSAENOTCONN},
    ErrnoRow{ESHUTDOWN, ERROR_PIPE_NOT_CONNECTED, WSAESHUTDOWN},
    ErrnoRow{EHOSTDOWN, ERROR_NETWORK_UNREACHABLE, WSAEHOSTDOWN},
    ErrnoRow{EHOSTUNREACH, ERROR_NETWORK_UNREACHABLE, WSAEHOSTUNREACH},
};

struct TextRow
{
    LONG nError;
    std::string_view strText;
};

// Codes that no errno value stands for, and those that the host's text would tell wrongly.
constexpr std::array TEXT_TABLE{
    TextRow{ERROR_SUCCESS, "Success"},
    TextRow{ERROR_INVALID_FUNCTION, "Function not valid here"},
    TextRow{ERROR_PATH_NOT_FOUND, "Path not found"},
    TextRow{ERROR_INVALID_HANDLE, "Invalid handle"},
    TextRow{ERROR_BAD_ENVIRONMENT, "The folder of pipes and named objects isn't this user's alone: "
                                   "set KVX_RUNTIME_DIR to one that is"},
    TextRow{ERROR_BAD_FORMAT, "Bad format"},
    TextRow{ERROR_INVALID_ACCESS, "Access code not valid"},
    TextRow{ERROR_INVALID_DATA, "Invalid data"},
    TextRow{ERROR_OUTOFMEMORY, "Out of memory"},
    TextRow{ERROR_INVALID_DRIVE, "No such drive"},
    TextRow{ERROR_CURRENT_DIRECTORY, "The current directory can't be removed"},
    TextRow{ERROR_NO_MORE_FILES, "No more files"},
    TextRow{ERROR_NOT_READY, "Device not ready"},
    TextRow{ERROR_BAD_COMMAND, "Command not known to the device"},
    TextRow{ERROR_WRITE_FAULT, "Write failed"},
    TextRow{ERROR_READ_FAULT, "Read failed"},
    TextRow{ERROR_GEN_FAILURE, "General failure"},
    TextRow{ERROR_SHARING_VIOLATION, "File in use by another process"},
    TextRow{ERROR_LOCK_VIOLATION, "Part of the file is locked"},
    TextRow{ERROR_HANDLE_EOF, "End of file"},
    TextRow{ERROR_FILE_EXISTS, "File exists"},
    TextRow{ERROR_CANNOT_MAKE, "Cannot create the file or directory"},
    TextRow{ERROR_INVALID_PARAMETER, "Invalid parameter"},
    TextRow{ERROR_NO_PROC_SLOTS, "No more threads or processes can be started"},
    TextRow{ERROR_OPEN_FAILED, "Cannot open the device or file"},
    TextRow{ERROR_BUFFER_OVERFLOW, "Name too long for the buffer"},
    TextRow{ERROR_SEM_TIMEOUT, "Time-out expired"},
    TextRow{ERROR_INSUFFICIENT_BUFFER, "Buffer too small"},
    TextRow{ERROR_INVALID_NAME, "Invalid name"},
    TextRow{ERROR_MOD_NOT_FOUND, "Module not found"},
    TextRow{ERROR_PROC_NOT_FOUND, "Procedure not found"},
    TextRow{ERROR_NEGATIVE_SEEK, "Position before the start of the file"},
    TextRow{ERROR_BAD_PATHNAME, "Invalid path"},
    TextRow{ERROR_ALREADY_EXISTS, "Already exists"},
    TextRow{ERROR_ENVVAR_NOT_FOUND, "Environment variable not found"},
    TextRow{ERROR_BAD_PIPE, "Invalid pipe state"},
    TextRow{ERROR_PIPE_BUSY, "All instances of the pipe are busy"},
    TextRow{ERROR_NO_DATA, "Pipe is being closed or has no data"},
    TextRow{ERROR_PIPE_NOT_CONNECTED, "Pipe not connected"},
    TextRow{ERROR_MORE_DATA, "More data available"},
    TextRow{ERROR_NO_MORE_ITEMS, "No more items"},
    TextRow{ERROR_BADDB, "The registry is corrupt"},
    TextRow{ERROR_REGISTRY_IO_FAILED, "The registry can't be read or written"},
    TextRow{ERROR_KEY_DELETED, "The key has been deleted"},
    TextRow{ERROR_DIRECTORY, "Invalid directory name"},
    TextRow{ERROR_NOT_OWNER, "Mutex not owned by the caller"},
    TextRow{ERROR_TOO_MANY_POSTS, "Too many posts to a semaphore"},
    TextRow{ERROR_MR_MID_NOT_FOUND, "No text for this message number"},
    TextRow{ERROR_INVALID_ADDRESS, "Invalid address"},
    TextRow{ERROR_PIPE_CONNECTED, "Pipe connected"},
    TextRow{ERROR_PIPE_LISTENING, "Pipe waiting for a process at its other end"},
    TextRow{ERROR_OPERATION_ABORTED, "Operation aborted"},
    TextRow{ERROR_IO_INCOMPLETE, "Overlapped operation not complete"},
    TextRow{ERROR_IO_PENDING, "Overlapped operation in progress"},
    TextRow{ERROR_INVALID_FLAGS, "Invalid flags"},
    TextRow{ERROR_NOT_FOUND, "Not found"},
    TextRow{ERROR_CANCELLED, "Cancelled by the user"},
    TextRow{ERROR_INCORRECT_ADDRESS, "Invalid network address"},
    TextRow{ERROR_SERVICE_NOT_FOUND, "Service not found"},
    TextRow{ERROR_PRIVILEGE_NOT_HELD, "Required privilege not held"},
    TextRow{ERROR_INTERNAL_ERROR, "Internal error"},
    TextRow{ERROR_INVALID_WINDOW_HANDLE, "Invalid window handle"},
    TextRow{ERROR_CLASS_ALREADY_EXISTS, "Window class already exists"},
    TextRow{ERROR_CLASS_DOES_NOT_EXIST, "No such window class"},
    TextRow{ERROR_INVALID_THREAD_ID, "Invalid thread identifier"},
    TextRow{ERROR_NO_SYSTEM_RESOURCES, "Not enough system resources"},
    TextRow{ERROR_TIMEOUT, "Time-out expired"},
    TextRow{ERROR_RESOURCE_DATA_NOT_FOUND, "The module has no resources"},
    TextRow{ERROR_RESOURCE_TYPE_NOT_FOUND, "Resource type not found in the module"},
    TextRow{ERROR_RESOURCE_NAME_NOT_FOUND, "Resource name not found in the module"},
    TextRow{ERROR_NOT_CONNECTED, "Not connected"},
    TextRow{ERROR_OBJECT_ALREADY_EXISTS, "The object already exists"},
    TextRow{WSAEBADF, "Bad file handle"},
    TextRow{WSANOTINITIALISED, "Sockets were not started"},
    TextRow{WSAEDISCON, "Connection closed in an orderly way"},
    TextRow{WSAHOST_NOT_FOUND, "Host not found"},
    TextRow{WSATRY_AGAIN, "Host not found for now"},
    TextRow{WSANO_RECOVERY, "Name service failed"},
    TextRow{WSANO_DATA, "Host has no address"},
    TextRow{ERROR_INTERNET_INVALID_URL, "Invalid URL"},
    TextRow{ERROR_INTERNET_UNRECOGNIZED_SCHEME, "The URL has no scheme"},
};

std::string_view FindText(DWORD dwError) noexcept
{
    LONG const nError = static_cast<LONG>(dwError);
    if (auto const row = std::ranges::find(TEXT_TABLE, nError, &TextRow::nError); row != TEXT_TABLE.end())
    {
        return row->strText;
    }
    auto row = std::ranges::find(ERRNO_TABLE, nError, &ErrnoRow::nError);
    if (row == ERRNO_TABLE.end())
    {
        row = std::ranges::find(ERRNO_TABLE, nError, &ErrnoRow::nWsaError);
    }
    if (row == ERRNO_TABLE.end())
    {
        return {};
    }
    char const * const pText = ::strerrordesc_np(row->nErrno);
    return pText ? std::string_view(pText) : std::string_view();
}

} // namespace

DWORD ErrorFromErrno(int nErrno) noexcept
{
    if (nErrno == 0)
    {
        return ERROR_SUCCESS;
    }
    auto const row = std::ranges::find(ERRNO_TABLE, nErrno, &ErrnoRow::nErrno);
    return row == ERRNO_TABLE.end() ? ERROR_GEN_FAILURE : row->nError;
}

DWORD WsaErrorFromErrno(int nErrno) noexcept
{
    auto const row = std::ranges::find(ERRNO_TABLE, nErrno, &ErrnoRow::nErrno);
    return row == ERRNO_TABLE.end() || row->nWsaError == 0 ? ErrorFromErrno(nErrno) : row->nWsaError;
}

void SetLastErrorFromErrno() noexcept
{
    SetLastError(ErrorFromErrno(errno));
}

} // namespace kvx::win32

DWORD FormatMessageW(DWORD dwFlags, LPCVOID, DWORD dwMessageId, DWORD, LPWSTR pBuffer, DWORD nSize, void *) noexcept
{
    if ((dwFlags & ~FORMAT_MESSAGE_IGNORE_INSERTS) != FORMAT_MESSAGE_FROM_SYSTEM)
    {
        SetLastError(ERROR_INVALID_FLAGS);
        return 0;
    }
    if (!pBuffer)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::string_view const strText = kvx::win32::FindText(dwMessageId);
    if (strText.empty())
    {
        SetLastError(ERROR_MR_MID_NOT_FOUND);
        return 0;
    }
    if (nSize < strText.size() + 3)
    {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    WCHAR * pEnd = std::ranges::copy(strText, pBuffer).out;
    *pEnd++ = u'\r';
    *pEnd++ = u'\n';
    *pEnd = 0;
    return static_cast<DWORD>(pEnd - pBuffer);
}
