#include "kvx/platform/win32/pipes/socket_end.h"

#include "kvx/platform/win32/retry.h"

#include <cerrno>

#include <sys/ioctl.h>
#include <sys/socket.h>

namespace kvx::win32
{

BOOL SocketEnd::Peek(void * pBuffer, DWORD nSize, DWORD & nRead, DWORD * pnAvailable)
{
    if (!CanRead())
    {
        return Refuse(ERROR_ACCESS_DENIED);
    }
    if (!IsConnected())
    {
        return Refuse(m_state.load() == State::Free ? ERROR_BAD_PIPE : GetStateError());
    }
    int const nDescriptor = m_nDescriptor.load(std::memory_order_relaxed);
    char cFirst;
    bool const bCopies = pBuffer && nSize > 0;
    ssize_t const nGot = Retry(
        [&] { return ::recv(nDescriptor, bCopies ? pBuffer : &cFirst, bCopies ? nSize : 1, MSG_PEEK | MSG_DONTWAIT); });
    if (nGot == 0 || (nGot < 0 && errno != EAGAIN))
    {
        return Refuse(IsConnected() ? ERROR_BROKEN_PIPE : GetStateError());
    }
    nRead = bCopies && nGot > 0 ? static_cast<DWORD>(nGot) : 0;
    if (pnAvailable)
    {
        int nAvailable = 0;
        *pnAvailable = ::ioctl(nDescriptor, FIONREAD, &nAvailable) == 0 ? static_cast<DWORD>(nAvailable) : 0;
    }
    return TRUE;
}

DWORD SocketEnd::GetStateError() const
{
    switch (m_state.load())
    {
    case State::Free:
        return ERROR_PIPE_LISTENING;
    case State::Closed:
        return ERROR_OPERATION_ABORTED;
    default:
        return ERROR_PIPE_NOT_CONNECTED;
    }
}

void SocketEnd::End(State state) noexcept
{
    m_state.store(state, std::memory_order_seq_cst);
    if (int const nDescriptor = m_nDescriptor.load(std::memory_order_seq_cst); nDescriptor >= 0)
    {
        ::shutdown(nDescriptor, SHUT_RDWR);
    }
}

BOOL SocketEnd::Receive(void * pBuffer, DWORD nBytes, DWORD & nRead)
{
    if (!IsConnected())
    {
        return Refuse(GetStateError());
    }
    ssize_t const nGot =
        Retry([&] { return ::recv(m_nDescriptor.load(std::memory_order_relaxed), pBuffer, nBytes, 0); });
    if (nGot > 0) [[likely]]
    {
        nRead = static_cast<DWORD>(nGot);
        return TRUE;
    }
    if (!IsConnected())
    {
        return Refuse(GetStateError());
    }
    return Refuse(nGot == 0 ? static_cast<DWORD>(ERROR_BROKEN_PIPE) : ErrorFromErrno(errno));
}

BOOL SocketEnd::Send(void const * pBuffer, DWORD nBytes, DWORD & nWritten)
{
    while (nWritten < nBytes)
    {
        if (!IsConnected())
        {
            return Refuse(GetStateError());
        }
        ssize_t const nSent = Retry(
            [&]
            {
                return ::send(m_nDescriptor.load(std::memory_order_relaxed),
                              static_cast<char const *>(pBuffer) + nWritten, nBytes - nWritten, MSG_NOSIGNAL);
            });
        if (nSent < 0)
        {
            return Refuse(!IsConnected()                          ? GetStateError()
                          : errno == EPIPE || errno == ECONNRESET ? static_cast<DWORD>(ERROR_NO_DATA)
                                                                  : ErrorFromErrno(errno));
        }
        nWritten += static_cast<DWORD>(nSent);
    }
    return TRUE;
}

} // namespace kvx::win32
