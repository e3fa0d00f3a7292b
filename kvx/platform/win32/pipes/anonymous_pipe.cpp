/// Anonymous pipes, and how another process comes to an end of one.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/pipe_signal.h"
#include "kvx/platform/win32/pipes.h"
#include "kvx/platform/win32/pipes/pipe_end.h"
#include "kvx/platform/win32/retry.h"
#include "kvx/platform/win32/runtime_dir.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/unique_fd.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

/// An end of an anonymous pipe. Its descriptor doesn't block, and belongs to this process alone: another process that
/// duplicates the end opens it anew. A blocked call sleeps on an event beside it, which closing sets.
class FifoEnd final : public PipeEnd
{
public:
    FifoEnd(UniqueFd fifo, bool bRead) noexcept : PipeEnd(bRead, !bRead), m_fifo(std::move(fifo)) {}
    ~FifoEnd() override { UniqueFd(m_nWake.load()).Reset(); }

    void OnHandleClosed() noexcept override
    {
        m_bClosed.store(true, std::memory_order_seq_cst);
        if (int const nWake = m_nWake.load(std::memory_order_seq_cst); nWake >= 0)
        {
            ::eventfd_write(nWake, 1);
        }
    }

    BOOL Peek(void * pBuffer, DWORD nSize, DWORD & nRead, DWORD * pnAvailable) override
    {
        if (!CanRead())
        {
            return Refuse(ERROR_ACCESS_DENIED);
        }
        if (pBuffer && nSize > 0)
        {
            return Refuse(ERROR_NOT_SUPPORTED);
        }
        nRead = 0;
        pollfd polled = {m_fifo.Get(), POLLIN, 0};
        int nAvailable = 0;
        if (::poll(&polled, 1, 0) < 0 || ::ioctl(m_fifo.Get(), FIONREAD, &nAvailable) != 0)
        {
            SetLastErrorFromErrno();
            return FALSE;
        }
        if (nAvailable == 0 && (polled.revents & POLLHUP) != 0)
        {
            return Refuse(ERROR_BROKEN_PIPE);
        }
        if (pnAvailable)
        {
            *pnAvailable = static_cast<DWORD>(nAvailable);
        }
        return TRUE;
    }

private:
    BOOL Receive(void * pBuffer, DWORD nBytes, DWORD & nRead) override
    {
        for (;;)
        {
            ssize_t const nGot = ::read(m_fifo.Get(), pBuffer, std::min<std::size_t>(nBytes, MAX_TRANSFER));
            if (m_bClosed.load(std::memory_order_seq_cst))
            {
                return Refuse(ERROR_OPERATION_ABORTED);
            }
            if (nGot >= 0)
            {
                nRead = static_cast<DWORD>(nGot);
                return nGot > 0 ? TRUE : Refuse(ERROR_BROKEN_PIPE);
            }
            if (!WaitFor(POLLIN))
            {
                return FALSE;
            }
        }
    }

    BOOL Send(void const * pBuffer, DWORD nBytes, DWORD & nWritten) override
    {
        PipeSignalGuard guard;
        while (nWritten < nBytes)
        {
            if (m_bClosed.load(std::memory_order_seq_cst))
            {
                return Refuse(ERROR_OPERATION_ABORTED);
            }
            ssize_t const nSent = ::write(m_fifo.Get(), static_cast<char const *>(pBuffer) + nWritten,
                                          std::min<std::size_t>(nBytes - nWritten, MAX_TRANSFER));
            if (nSent > 0)
            {
                nWritten += static_cast<DWORD>(nSent);
            }
            else if (errno == EPIPE)
            {
                guard.Raised();
                return Refuse(ERROR_NO_DATA);
            }
            else if (!WaitFor(POLLOUT))
            {
                return FALSE;
            }
        }
        return TRUE;
    }

