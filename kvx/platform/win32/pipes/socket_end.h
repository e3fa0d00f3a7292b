#pragma once

#include "kvx/platform/win32/pipes/pipe_end.h"
#include "kvx/platform/win32/unique_fd.h"

#include <atomic>

namespace kvx::win32
{

/// An end of a named pipe: the client's, and what the server's has in common with it. The number of the descriptor
/// stays this object's own from the first connection on, so that no call can meet somebody else's.
class SocketEnd : public PipeEnd
{
public:
    SocketEnd(UniqueFd socket, bool bRead, bool bWrite) noexcept
        : PipeEnd(bRead, bWrite), m_nDescriptor(socket.Detach()),
          m_state(m_nDescriptor.load(std::memory_order_relaxed) < 0 ? State::Free : State::Connected)
    {
    }
    ~SocketEnd() override { UniqueFd(m_nDescriptor.load()).Reset(); }

    void OnHandleClosed() noexcept override { End(State::Closed); }

    BOOL Peek(void * pBuffer, DWORD nSize, DWORD & nRead, DWORD * pnAvailable) override;

protected:
    enum class State
    {
        Free, ///< waits, or could wait, for a client
        Connected,
        Disconnected,
        Closed
    };

    bool IsConnected() const { return m_state.load(std::memory_order_acquire) == State::Connected; }

    DWORD GetStateError() const;
    /// The state comes first: whoever is woken by the shutdown, or begins a transfer after it, sees it.
    void End(State state) noexcept;

    BOOL Receive(void * pBuffer, DWORD nBytes, DWORD & nRead) override;
    BOOL Send(void const * pBuffer, DWORD nBytes, DWORD & nWritten) override;

    std::atomic<int> m_nDescriptor;
    std::atomic<State> m_state;
};

} // namespace kvx::win32
