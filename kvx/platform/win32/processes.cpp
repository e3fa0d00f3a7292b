#include "kvx/platform/win32/processes.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/pipes.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/threads.h"
#include "kvx/platform/win32/unique_fd.h"

#include <cerrno>
#include <new>

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace kvx::win32;

namespace
{

class Process final : public KernelObject
{
public:
    static constexpr Kind KIND = Kind::Process;

    Process(pid_t nId, UniqueFd fd) noexcept : KernelObject(KIND), m_nId(nId), m_fd(std::move(fd)) {}

    pid_t GetId() const { return m_nId; }

    /// Whether the process ends by then. The descriptor is the process itself, not its number, which another one may
    /// get.
    bool Wait(Deadline deadline) const
    {
        for (;;)
        {
            Deadline const nNow = GetMonotonicTime();
            Deadline const nLeft = deadline > nNow ? deadline - nNow : 0;
            timespec const time = {static_cast<time_t>(nLeft / 1000000000), static_cast<long>(nLeft % 1000000000)};
            pollfd polled = {m_fd.Get(), POLLIN, 0};
            if (::ppoll(&polled, 1, deadline == NEVER ? nullptr : &time, nullptr) > 0)
            {
                return true;
            }
            if (nLeft == 0)
            {
                return false;
            }
        }
    }

private:
    pid_t const m_nId;
    UniqueFd const m_fd;
};

} // namespace

HANDLE OpenProcess(DWORD, BOOL, DWORD dwProcessId) noexcept
{
    UninterruptedScope const scope;
    if (dwProcessId == 0 || dwProcessId > INT32_MAX)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    auto const nId = static_cast<pid_t>(dwProcessId);
    UniqueFd fd(static_cast<int>(::syscall(SYS_pidfd_open, nId, 0)));
    if (!fd)
    {
        SetLastError(errno == ESRCH ? static_cast<DWORD>(ERROR_INVALID_PARAMETER) : ErrorFromErrno(errno));
        return nullptr;
    }
    return OpenHandle(Ref<KernelObject>(new (std::nothrow) Process(nId, std::move(fd))));
}

DWORD GetProcessId(HANDLE hProcess) noexcept
{
    if (hProcess == GetCurrentProcess())
    {
        return GetCurrentProcessId();
    }
    Ref<Process> const process = FindObject<Process>(hProcess);
    return process ? static_cast<DWORD>(process->GetId()) : 0;
}

namespace kvx::win32
{

DWORD WaitForProcess(HANDLE hProcess, DWORD dwMilliseconds) noexcept
{
    Ref<Process> process;
    {
        UninterruptedScope const scope;
        process = FindObject<Process>(hProcess);
    }
    if (!process)
    {
        return WAIT_FAILED;
    }
    return process->Wait(MakeDeadline(dwMilliseconds)) ? WAIT_OBJECT_0 : WAIT_TIMEOUT;
}

Ref<KernelObject> TakeFromProcess(HANDLE hProcess, HANDLE hSource) noexcept
{
    if (hProcess == GetCurrentProcess())
    {
        return hSource == GetCurrentThread() ? GetCurrentThreadObject() : FindObject<KernelObject>(hSource);
    }
    Ref<Process> const process = FindObject<Process>(hProcess);
    if (!process)
    {
        return nullptr;
    }
    if (process->GetId() == ::getpid())
    {
        return FindObject<KernelObject>(hSource);
    }
    Ref<KernelObject> object = OpenForeignPipe(process->GetId(), hSource);
    if (object && process->Wait(GetMonotonicTime()))
    {
        // It may have been its successor under the same number.
        SetLastError(ERROR_INVALID_HANDLE);
        return nullptr;
    }
    return object;
}

} // namespace kvx::win32
