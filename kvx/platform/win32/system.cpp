#include "kvx/platform/win32/system.h"

#include "kvx/platform/win32/errors.h"

#include <algorithm>
#include <string_view>

#include <sys/utsname.h>
#include <unistd.h>

void GetSystemInfo(SYSTEM_INFO * pInfo) noexcept
{
    long const nProcessors = std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN));
    DWORD const dwPage = static_cast<DWORD>(::sysconf(_SC_PAGESIZE));
    *pInfo = {
        .wProcessorArchitecture = PROCESSOR_ARCHITECTURE_AMD64,
        .wReserved = 0,
        .dwPageSize = dwPage,
        .dwActiveProcessorMask = nProcessors >= 64 ? ~DWORD_PTR(0) : (DWORD_PTR(1) << nProcessors) - 1,
        .dwNumberOfProcessors = static_cast<DWORD>(nProcessors),
        .dwAllocationGranularity = dwPage,
    };
}

BOOL GetComputerNameW(LPWSTR pBuffer, DWORD * pSize) noexcept
{
    utsname names{};
    if (!pSize || ::uname(&names) != 0)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    std::string_view strName(names.nodename);
    strName = strName.substr(0, strName.find('.'));
    DWORD const nLength = static_cast<DWORD>(strName.size());
    if (!pBuffer || *pSize <= nLength)
    {
        *pSize = nLength + 1;
        SetLastError(ERROR_BUFFER_OVERFLOW);
        return FALSE;
    }
    *std::ranges::transform(strName, pBuffer, [](char c) { return static_cast<WCHAR>(static_cast<BYTE>(c)); }).out = 0;
    *pSize = nLength;
    return TRUE;
}
