#include "kvx/platform/win32/files/folders.h"
#include "kvx/platform/win32/errors.h"

#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/paths.h"

#include <cerrno>
#include <new>

#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

bool IsFolder(std::string const & strHost)
{
    struct stat info;
    return stat(strHost.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

void SetLastErrorForFolder(int nErrno, std::string const & strHost)
{
    struct stat info;
    // With a slash at its end the path would ask for a folder again.
    std::string const strThing = strHost.substr(0, strHost.find_last_not_of('/') + 1);
    if (nErrno == ENOTDIR && lstat(strThing.c_str(), &info) == 0)
    {
        SetLastError(ERROR_DIRECTORY);
    }
    else
    {
        SetLastErrorForPath(nErrno);
    }
}

} // namespace kvx::win32

using namespace kvx::win32;

BOOL CreateDirectoryW(LPCWSTR pszPath, LPSECURITY_ATTRIBUTES)
try
{
    std::string strHost = ToHost(pszPath, LastComponent::AsWritten);
    if (strHost.empty())
    {
        return FALSE;
    }
    FindInAnyCase(strHost);
    if (mkdir(strHost.c_str(), 0777) == 0)
    {
        return TRUE;
    }
    if (errno == EEXIST)
    {
        return Refuse(ERROR_ALREADY_EXISTS);
    }
    return errno == ENOENT || errno == ENOTDIR ? Refuse(ERROR_PATH_NOT_FOUND) : RefuseByErrno();
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL RemoveDirectoryW(LPCWSTR pszPath)
try
{
    std::string strHost = ToHost(pszPath, LastComponent::AsWritten);
    if (strHost.empty())
    {
        return FALSE;
    }
    if (CallOnPath(strHost, [](char const * p) { return rmdir(p); }) == 0)
    {
        return TRUE;
    }
    int const nError = errno;
    if (nError == ENOTEMPTY || nError == EEXIST)
    {
        return Refuse(ERROR_DIR_NOT_EMPTY);
    }
    if (nError == ENOTDIR)
    {
        while (strHost.size() > 1 && strHost.back() == '/')
        {
            strHost.pop_back();
        }
        struct stat info;
        if (lstat(strHost.c_str(), &info) == 0 && S_ISLNK(info.st_mode) && IsFolder(strHost))
        {
            return unlink(strHost.c_str()) == 0 ? TRUE : RefuseByErrno();
        }
        return Refuse(lstat(strHost.c_str(), &info) == 0 ? ERROR_DIRECTORY : ERROR_PATH_NOT_FOUND);
    }
    SetLastErrorForPath(nError);
    return FALSE;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}