    /// Sleeps after a call that would have blocked. False with last error from errno, or ERROR_OPERATION_ABORTED.
    BOOL WaitFor(short nEvents)
    {
        if (errno == EINTR)
        {
            return TRUE;
        }
        if (errno != EAGAIN)
        {
            SetLastErrorFromErrno();
            return FALSE;
        }
        int nWake = m_nWake.load();
        if (nWake < 0)
        {
            UniqueFd wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
            if (!wake)
            {
                SetLastErrorFromErrno();
                return FALSE;
            }
            if (m_nWake.compare_exchange_strong(nWake, wake.Get(), std::memory_order_seq_cst))
            {
                nWake = wake.Detach();
            }
        }
        pollfd polled[] = {{m_fifo.Get(), nEvents, 0}, {nWake, POLLIN, 0}};
        // A close before this look has set the flag; one after it finds the event.
        if (!m_bClosed.load(std::memory_order_seq_cst))
        {
            ::poll(polled, 2, -1);
        }
        return m_bClosed.load(std::memory_order_seq_cst) ? Refuse(ERROR_OPERATION_ABORTED) : TRUE;
    }

    UniqueFd const m_fifo;
    std::atomic<int> m_nWake{-1};
    std::atomic<bool> m_bClosed{false};
};

/// The name that the file of an anonymous pipe last had: it tells other processes which handles are its ends.
std::string FifoName(int nProcess, HANDLE hRead, HANDLE hWrite)
{
    char szName[64];
    std::snprintf(szName, sizeof szName, "anonymous.%d.%zu.%zu", nProcess, reinterpret_cast<std::size_t>(hRead),
                  reinterpret_cast<std::size_t>(hWrite));
    return szName;
}

struct FifoHandles
{
    std::size_t nRead;
    std::size_t nWrite;
};

/// The handles in a link of /proc, which is FifoName's path with " (deleted)" behind it.
std::optional<FifoHandles> ParseFifoLink(std::string_view link, int nProcess)
{
    std::string const strHead = "/anonymous." + std::to_string(nProcess) + '.';
    std::size_t const nHead = link.rfind(strHead);
    if (nHead == link.npos)
    {
        return std::nullopt;
    }
    char const * const pEnd = link.data() + link.size();
    FifoHandles handles{};
    auto const read = std::from_chars(link.data() + nHead + strHead.size(), pEnd, handles.nRead);
    if (read.ec != std::errc() || read.ptr == pEnd || *read.ptr != '.')
    {
        return std::nullopt;
    }
    auto const write = std::from_chars(read.ptr + 1, pEnd, handles.nWrite);
    return write.ec == std::errc() ? std::optional(handles) : std::nullopt;
}

/// Whether a descriptor of another process was opened for this access: its link alone doesn't tell the ends apart.
bool HasAccess(int nInfoFolder, char const * pszDescriptor, int nAccess)
{
    UniqueFd const file(::openat(nInfoFolder, pszDescriptor, O_RDONLY | O_CLOEXEC));
    char text[256];
    ssize_t const nGot = file ? ::read(file.Get(), text, sizeof text) : -1;
    std::string_view const info(text, nGot > 0 ? static_cast<std::size_t>(nGot) : 0);
    constexpr std::string_view LABEL = "flags:\t";
    std::size_t const nLabel = info.find(LABEL);
    unsigned nFlags = 0;
    return nLabel != info.npos &&
           std::from_chars(info.data() + nLabel + LABEL.size(), info.data() + info.size(), nFlags, 8).ec ==
               std::errc() &&
           static_cast<int>(nFlags & O_ACCMODE) == nAccess;
}

} // namespace

