#include "kvx/platform/HostInfo.h"

#include <string_view>

#include <sys/utsname.h>

HostInfo GetHostInfo()
{
    utsname names{};
    if (::uname(&names) != 0)
        return {};
    auto const widen = [](std::string_view strText)
    { return std::basic_string<WCHAR>(strText.begin(), strText.end()); };
    return {widen(names.sysname), widen(names.release), widen(names.machine)};
}
