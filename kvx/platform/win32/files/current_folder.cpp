/// The current folder, and paths that begin in it.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/files/folders.h"
#include "kvx/platform/win32/paths.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <string>

#include <unistd.h>

using namespace kvx::win32;

DWORD GetFullPathNameW(LPCWSTR pszPath, DWORD nChars, LPWSTR pszBuffer, LPWSTR * ppszFilePart)
try
{
    if (ppszFilePart)
    {
        *ppszFilePart = nullptr;
    }
    if (!pszPath || !*pszPath)
    {
        Refuse(ERROR_INVALID_NAME);
        return 0;
    }
    std::u16string const strFull = ToFullPath(pszPath);
    DWORD const nResult = CopyText(strFull, nChars, pszBuffer);
    std::size_t const nName = NamePosition(strFull);
    if (ppszFilePart && nResult == strFull.size() && nName < strFull.size())
    {
        *ppszFilePart = pszBuffer + nName;
    }
    return nResult;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(0);
}

DWORD GetCurrentDirectoryW(DWORD nChars, LPWSTR pszBuffer)
try
{
    std::unique_ptr<char, decltype(&std::free)> const pszCurrent(getcwd(nullptr, 0), &std::free);
    if (!pszCurrent)
    {
        RefuseByErrno();
        return 0;
    }
    return CopyText(FromHost(pszCurrent.get()), nChars, pszBuffer);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(0);
}

BOOL SetCurrentDirectoryW(LPCWSTR pszPath)
try
{
    std::string strHost = ToHost(pszPath, LastComponent::AsWritten);
    if (strHost.empty())
    {
        return FALSE;
    }
    if (CallOnPath(strHost, [](char const * p) { return chdir(p); }) == 0)
    {
        return TRUE;
    }
    SetLastErrorForFolder(errno, strHost);
    return FALSE;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}
