#include "kvx/platform/win32/system.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/processes.h"
#include "kvx/platform/win32/threads.h"
#include "kvx/platform/win32/unique_fd.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include <elf.h>
#include <fcntl.h>

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

void GetNativeSystemInfo(SYSTEM_INFO * pInfo) noexcept
{
    GetSystemInfo(pInfo);
}

BOOL GetVersionExW(OSVERSIONINFOW * pInfo) noexcept
{
    if (!pInfo || pInfo->dwOSVersionInfoSize != sizeof(OSVERSIONINFOW))
    {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return FALSE;
    }
    utsname names{};
    ::uname(&names);
    *pInfo = {
        .dwOSVersionInfoSize = sizeof(OSVERSIONINFOW),
        .dwMajorVersion = 10,
        .dwMinorVersion = 0,
        .dwBuildNumber = 0,
        .dwPlatformId = VER_PLATFORM_WIN32_NT,
        .szCSDVersion = {},
    };
    auto out = std::begin(pInfo->szCSDVersion);
    for (std::string_view const part :
         {std::string_view(names.sysname), std::string_view(" "), std::string_view(names.release)})
    {
        for (char const c : part)
        {
            if (out < std::end(pInfo->szCSDVersion) - 1)
            {
                *out++ = static_cast<WCHAR>(static_cast<BYTE>(c));
            }
        }
    }
    return TRUE;
}

BOOL IsWow64Process(HANDLE hProcess, BOOL * pbWow64)
{
    if (!pbWow64)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    if (hProcess == GetCurrentProcess())
    {
        *pbWow64 = FALSE; // this layer is built for 64 bits alone
        return TRUE;
    }
    DWORD const dwProcess = GetProcessId(hProcess);
    if (dwProcess == 0)
    {
        return FALSE;
    }
    std::string const strPath = "/proc/" + std::to_string(dwProcess) + "/exe";
    kvx::win32::UniqueFd const file(::open(strPath.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<unsigned char, EI_NIDENT> ident{};
    if (!file || ::read(file.Get(), ident.data(), ident.size()) != static_cast<ssize_t>(ident.size()))
    {
        kvx::win32::SetLastErrorFromErrno();
        return FALSE;
    }
    *pbWow64 = ident[EI_CLASS] == ELFCLASS32;
    return TRUE;
}

namespace
{

struct Mapping
{
    std::uintptr_t nBegin = 0;
    std::uintptr_t nEnd = 0;
    std::array<char, 5> access{};
    std::uint64_t nInode = 0;
    std::string strDevice;
};

bool ReadMapping(std::FILE * pFile, Mapping & mapping)
{
    char * pszLine = nullptr;
    std::size_t nLine = 0;
    bool bRead = false;
    if (::getline(&pszLine, &nLine, pFile) > 0)
    {
        std::array<char, 16> device{};
        bRead = std::sscanf(pszLine, "%" SCNxPTR "-%" SCNxPTR " %4s %*s %15s %" SCNu64, &mapping.nBegin, &mapping.nEnd,
                            mapping.access.data(), device.data(), &mapping.nInode) == 5;
        mapping.strDevice = device.data();
    }
    std::free(pszLine);
    return bRead;
}

DWORD ProtectionOf(std::array<char, 5> const & access)
{
    bool const bRead = access[0] == 'r';
    bool const bWrite = access[1] == 'w';
    if (access[2] == 'x')
    {
        return bWrite ? PAGE_EXECUTE_READWRITE : bRead ? PAGE_EXECUTE_READ : PAGE_EXECUTE;
    }
    return bWrite ? PAGE_READWRITE : bRead ? PAGE_READONLY : PAGE_NOACCESS;
}

} // namespace

SIZE_T VirtualQuery(LPCVOID pAddress, MEMORY_BASIC_INFORMATION * pInfo, SIZE_T nSize)
{
    constexpr LONG ERROR_BAD_LENGTH = 24;
    constexpr std::uintptr_t USER_END = std::uintptr_t(1) << 47;
    auto const nAddress = reinterpret_cast<std::uintptr_t>(pAddress);
    if (!pInfo || nSize < sizeof(MEMORY_BASIC_INFORMATION) || nAddress >= USER_END)
    {
        SetLastError(nAddress >= USER_END ? ERROR_INVALID_PARAMETER : ERROR_BAD_LENGTH);
        return 0;
    }
    kvx::win32::UniqueFd maps(::open("/proc/self/maps", O_RDONLY | O_CLOEXEC));
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> const file(maps ? ::fdopen(maps.Get(), "r") : nullptr,
                                                                &std::fclose);
    if (file)
    {
        maps.Detach();
    }
    else
    {
        kvx::win32::SetLastErrorFromErrno();
        return 0;
    }
    std::uintptr_t const nPage = nAddress & ~(static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE)) - 1);
    Mapping mapping;
    Mapping previous;
    std::uintptr_t nBase = 0; // of the run of mappings of one file
    while (ReadMapping(file.get(), mapping) && mapping.nEnd <= nAddress)
    {
        bool const bSameFile =
            mapping.nInode != 0 && mapping.nInode == previous.nInode && mapping.strDevice == previous.strDevice;
        nBase = bSameFile ? nBase : mapping.nBegin;
        previous = mapping;
    }
    auto const asPointer = [](std::uintptr_t n) { return reinterpret_cast<PVOID>(n); };
    if (mapping.nBegin > nAddress || mapping.nEnd <= nAddress)
    {
        std::uintptr_t const nNext = mapping.nBegin > nAddress ? mapping.nBegin : USER_END;
        *pInfo = {asPointer(nPage), nullptr, 0, nNext - nPage, MEM_FREE, PAGE_NOACCESS, 0};
        return sizeof *pInfo;
    }
    bool const bSameFile =
        mapping.nInode != 0 && mapping.nInode == previous.nInode && mapping.strDevice == previous.strDevice;
    DWORD const dwProtect = ProtectionOf(mapping.access);
    *pInfo = {
        asPointer(nPage), asPointer(bSameFile ? nBase : mapping.nBegin), dwProtect, mapping.nEnd - nPage, MEM_COMMIT,
        dwProtect,        mapping.nInode == 0 ? MEM_PRIVATE : MEM_MAPPED};
    return sizeof *pInfo;
}
