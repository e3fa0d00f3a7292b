#pragma once

/// Writing to a pipe whose reader has gone, without a signal.

#include "kvx/platform/win32/retry.h"

#include <cerrno>
#include <csignal>
#include <ctime>

namespace kvx::win32
{

/// Keeps SIGPIPE from this thread while it writes to a pipe. Whoever meets EPIPE says so by Raised: the signal is then
/// taken away again, unless there was one before.
class PipeSignalGuard
{
public:
    PipeSignalGuard()
    {
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
        if (sigset_t pending; sigismember(&m_before, SIGPIPE) && sigpending(&pending) == 0)
        {
            m_bWasPending = sigismember(&pending, SIGPIPE);
        }
    }

    ~PipeSignalGuard()
    {
        int const nError = errno;
        timespec const now{};
        if (m_bRaised && !m_bWasPending)
        {
            Retry([&] { return sigtimedwait(&m_pipe, nullptr, &now); });
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
        errno = nError;
    }

    PipeSignalGuard(PipeSignalGuard const &) = delete;
    PipeSignalGuard & operator=(PipeSignalGuard const &) = delete;

    void Raised() { m_bRaised = true; }

private:
    sigset_t m_pipe;
    sigset_t m_before;
    bool m_bRaised = false;
    bool m_bWasPending = false;
};

} // namespace kvx::win32
