#include "kvx/platform/win32/files/attributes.h"
#include "kvx/platform/win32/errors.h"

#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/files/file_object.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/time.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>

#include <fcntl.h>
#include <sys/sysmacros.h>

namespace kvx::win32
{

DWORD AttributesOf(mode_t nMode)
{
    DWORD dwAttributes = 0;
    if (S_ISLNK(nMode))
    {
        return FILE_ATTRIBUTE_REPARSE_POINT; // a link's own permissions mean nothing
    }
    if (S_ISDIR(nMode))
    {
        dwAttributes |= FILE_ATTRIBUTE_DIRECTORY;
    }
    else if (!S_ISREG(nMode))
    {
        dwAttributes |= FILE_ATTRIBUTE_DEVICE;
    }
    if (IsReadOnly(nMode))
    {
        dwAttributes |= FILE_ATTRIBUTE_READONLY;
    }
    return dwAttributes ? dwAttributes : FILE_ATTRIBUTE_NORMAL;
}

FILETIME ToFileTime(struct statx_timestamp const & time)
{
    constexpr LONGLONG UNIX_EPOCH = 116444736000000000; // in 100 ns since 1601
    LONGLONG const nTicks = std::max<LONGLONG>(0, UNIX_EPOCH + time.tv_sec * 10000000 + time.tv_nsec / 100);
    return {static_cast<DWORD>(nTicks), static_cast<DWORD>(nTicks >> 32)};
}

int Stat(int nFolder, char const * pszPath, int nFlags, struct statx & info)
{
    return statx(nFolder, pszPath, nFlags | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME, &info);
}

namespace
{

/// The attributes as GetFileAttributesW tells them, with all that goes with them.
bool Inspect(LPCWSTR pszPath, WIN32_FILE_ATTRIBUTE_DATA & data)
{
    std::string strHost = ToHost(pszPath, LastComponent::AsWritten);
    if (strHost.empty())
    {
        return false;
    }
    struct statx info;
    if (CallOnPath(strHost, [&](char const * p) { return Stat(AT_FDCWD, p, AT_SYMLINK_NOFOLLOW, info); }) != 0)
    {
        SetLastErrorForPath(errno);
        return false;
    }
    Describe(info, data);
    if (S_ISLNK(info.stx_mode) && Stat(AT_FDCWD, strHost.c_str(), 0, info) == 0)
    {
        Describe(info, data);
        data.dwFileAttributes = (data.dwFileAttributes & ~FILE_ATTRIBUTE_NORMAL) | FILE_ATTRIBUTE_REPARSE_POINT;
    }
    return true;
}

} // namespace

} // namespace kvx::win32

using namespace kvx::win32;

BOOL GetFileInformationByHandle(HANDLE hFile, BY_HANDLE_FILE_INFORMATION * pInfo)
{
    Ref<File> const file = FindObject<File>(hFile);
    if (!file)
    {
        return FALSE;
    }
    if (!pInfo)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    struct statx info;
    if (Stat(file->GetDescriptor(), "", AT_EMPTY_PATH, info) != 0)
    {
        return RefuseByErrno();
    }
    Describe(info, *pInfo);
    pInfo->dwVolumeSerialNumber = info.stx_dev_major << 20 | info.stx_dev_minor;
    pInfo->nNumberOfLinks = info.stx_nlink;
    pInfo->nFileIndexHigh = static_cast<DWORD>(info.stx_ino >> 32);
    pInfo->nFileIndexLow = static_cast<DWORD>(info.stx_ino);
    return TRUE;
}

BOOL GetFileTime(HANDLE hFile, FILETIME * pCreation, FILETIME * pLastAccess, FILETIME * pLastWrite)
{
    BY_HANDLE_FILE_INFORMATION info;
    if (!GetFileInformationByHandle(hFile, &info))
    {
        return FALSE;
    }
    if (pCreation)
    {
        *pCreation = info.ftCreationTime;
    }
    if (pLastAccess)
    {
        *pLastAccess = info.ftLastAccessTime;
    }
    if (pLastWrite)
    {
        *pLastWrite = info.ftLastWriteTime;
    }
    return TRUE;
}

BOOL SetFileTime(HANDLE hFile, FILETIME const *, FILETIME const * pLastAccess, FILETIME const * pLastWrite)
{
    Ref<File> const file = FindObject<File>(hFile);
    if (!file)
    {
        return FALSE;
    }
    if (!file->CanWrite())
    {
        return Refuse(ERROR_ACCESS_DENIED);
    }
    auto const toHost = [](FILETIME const * pTime) { return pTime ? ToHostTime(*pTime) : timespec{0, UTIME_OMIT}; };
    timespec const times[2] = {toHost(pLastAccess), toHost(pLastWrite)};
    if (times[0].tv_nsec < 0 || times[1].tv_nsec < 0)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    return futimens(file->GetDescriptor(), times) == 0 ? TRUE : RefuseByErrno();
}

DWORD GetFileAttributesW(LPCWSTR pszPath)
try
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    return Inspect(pszPath, data) ? data.dwFileAttributes : INVALID_FILE_ATTRIBUTES;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(INVALID_FILE_ATTRIBUTES);
}

BOOL GetFileAttributesExW(LPCWSTR pszPath, GET_FILEEX_INFO_LEVELS level, LPVOID pData)
try
{
    if (level != GetFileExInfoStandard || !pData)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    return Inspect(pszPath, *static_cast<WIN32_FILE_ATTRIBUTE_DATA *>(pData));
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL SetFileAttributesW(LPCWSTR pszPath, DWORD dwAttributes)
try
{
    std::string strHost = ToHost(pszPath, LastComponent::AsWritten);
    if (strHost.empty())
    {
        return FALSE;
    }
    struct stat info;
    if (CallOnPath(strHost, [&](char const * p) { return stat(p, &info); }) != 0)
    {
        SetLastErrorForPath(errno);
        return FALSE;
    }
    bool const bReadOnly = dwAttributes & FILE_ATTRIBUTE_READONLY;
    // On the original the attribute of a folder protects nothing; taking its write permission would.
    if (bReadOnly == IsReadOnly(info.st_mode) || S_ISDIR(info.st_mode))
    {
        return TRUE;
    }
    mode_t const nMode =
        bReadOnly ? info.st_mode & ~static_cast<mode_t>(S_IWUSR | S_IWGRP | S_IWOTH) : info.st_mode | S_IWUSR;
    return chmod(strHost.c_str(), nMode & 07777) == 0 ? TRUE : RefuseByErrno();
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}
