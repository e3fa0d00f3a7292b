/// The server's side of a named pipe: instances, and how clients come to them.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/pipes.h"
#include "kvx/platform/win32/pipes/pipe_names.h"
#include "kvx/platform/win32/pipes/pipe_server.h"
#include "kvx/platform/win32/pipes/socket_end.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/termination.h"

#include <atomic>
#include <cerrno>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

/// The server's end. Its state changes under the lock of all pipes, as the numbers of the server do.
class PipeInstance final : public SocketEnd
{
public:
    PipeInstance(std::shared_ptr<PipeServer> server, bool bRead, bool bWrite, bool bOverlapped) noexcept
        : SocketEnd({}, bRead, bWrite), m_bOverlapped(bOverlapped), m_server(std::move(server))
    {
    }

    void OnHandleClosed() noexcept override
    {
        UninterruptedScope const scope;
        FutexGuard const guard(g_pipesLock);
        Abandon(State::Closed);
        m_server->Leave();
    }

    void EndCalls() noexcept override
    {
        UninterruptedScope const scope;
        FutexGuard const guard(g_pipesLock);
        Abandon(State::Closed);
    }

    BOOL Disconnect() override
    {
        UninterruptedScope const scope;
        FutexGuard const guard(g_pipesLock);
        switch (m_state.load())
        {
        case State::Closed:
            return Refuse(ERROR_INVALID_HANDLE);
        case State::Disconnected:
            return Refuse(ERROR_PIPE_NOT_CONNECTED);
        default:
            Abandon(State::Disconnected);
            return TRUE;
        }
    }

    BOOL Connect(OVERLAPPED * pOverlapped) override
    {
        {
            UninterruptedScope const scope;
            FutexGuard const guard(g_pipesLock);
            State const state = m_state.load();
            if (state == State::Connected || state == State::Closed)
            {
                return Refuse(state == State::Connected ? ERROR_PIPE_CONNECTED : ERROR_INVALID_HANDLE);
            }
            if (!m_wake)
            {
                UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
                m_wake = std::make_shared<UniqueFd>(std::move(wake));
            }
            if (!*m_wake)
            {
                m_wake.reset();
                SetLastErrorFromErrno();
                return FALSE;
            }
            if (state == State::Disconnected)
            {
                if (!m_server->AddFree())
                {
                    SetLastErrorFromErrno();
                    return FALSE;
                }
                m_state.store(State::Free);
            }
        }
        if (AcceptClient(false))
        {
            return Refuse(ERROR_PIPE_CONNECTED);
        }
        if (GetLastError() != ERROR_IO_INCOMPLETE)
        {
            return FALSE;
        }
        if (!pOverlapped || !m_bOverlapped)
        {
            return AcceptClient(true);
        }
        pOverlapped->Internal = PENDING;
        pOverlapped->InternalHigh = 0;
        if (pOverlapped->hEvent)
        {
            ResetEvent(pOverlapped->hEvent);
        }
        return Refuse(ERROR_IO_PENDING);
    }

    BOOL FinishConnect(OVERLAPPED & overlapped, bool bWait) override
    {
        BOOL const bDone = AcceptClient(bWait);
        if (!bDone && GetLastError() == ERROR_IO_INCOMPLETE)
        {
            return FALSE;
        }
        overlapped.Internal = bDone ? ERROR_SUCCESS : GetLastError();
        if (overlapped.hEvent)
        {
            SetEvent(overlapped.hEvent);
        }
        return bDone;
    }

private:
    /// Ends the waiting or the connection, for good or until the next Connect. Under the lock.
    void Abandon(State state) noexcept
    {
        bool const bWasFree = m_state.load() == State::Free;
        End(state);
        if (bWasFree)
        {
            m_server->TakeFree();
        }
        if (m_wake)
        {
            ::eventfd_write(m_wake->Get(), 1);
        }
        m_wake.reset();
    }

