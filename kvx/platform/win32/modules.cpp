#include "kvx/platform/win32/modules.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/paths.h"

#include <algorithm>
#include <climits>
#include <string_view>

#include <unistd.h>

namespace
{

/// Where an executable starts by custom. It is no address here, and no multiple-of-4 number of the handle table
/// can be taken for it.
HMODULE ExecutableModule()
{
    return reinterpret_cast<HMODULE>(static_cast<UINT_PTR>(0x140000001));
}

} // namespace

HMODULE GetModuleHandleW(LPCWSTR pszName)
{
    if (!pszName)
        return ExecutableModule();
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

DWORD GetModuleFileNameW(HMODULE hModule, LPWSTR pszBuffer, DWORD nChars)
{
    if (hModule && hModule != ExecutableModule())
    {
        SetLastError(ERROR_MOD_NOT_FOUND);
        return 0;
    }
    if (!pszBuffer || nChars == 0)
    {
        SetLastError(pszBuffer ? ERROR_INSUFFICIENT_BUFFER : ERROR_INVALID_PARAMETER);
        return 0;
    }
    char szPath[PATH_MAX];
    ssize_t const nLength = readlink("/proc/self/exe", szPath, sizeof szPath);
    if (nLength < 0)
    {
        kvx::win32::SetLastErrorFromErrno();
        return 0;
    }
    std::string_view path(szPath, static_cast<std::size_t>(nLength));
    // The kernel's mark on an executable that was replaced while it runs.
    if (constexpr std::string_view Deleted = " (deleted)"; path.ends_with(Deleted))
        if (std::string const strPath(path); access(strPath.c_str(), F_OK) != 0)
            path.remove_suffix(Deleted.size());
    std::u16string const strModule = kvx::win32::FromHost(path);
    std::size_t const nCopied = std::min<std::size_t>(strModule.size(), nChars - 1);
    std::copy_n(strModule.data(), nCopied, pszBuffer);
    pszBuffer[nCopied] = 0;
    if (nCopied == strModule.size())
        return static_cast<DWORD>(nCopied);
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return nChars;
}
