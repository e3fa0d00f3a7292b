#include "kvx/platform/win32/low_descriptors.h"

#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/termination.h"

#include <array>
#include <cerrno>
#include <cstddef>

#include <fcntl.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

constexpr int LAST_STANDARD = 2;

constinit FutexMutex g_lock;
constinit int g_nGuards = 0;
constinit std::array<bool, LAST_STANDARD + 1> g_taken{};

} // namespace

int AboveStandard(int nFd) noexcept
{
    if (nFd < 0 || nFd > LAST_STANDARD) [[likely]]
    {
        return nFd;
    }
    int const nErrno = errno;
    int const nMoved = ::fcntl(nFd, F_DUPFD_CLOEXEC, LAST_STANDARD + 1);
    int const nResult = nMoved < 0 ? errno : nErrno;
    ::close(nFd);
    errno = nResult;
    return nMoved;
}

LowDescriptorGuard::LowDescriptorGuard() noexcept
{
    UninterruptedScope const scope;
    FutexGuard const guard(g_lock);
    ++g_nGuards;
    for (int n = 0; n <= LAST_STANDARD; ++n)
    {
        if (::fcntl(n, F_GETFD) >= 0)
        {
            continue;
        }
        // The lowest free number, so that it is one of these or there is none left among them.
        int const nFd = ::open("/", O_PATH | O_CLOEXEC);
        if (nFd > LAST_STANDARD)
        {
            ::close(nFd);
        }
        else if (nFd >= 0)
        {
            g_taken[static_cast<std::size_t>(nFd)] = true;
        }
    }
    for (bool const bTaken : g_taken)
    {
        m_bNeeded |= bTaken;
    }
}

LowDescriptorGuard::~LowDescriptorGuard()
{
    UninterruptedScope const scope;
    FutexGuard const guard(g_lock);
    if (--g_nGuards > 0)
    {
        return;
    }
    int const nErrno = errno;
    for (int n = 0; n <= LAST_STANDARD; ++n)
    {
        bool & bTaken = g_taken[static_cast<std::size_t>(n)];
        // The program may have opened its stream meanwhile, in place of ours.
        if (int const nFlags = bTaken ? ::fcntl(n, F_GETFL) : -1; nFlags >= 0 && (nFlags & O_PATH) != 0)
        {
            ::close(n);
        }
        bTaken = false;
    }
    errno = nErrno;
}

} // namespace kvx::win32