    /// Takes a client out of the queue. ERROR_IO_INCOMPLETE if there is none and it isn't to wait,
    /// ERROR_OPERATION_ABORTED when the instance was disconnected or closed.
    BOOL AcceptClient(bool bWait)
    {
        constexpr int SHORT_OF_DESCRIPTORS = 20; // milliseconds until the next try: that want passes
        std::shared_ptr<UniqueFd> wake;
        {
            UninterruptedScope const scope;
            FutexGuard const guard(g_pipesLock);
            wake = m_wake;
        }
        while (wake && m_state.load() == State::Free)
        {
            UniqueFd client(::accept4(m_server->GetListener(), nullptr, nullptr, SOCK_CLOEXEC));
            if (client)
            {
                return Establish(std::move(client));
            }
            bool const bShort = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
            if (errno == EINTR || errno == ECONNABORTED)
            {
                continue;
            }
            if (errno != EAGAIN && !bShort)
            {
                SetLastErrorFromErrno();
                return FALSE;
            }
            if (!bWait)
            {
                return Refuse(ERROR_IO_INCOMPLETE);
            }
            pollfd polled[] = {{wake->Get(), POLLIN, 0}, {m_server->GetListener(), POLLIN, 0}};
            ::poll(polled, bShort ? 1 : 2, bShort ? SHORT_OF_DESCRIPTORS : -1);
        }
        return Refuse(ERROR_OPERATION_ABORTED);
    }

    BOOL Establish(UniqueFd client)
    {
        UninterruptedScope const scope;
        FutexGuard const guard(g_pipesLock);
        if (m_state.load() != State::Free)
        {
            return Refuse(ERROR_OPERATION_ABORTED);
        }
        int const nDescriptor = m_nDescriptor.load();
        if (nDescriptor < 0)
        {
            m_nDescriptor.store(client.Detach());
        }
        else if (::dup3(client.Get(), nDescriptor, O_CLOEXEC) < 0)
        {
            SetLastErrorFromErrno();
            return FALSE;
        }
        m_state.store(State::Connected, std::memory_order_seq_cst);
        m_wake.reset();
        m_server->TakeFree();
        return TRUE;
    }

    bool const m_bOverlapped;
    std::shared_ptr<PipeServer> const m_server;
    std::shared_ptr<UniqueFd> m_wake; // while the instance waits; who sleeps on it shares it
};

} // namespace

} // namespace kvx::win32

using namespace kvx::win32;

HANDLE CreateNamedPipeW(LPCWSTR pszName, DWORD dwOpenMode, DWORD dwPipeMode, DWORD nMaxInstances, DWORD, DWORD, DWORD,
                        LPSECURITY_ATTRIBUTES)
try
{
    DWORD const dwAccess = dwOpenMode & PIPE_ACCESS_DUPLEX;
    bool const bOverlapped = dwOpenMode & FILE_FLAG_OVERLAPPED;
    if (dwAccess == 0 || (dwOpenMode & ~(PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED)) != 0 || nMaxInstances == 0 ||
        nMaxInstances > PIPE_UNLIMITED_INSTANCES)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    if (dwPipeMode != 0)
    {
        SetLastError(ERROR_NOT_SUPPORTED);
        return INVALID_HANDLE_VALUE;
    }
    UninterruptedScope const scope;
    std::string const strFile = FileOfPipe(pszName);
    if (strFile.empty())
    {
        if (GetLastError() == ERROR_BAD_NETPATH)
        {
            SetLastError(ERROR_INVALID_NAME); // instances are local
        }
        return INVALID_HANDLE_VALUE;
    }
    // Memory first: an instance that is counted must be there.
    std::unique_ptr<void, void (*)(void *)> place(::operator new(sizeof(PipeInstance)),
                                                  [](void * p) { ::operator delete(p); });
    std::shared_ptr<PipeServer> server;
    {
        FutexGuard const guard(g_pipesLock);
        server = PipeServer::Join(strFile, dwAccess, nMaxInstances);
    }
    if (!server)
    {
        return INVALID_HANDLE_VALUE;
    }
    Ref<PipeInstance> const instance(new (place.release()) PipeInstance(
        std::move(server), dwAccess & PIPE_ACCESS_INBOUND, dwAccess & PIPE_ACCESS_OUTBOUND, bOverlapped));
    HANDLE const hPipe = OpenHandle(instance);
    if (!hPipe)
    {
        instance->OnHandleClosed();
        return INVALID_HANDLE_VALUE;
    }
    return hPipe;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<HANDLE>(INVALID_HANDLE_VALUE);
}
