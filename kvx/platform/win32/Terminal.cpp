#include "kvx/platform/Terminal.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/unique_fd.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{
// The signal handler's end and the waiters' end of a pipe. What is written is never read, so that every wait sees it.
constinit std::atomic<int> g_nSignalled{-1};
constinit std::atomic<int> g_nWaited{-1};

int ToDescriptor(kvx::StandardStream stream)
{
    return stream == kvx::StandardStream::Output ? STDOUT_FILENO : STDERR_FILENO;
}

void OnEndSignal(int)
{
    int const nKeep = errno;
    char const c = 0;
    [[maybe_unused]] ssize_t const nWritten = ::write(g_nSignalled, &c, 1); // a full pipe tells enough
    errno = nKeep;
}
} // namespace

namespace kvx
{
std::vector<std::string> GetProgramArguments(int argc, char ** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    return argc > 1 ? std::vector<std::string>(argv + 1, argv + argc) : std::vector<std::string>();
}

bool IsOpen(StandardStream stream)
{
    return ::fcntl(ToDescriptor(stream), F_GETFD) != -1;
}

bool IsTerminal(StandardStream stream)
{
    return ::isatty(ToDescriptor(stream)) == 1;
}

bool TakesEscapes(StandardStream stream)
{
    return IsTerminal(stream);
}

bool HasReaderGone()
{
    return errno == EPIPE;
}

int GetTerminalWidth()
{
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_col : 0;
}

bool CatchEndSignals()
{
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK) != 0)
    {
        win32::SetLastErrorFromErrno();
        return false;
    }
    win32::UniqueFd waited(ends[0]);
    win32::UniqueFd signalled(ends[1]);
    if (!waited || !signalled)
    {
        win32::SetLastErrorFromErrno();
        return false;
    }
    g_nWaited = waited.Detach();
    g_nSignalled = signalled.Detach();
    struct sigaction action
    {
    };
    action.sa_handler = &OnEndSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    if (::sigaction(SIGINT, &action, nullptr) != 0 || ::sigaction(SIGTERM, &action, nullptr) != 0)
    {
        win32::SetLastErrorFromErrno();
        return false;
    }
    return true;
}

bool WaitForEndSignal(DWORD timeout)
{
    using Clock = std::chrono::steady_clock;
    auto const end = Clock::now() + std::chrono::milliseconds(timeout);
    pollfd wait{g_nWaited, POLLIN, 0};
    for (;;)
    {
        int nWait = -1;
        if (timeout != INFINITE)
        {
            auto const left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
            nWait = static_cast<int>(left < 0 ? 0 : left > 1000000000 ? 1000000000 : left);
        }
        int const nReady = ::poll(&wait, 1, nWait);
        if (nReady > 0 || (nReady == 0 && Clock::now() >= end))
        {
            return nReady > 0;
        }
    }
}
} // namespace kvx
