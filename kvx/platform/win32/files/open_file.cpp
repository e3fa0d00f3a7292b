/// Opening and creating files: what CreateFileW does.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/files/attributes.h"
#include "kvx/platform/win32/files/file_object.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/pipes.h"
#include "kvx/platform/win32/retry.h"

#include <cerrno>
#include <new>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

struct Request
{
    bool bRead;
    bool bWrite;
    bool bAppend;
    bool bTruncate;
    int nFlags;
    mode_t nMode;
};

Request Translate(DWORD dwAccess, DWORD dwDisposition, DWORD dwFlags)
{
    Request request{};
    request.bRead = dwAccess & (GENERIC_READ | GENERIC_ALL | GENERIC_EXECUTE | FILE_READ_DATA);
    bool const bAnywhere = dwAccess & (GENERIC_WRITE | GENERIC_ALL | FILE_WRITE_DATA);
    request.bAppend = !bAnywhere && (dwAccess & FILE_APPEND_DATA);
    request.bWrite = bAnywhere || request.bAppend;
    request.bTruncate = dwDisposition == CREATE_ALWAYS || dwDisposition == TRUNCATE_EXISTING;
    // Opening a fifo or a device must not wait for its other side.
    request.nFlags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    if (request.bWrite || request.bTruncate)
    {
        request.nFlags |= request.bRead || !request.bWrite ? O_RDWR : O_WRONLY;
    }
    else if (!request.bRead && dwDisposition == OPEN_EXISTING)
    {
        request.nFlags = O_CLOEXEC | O_PATH | (dwFlags & FILE_FLAG_OPEN_REPARSE_POINT ? O_NOFOLLOW : 0);
    }
    if (request.bAppend)
    {
        request.nFlags |= O_APPEND;
    }
    if (dwFlags & FILE_FLAG_WRITE_THROUGH)
    {
        request.nFlags |= O_DSYNC;
    }
    if (dwFlags & FILE_FLAG_OPEN_REPARSE_POINT)
    {
        request.nFlags |= O_NOFOLLOW;
    }
    request.nMode = dwFlags & FILE_ATTRIBUTE_READONLY ? 0444 : 0666;
    return request;
}

/// Opens or creates; tells in `bCreated` which. Nothing with errno on failure.
UniqueFd OpenHost(std::string & strHost, Request const & request, DWORD dwDisposition, DWORD dwFlags, bool & bCreated)
{
    auto const open = [&](int nFlags)
    { return UniqueFd(Retry([&] { return ::open(strHost.c_str(), nFlags, request.nMode); })); };
    bCreated = false;
    bool const bMayCreate = dwDisposition != OPEN_EXISTING && dwDisposition != TRUNCATE_EXISTING;
    if (!bMayCreate && IsKnownMissing(strHost))
    {
        errno = ENOENT;
        return {};
    }
    // Another process may create or delete the file between the calls.
    for (int nTries = 0; nTries < 100; ++nTries)
    {
        UniqueFd file;
        if (dwDisposition != CREATE_NEW)
        {
            file = open(request.nFlags);
            if (!file && errno == EISDIR && (dwFlags & FILE_FLAG_BACKUP_SEMANTICS) && !request.bTruncate)
            {
                file = open(O_CLOEXEC | O_RDONLY | O_DIRECTORY);
            }
            if (file || errno != ENOENT)
            {
                return file;
            }
        }
        if (FindInAnyCase(strHost) && dwDisposition != CREATE_NEW)
        {
            continue;
        }
        if (!bMayCreate)
        {
            return file;
        }
        file = open(request.nFlags | O_CREAT | O_EXCL);
        bCreated = static_cast<bool>(file);
        if (!bCreated && errno == ENOENT)
        {
            errno = ENOTDIR; // what is missing is the way there
        }
        if (bCreated || errno != EEXIST || dwDisposition == CREATE_NEW)
        {
            return file;
        }
        struct stat info;
        if (lstat(strHost.c_str(), &info) == 0 && S_ISLNK(info.st_mode) && stat(strHost.c_str(), &info) != 0)
        {
            // A link that leads nowhere: the file comes to be where it points.
            file = open(request.nFlags | O_CREAT);
            bCreated = static_cast<bool>(file);
            return file;
        }
    }
    return {};
}