Ref<KernelObject> OpenForeignPipe(int nProcess, HANDLE hForeign)
{
    std::string const strProcess = "/proc/" + std::to_string(nProcess);
    struct Closer
    {
        void operator()(DIR * pFolder) const { ::closedir(pFolder); }
    };
    UniqueFd opened(::open((strProcess + "/fd").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::unique_ptr<DIR, Closer> const folder(opened ? ::fdopendir(opened.Get()) : nullptr);
    if (folder)
    {
        opened.Detach();
    }
    else
    {
        SetLastError(errno == ENOENT ? static_cast<DWORD>(ERROR_INVALID_HANDLE) : ErrorFromErrno(errno));
        return nullptr;
    }
    UniqueFd const info(::open((strProcess + "/fdinfo").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    int const nFolder = dirfd(folder.get());
    auto const nForeign = reinterpret_cast<std::size_t>(hForeign);
    while (dirent const * const pEntry = ::readdir(folder.get()))
    {
        char link[4096];
        ssize_t const nLink = ::readlinkat(nFolder, pEntry->d_name, link, sizeof link);
        if (nLink <= 0)
        {
            continue;
        }
        auto const handles = ParseFifoLink({link, static_cast<std::size_t>(nLink)}, nProcess);
        if (!handles || (handles->nRead != nForeign && handles->nWrite != nForeign))
        {
            continue;
        }
        bool const bRead = handles->nRead == nForeign;
        if (!HasAccess(info.Get(), pEntry->d_name, bRead ? O_RDONLY : O_WRONLY))
        {
            continue;
        }
        UniqueFd fifo(::openat(nFolder, pEntry->d_name, (bRead ? O_RDONLY : O_WRONLY) | O_NONBLOCK | O_CLOEXEC));
        if (fifo)
        {
            return Ref<KernelObject>(new FifoEnd(std::move(fifo), bRead));
        }
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

} // namespace kvx::win32

using namespace kvx::win32;

BOOL CreatePipe(HANDLE * phRead, HANDLE * phWrite, LPSECURITY_ATTRIBUTES, DWORD nSize)
try
{
    static constinit std::atomic<unsigned> s_nPipes{0};
    if (!phRead || !phWrite)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    UninterruptedScope const scope;
    UniqueFd const folder = OpenRuntimeFolder();
    if (!folder)
    {
        return FALSE;
    }
    // The file has a name for as long as it takes to open both ends and to give it its last one.
    std::string strName = "anonymous." + std::to_string(::getpid()) + ".new." + std::to_string(s_nPipes++);
    ::unlinkat(folder.Get(), strName.c_str(), 0); // a dead process's, which had the same number
    if (::mkfifoat(folder.Get(), strName.c_str(), S_IRUSR | S_IWUSR) != 0)
    {
        SetLastErrorFromErrno();
        return FALSE;
    }
    constexpr int FLAGS = O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW;
    UniqueFd read(::openat(folder.Get(), strName.c_str(), O_RDONLY | FLAGS));
    UniqueFd write(read ? ::openat(folder.Get(), strName.c_str(), O_WRONLY | FLAGS) : -1);
    HANDLE hRead = nullptr;
    HANDLE hWrite = nullptr;
    if (!write)
    {
        SetLastErrorFromErrno();
    }
    else
    {
        if (nSize > 65536)
        {
            ::fcntl(write.Get(), F_SETPIPE_SZ, static_cast<int>(std::min<DWORD>(nSize, 1 << 30)));
        }
        hRead = OpenHandle(Ref<KernelObject>(new FifoEnd(std::move(read), true)));
        hWrite = hRead ? OpenHandle(Ref<KernelObject>(new FifoEnd(std::move(write), false))) : nullptr;
    }
    if (hWrite)
    {
        std::string const strLast = FifoName(::getpid(), hRead, hWrite);
        if (::renameat(folder.Get(), strName.c_str(), folder.Get(), strLast.c_str()) == 0)
        {
            strName = strLast;
        }
    }
    ::unlinkat(folder.Get(), strName.c_str(), 0);
    if (!hWrite)
    {
        if (hRead)
        {
            CloseObject(hRead);
        }
        return FALSE;
    }
    *phRead = hRead;
    *phWrite = hWrite;
    return TRUE;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}
