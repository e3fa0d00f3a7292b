/// Copying, moving and deleting files by name.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/files/attributes.h"
#include "kvx/platform/win32/files/share_table.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/retry.h"
#include "kvx/platform/win32/unique_fd.h"

#include <cerrno>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

/// Copies what is left of one descriptor to the other.
bool CopyContents(int nFrom, int nTo)
{
    // Some file systems copy by reference; those that can't, or files without a size, are read and written.
    for (;;)
    {
        ssize_t const n = Retry([&] { return copy_file_range(nFrom, nullptr, nTo, nullptr, MAX_TRANSFER, 0); });
        if (n <= 0)
        {
            break;
        }
    }
    std::vector<char> buffer(256 * 1024);
    for (;;)
    {
        ssize_t const nRead = Retry([&] { return read(nFrom, buffer.data(), buffer.size()); });
        if (nRead <= 0)
        {
            return nRead == 0;
        }
        for (ssize_t nDone = 0; nDone < nRead;)
        {
            ssize_t const n =
                Retry([&] { return write(nTo, buffer.data() + nDone, static_cast<std::size_t>(nRead - nDone)); });
            if (n < 0)
            {
                return false;
            }
            nDone += n;
        }
    }
}

/// Both paths are looked up in any case.
bool CopyHost(std::string strFrom, std::string strTo, bool bFailIfExists)
{
    constexpr int FLAGS = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    UniqueFd const fromFile(CallOnPath(strFrom, [&](char const * p) { return open(p, O_RDONLY | FLAGS); }));
    int const from = fromFile.Get();
    struct stat source;
    if (from < 0 || fstat(from, &source) != 0)
    {
        SetLastErrorForPath(errno);
        return false;
    }
    if (!S_ISREG(source.st_mode))
    {
        return Refuse(ERROR_ACCESS_DENIED);
    }
    FindInAnyCase(strTo);
    // Until it is whole the copy must be writable, and no one else's.
    UniqueFd toFile(open(strTo.c_str(), O_WRONLY | O_CREAT | O_EXCL | FLAGS, 0600));
    bool const bCreated = static_cast<bool>(toFile);
    if (!bCreated && errno == EEXIST)
    {
        if (bFailIfExists)
        {
            return Refuse(ERROR_FILE_EXISTS);
        }
        toFile = UniqueFd(open(strTo.c_str(), O_WRONLY | FLAGS));
    }
    else if (!bCreated && errno == ENOENT)
    {
        errno = ENOTDIR; // what is missing is the way there
    }
    int const to = toFile.Get();
    struct stat target;
    if (to < 0 || fstat(to, &target) != 0)
    {
        SetLastErrorForPath(errno);
        return false;
    }
    if (target.st_dev == source.st_dev && target.st_ino == source.st_ino)
    {
        return Refuse(ERROR_SHARING_VIOLATION);
    }
    if (!S_ISREG(target.st_mode) || IsReadOnly(target.st_mode))
    {
        return Refuse(ERROR_ACCESS_DENIED);
    }
    TransientOpening const reading(
        {source.st_dev, source.st_ino, FILE_SHARE_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE});
    TransientOpening const writing({target.st_dev, target.st_ino, FILE_SHARE_WRITE, 0});
    timespec const times[2] = {source.st_atim, source.st_mtim};
    bool bDone = false;
    if (!reading || !writing)
    {
        Refuse(ERROR_SHARING_VIOLATION);
    }
    else if (ftruncate(to, 0) != 0 || !CopyContents(from, to) || (bCreated && fchmod(to, source.st_mode & 0777) != 0))
    {
        RefuseByErrno();
    }
    else
    {
        bDone = true;
        [[maybe_unused]] int const nIgnored = futimens(to, times); // refused to who doesn't own the target
    }
    if (!bDone && bCreated)
    {
        unlink(strTo.c_str());
    }
    return bDone;
}

} // namespace

} // namespace kvx::win32

using namespace kvx::win32;

BOOL DeleteFileW(LPCWSTR pszPath)
try
{
    std::string strHost = ToHost(pszPath, LastComponent::AsWritten);
    if (strHost.empty())
    {
        return FALSE;
    }
    struct stat info;
    if (CallOnPath(strHost, [&](char const * p) { return lstat(p, &info); }) != 0)
    {
        SetLastErrorForPath(errno);
        return FALSE;
    }
    if (S_ISDIR(info.st_mode) || (S_ISREG(info.st_mode) && IsReadOnly(info.st_mode)))
    {
        return Refuse(ERROR_ACCESS_DENIED);
    }
    if (!MayDeleteFile(info.st_dev, info.st_ino))
    {
        return Refuse(ERROR_SHARING_VIOLATION);
    }
    if (unlink(strHost.c_str()) != 0)
    {
        SetLastErrorForPath(errno);
        return FALSE;
    }
    return TRUE;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL MoveFileW(LPCWSTR pszFrom, LPCWSTR pszTo)
try
{
    std::string strFrom = ToHost(pszFrom, LastComponent::AsWritten);
    if (strFrom.empty())
    {
        return FALSE;
    }
    std::string strTo = ToHost(pszTo, LastComponent::AsWritten);
    if (strTo.empty())
    {
        return FALSE;
    }
    struct stat info;
    if (CallOnPath(strFrom, [&](char const * p) { return lstat(p, &info); }) != 0)
    {
        SetLastErrorForPath(errno);
        return FALSE;
    }
    FindInAnyCase(strTo);
    if (!MayDeleteFile(info.st_dev, info.st_ino))
    {
        return Refuse(ERROR_SHARING_VIOLATION);
    }
    // A file may change the case of its own name.
    if (strTo == strFrom)
    {
        strTo = ToHost(pszTo, LastComponent::Exact);
    }
    if (strTo == strFrom)
    {
        return TRUE;
    }
    int nResult = renameat2(AT_FDCWD, strFrom.c_str(), AT_FDCWD, strTo.c_str(), RENAME_NOREPLACE);
    if (nResult != 0 && errno == EINVAL && !S_ISDIR(info.st_mode))
    {
        // A file system without that flag: a second link fails in the same way when the name is taken.
        nResult = link(strFrom.c_str(), strTo.c_str());
        if (nResult == 0)
        {
            nResult = unlink(strFrom.c_str());
        }
    }
    if (nResult == 0)
    {
        return TRUE;
    }
    if (errno == EEXIST)
    {
        return Refuse(ERROR_ALREADY_EXISTS);
    }
    if (errno == EXDEV && S_ISREG(info.st_mode))
    {
        if (!CopyHost(strFrom, strTo, true))
        {
            if (GetLastError() == ERROR_FILE_EXISTS)
            {
                SetLastError(ERROR_ALREADY_EXISTS);
            }
            return FALSE;
        }
        return unlink(strFrom.c_str()) == 0 ? TRUE : RefuseByErrno();
    }
    if (errno == EXDEV)
    {
        return Refuse(ERROR_NOT_SAME_DEVICE);
    }
    if (errno == ENOENT)
    {
        return Refuse(ERROR_PATH_NOT_FOUND);
    }
    return RefuseByErrno();
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL CopyFileW(LPCWSTR pszFrom, LPCWSTR pszTo, BOOL bFailIfExists)
try
{
    std::string const strFrom = ToHost(pszFrom, LastComponent::AsWritten);
    if (strFrom.empty())
    {
        return FALSE;
    }
    std::string const strTo = ToHost(pszTo, LastComponent::AsWritten);
    return !strTo.empty() && CopyHost(strFrom, strTo, bFailIfExists);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}
