#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/threads.h"
#include "kvx/platform/win32/threads/thread_object.h"

#include <algorithm>
#include <array>

#include <linux/capability.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

/// Whether the user may set a nice value and come back to 0 afterwards.
bool MayChangeNice(int nNice) noexcept
{
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[2]{};
    if (::syscall(SYS_capget, &header, sets) == 0 && (sets[0].effective & 1u << CAP_SYS_NICE) != 0)
    {
        return true;
    }
    rlimit limit{};
    return ::getrlimit(RLIMIT_NICE, &limit) == 0 && limit.rlim_cur >= static_cast<rlim_t>(20 - std::min(nNice, 0));
}

struct PriorityRow
{
    int nPriority;
    int nNice;
};

constexpr std::array PRIORITIES{
    PriorityRow{THREAD_PRIORITY_IDLE, 19},           PriorityRow{THREAD_PRIORITY_LOWEST, 10},
    PriorityRow{THREAD_PRIORITY_BELOW_NORMAL, 5},    PriorityRow{THREAD_PRIORITY_NORMAL, 0},
    PriorityRow{THREAD_PRIORITY_ABOVE_NORMAL, -5},   PriorityRow{THREAD_PRIORITY_HIGHEST, -10},
    PriorityRow{THREAD_PRIORITY_TIME_CRITICAL, -19},
};

} // namespace

} // namespace kvx::win32

using namespace kvx::win32;

BOOL SetThreadPriority(HANDLE hThread, int nPriority) noexcept
{
    UninterruptedScope const scope;
    bool const bForeignSelf = hThread == GetCurrentThread() && !(g_pThreadData && g_pThreadData->pThread);
    Ref<ThreadObject> const thread = bForeignSelf ? Ref<ThreadObject>() : FindThread(hThread);
    ThreadData * const pData = bForeignSelf ? GetThreadData() : thread ? &thread->GetData() : nullptr;
    if (!pData)
    {
        return FALSE;
    }
    auto const row = std::ranges::find(PRIORITIES, nPriority, &PriorityRow::nPriority);
    if (row == PRIORITIES.end())
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (pData->priority.exchange(nPriority, std::memory_order_relaxed) == nPriority || (thread && !thread->IsRunning()))
    {
        return TRUE;
    }
    id_t const nId = bForeignSelf ? GetCurrentThreadId() : thread->WaitForId();
    if (MayChangeNice(row->nNice))
    {
        ::setpriority(PRIO_PROCESS, nId, row->nNice);
    }
    return TRUE;
}

int GetThreadPriority(HANDLE hThread) noexcept
{
    UninterruptedScope const scope;
    if (hThread == GetCurrentThread())
    {
        return g_pThreadData ? g_pThreadData->priority.load(std::memory_order_relaxed) : THREAD_PRIORITY_NORMAL;
    }
    Ref<ThreadObject> const thread = FindObject<ThreadObject>(hThread);
    return thread ? thread->GetData().priority.load(std::memory_order_relaxed) : THREAD_PRIORITY_ERROR_RETURN;
}