HANDLE CreateFileImpl(LPCWSTR pszPath, DWORD dwAccess, DWORD dwShare, DWORD dwDisposition, DWORD dwFlags)
{
    if (dwDisposition < CREATE_NEW || dwDisposition > TRUNCATE_EXISTING ||
        (dwShare & ~(FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE)))
    {
        Refuse(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    Request const request = Translate(dwAccess, dwDisposition, dwFlags);
    if (dwDisposition == TRUNCATE_EXISTING && !request.bWrite)
    {
        Refuse(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    std::string strHost = ToHost(pszPath, LastComponent::AsWritten);
    if (strHost.empty())
    {
        return nullptr;
    }
    bool bCreated = false;
    UniqueFd opened = OpenHost(strHost, request, dwDisposition, dwFlags, bCreated);
    if (!opened)
    {
        if (errno == EEXIST)
        {
            Refuse(ERROR_FILE_EXISTS);
        }
        else
        {
            SetLastErrorForPath(errno);
        }
        return nullptr;
    }
    int const nDescriptor = opened.Get();
    struct stat info;
    if (fstat(nDescriptor, &info) != 0)
    {
        RefuseByErrno();
        return nullptr;
    }
    Ref<File> const file(new File(std::move(opened), request.bRead, request.bWrite, info.st_mode));
    bool const bFolder = S_ISDIR(info.st_mode);
    bool const bPlain = S_ISREG(info.st_mode);
    if ((bFolder && (!(dwFlags & FILE_FLAG_BACKUP_SEMANTICS) || dwDisposition == CREATE_ALWAYS)) ||
        (bPlain && !bCreated && (request.bWrite || request.bTruncate) && IsReadOnly(info.st_mode)))
    {
        Refuse(dwDisposition == CREATE_NEW ? ERROR_FILE_EXISTS : ERROR_ACCESS_DENIED);
        return nullptr;
    }
    bool const bDelete = (dwAccess & (DELETE | GENERIC_ALL)) || (dwFlags & FILE_FLAG_DELETE_ON_CLOSE);
    DWORD const dwOwn = (request.bRead ? FILE_SHARE_READ : 0) | (request.bWrite ? FILE_SHARE_WRITE : 0) |
                        (bDelete ? FILE_SHARE_DELETE : 0);
    if (bPlain && dwOwn != 0)
    {
        if (!file->Enter({info.st_dev, info.st_ino, dwOwn, dwShare}))
        {
            Refuse(ERROR_SHARING_VIOLATION);
            return nullptr;
        }
        if (dwFlags & FILE_FLAG_DELETE_ON_CLOSE)
        {
            file->DeleteOnClose(strHost);
        }
    }
    if (bPlain && request.bTruncate && !bCreated && Retry([&] { return ftruncate(nDescriptor, 0); }) != 0)
    {
        RefuseByErrno();
        return nullptr;
    }
    if (!bPlain && !bFolder && !(request.nFlags & O_PATH))
    {
        fcntl(nDescriptor, F_SETFL, request.nFlags & ~O_NONBLOCK);
    }
    HANDLE const hFile = OpenHandle(file);
    if (hFile && dwDisposition != OPEN_EXISTING && dwDisposition != TRUNCATE_EXISTING)
    {
        SetLastError(bCreated ? ERROR_SUCCESS : ERROR_ALREADY_EXISTS);
    }
    return hFile;
}

} // namespace

} // namespace kvx::win32

using namespace kvx::win32;

HANDLE CreateFileW(LPCWSTR pszPath, DWORD dwAccess, DWORD dwShare, LPSECURITY_ATTRIBUTES, DWORD dwDisposition,
                   DWORD dwFlags, HANDLE hTemplate)
try
{
    if (hTemplate)
    {
        Refuse(ERROR_NOT_SUPPORTED);
        return INVALID_HANDLE_VALUE;
    }
    HANDLE const hFile = IsPipePath(pszPath) ? OpenNamedPipe(pszPath, dwAccess, dwDisposition)
                                             : CreateFileImpl(pszPath, dwAccess, dwShare, dwDisposition, dwFlags);
    return hFile ? hFile : INVALID_HANDLE_VALUE;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<HANDLE>(INVALID_HANDLE_VALUE);
}
