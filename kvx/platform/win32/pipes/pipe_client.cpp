/// The client's side of a named pipe: waiting for an instance, and opening it.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/pipes.h"
#include "kvx/platform/win32/pipes/pipe_files.h"
#include "kvx/platform/win32/pipes/pipe_names.h"
#include "kvx/platform/win32/pipes/socket_end.h"
#include "kvx/platform/win32/retry.h"
#include "kvx/platform/win32/runtime_dir.h"

#include <cerrno>
#include <new>
#include <string>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

namespace kvx::win32
{

namespace
{

constexpr DWORD DEFAULT_WAIT = 50; // milliseconds

/// Connects to a process that serves the name. Null with last error.
UniqueFd ConnectToServer(UniqueFd const & folder, std::string const & strFile)
{
    constexpr timeval PATIENCE = {0, 200000};
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket)
    {
        SetLastErrorFromErrno();
        return {};
    }
    for (int nSlot = 0; nSlot < MAX_PIPE_SERVERS; ++nSlot)
    {
        SlotFiles const files(strFile, nSlot);
        sockaddr_un const address = AddressOf(folder, files.strSocket);
        int nResult = Retry([&] { return ::connect(socket.Get(), Generic(address), sizeof address); });
        bool const bQueueFull = nResult != 0 && errno == EAGAIN;
        if (nResult == 0 || bQueueFull)
        {
            ::fcntl(socket.Get(), F_SETFL, 0);
        }
        if (bQueueFull)
        {
            // Thousands wait already: a place may come free.
            constexpr timeval NONE{};
            ::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &PATIENCE, sizeof PATIENCE);
            nResult = Retry([&] { return ::connect(socket.Get(), Generic(address), sizeof address); });
            int const nError = errno;
            ::setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &NONE, sizeof NONE);
            errno = nError;
        }
        if (nResult == 0)
        {
            return socket;
        }
        // ENOENT: nobody, or nobody free. ECONNREFUSED: a dead one's.
        if (errno == EAGAIN)
        {
            SetLastError(ERROR_PIPE_BUSY);
            return {};
        }
        if (errno != ENOENT && errno != ECONNREFUSED)
        {
            SetLastErrorFromErrno();
            return {};
        }
    }
    SetLastError(LookForPipe(folder, strFile) == NameState::Missing ? ERROR_FILE_NOT_FOUND : ERROR_PIPE_BUSY);
    return {};
}

} // namespace

HANDLE OpenNamedPipe(LPCWSTR pszPath, DWORD dwAccess, DWORD dwDisposition)
{
    bool const bRead = dwAccess & (GENERIC_READ | GENERIC_ALL | FILE_READ_DATA);
    bool const bWrite = dwAccess & (GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA);
    if ((!bRead && !bWrite) || (dwDisposition != OPEN_EXISTING && dwDisposition != OPEN_ALWAYS))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::string const strFile = FileOfPipe(pszPath);
    UniqueFd const folder = strFile.empty() ? UniqueFd() : OpenRuntimeFolder();
    UniqueFd socket = folder ? ConnectToServer(folder, strFile) : UniqueFd();
    if (!socket)
    {
        return nullptr;
    }
    return OpenHandle(Ref<KernelObject>(new SocketEnd(std::move(socket), bRead, bWrite)));
}

} // namespace kvx::win32

using namespace kvx::win32;

BOOL WaitNamedPipeW(LPCWSTR pszName, DWORD nTimeOut)
try
{
    constexpr DWORD LOOK_AGAIN = 5; // milliseconds
    std::string const strFile = FileOfPipe(pszName);
    if (strFile.empty())
    {
        return FALSE;
    }
    UniqueFd const folder = OpenRuntimeFolder();
    if (!folder)
    {
        return FALSE;
    }
    Deadline const deadline = MakeDeadline(nTimeOut == NMPWAIT_USE_DEFAULT_WAIT ? DEFAULT_WAIT : nTimeOut);
    for (;;)
    {
        switch (LookForPipe(folder, strFile))
        {
        case NameState::Free:
            return TRUE;
        case NameState::Missing:
            return Refuse(ERROR_FILE_NOT_FOUND);
        case NameState::Busy:
            break;
        }
        if (GetMonotonicTime() >= deadline)
        {
            return Refuse(ERROR_SEM_TIMEOUT);
        }
        ::poll(nullptr, 0, LOOK_AGAIN);
    }
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}
