#include "kvx/platform/HostInfo.h"

#include <algorithm>
#include <limits>
#include <string_view>

#include <sys/stat.h>
#include <sys/utsname.h>

HostInfo GetHostInfo()
{
    utsname names{};
    if (::uname(&names) != 0)
    {
        return {};
    }
    auto const widen = [](std::string_view strText)
    { return std::basic_string<WCHAR>(strText.begin(), strText.end()); };
    return {widen(names.sysname), widen(names.release), widen(names.machine)};
}

DWORD CountThreads()
{
    // The folder has an entry for each thread, and each is a link more to it.
    struct stat tasks
    {
    };
    if (::stat("/proc/self/task", &tasks) != 0)
    {
        return std::numeric_limits<DWORD>::max();
    }
    return static_cast<DWORD>(std::max<nlink_t>(tasks.st_nlink, 3) - 2);
}
