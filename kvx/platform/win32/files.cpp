#include "kvx/platform/win32/files.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/fileobject.h"
#include "kvx/platform/win32/name_pattern.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/pipes.h"
#include "kvx/platform/win32/retry.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/time.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

/// The kernel moves no more than this in one call.
constexpr std::size_t MaxTransfer = 0x7FFFF000;

bool Refuse(DWORD dwError)
{
    SetLastError(dwError);
    return false;
}

BOOL Fail()
{
    SetLastErrorFromErrno();
    return FALSE;
}

/// Keeps SIGPIPE from this thread while it writes to a pipe.
class PipeSignalGuard
{
public:
    explicit PipeSignalGuard(bool bWanted) : m_bWanted(bWanted)
    {
        if (!m_bWanted)
        {
            return;
        }
        sigset_t pending;
        sigpending(&pending);
        m_bWasPending = sigismember(&pending, SIGPIPE);
        sigemptyset(&m_pipe);
        sigaddset(&m_pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &m_pipe, &m_before);
    }

    ~PipeSignalGuard()
    {
        if (!m_bWanted)
        {
            return;
        }
        int const nError = errno;
        timespec const now{};
        if (!m_bWasPending)
        {
            Retry([&] { return sigtimedwait(&m_pipe, nullptr, &now); });
        }
        pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
        errno = nError;
    }

    PipeSignalGuard(PipeSignalGuard const &) = delete;
    PipeSignalGuard & operator=(PipeSignalGuard const &) = delete;

private:
    bool m_bWanted;
    bool m_bWasPending = false;
    sigset_t m_pipe;
    sigset_t m_before;
};

/// The openings of all plain files of the process.
class ShareTable
{
public:
    bool Enter(Opening const & opening)
    {
        UninterruptedScope const scope;
        std::scoped_lock const lock(m_mutex);
        auto & openings = m_openings[{opening.device, opening.inode}];
        for (Opening const & other : openings)
        {
            if ((opening.dwAccess & ~other.dwShare) || (other.dwAccess & ~opening.dwShare))
            {
                return false;
            }
        }
        openings.push_back(opening);
        return true;
    }

    void Leave(Opening const & opening)
    {
        UninterruptedScope const scope;
        std::scoped_lock const lock(m_mutex);
        auto const it = m_openings.find({opening.device, opening.inode});
        auto & openings = it->second;
        auto const found =
            std::ranges::find_if(openings, [&](Opening const & other)
                                 { return other.dwAccess == opening.dwAccess && other.dwShare == opening.dwShare; });
        openings.erase(found);
        if (openings.empty())
        {
            m_openings.erase(it);
        }
    }

    /// Whether every opening of the file lets it be deleted or renamed.
    bool MayDelete(dev_t device, ino_t inode)
    {
        UninterruptedScope const scope;
        std::scoped_lock const lock(m_mutex);
        auto const it = m_openings.find({device, inode});
        return it == m_openings.end() || std::ranges::all_of(it->second, [](Opening const & opening)
                                                             { return (opening.dwShare & FILE_SHARE_DELETE) != 0; });
    }

private:
    std::mutex m_mutex;
    std::map<std::pair<dev_t, ino_t>, std::vector<Opening>> m_openings;
};

ShareTable & Shares()
{
    UninterruptedScope const scope;
    static ShareTable & table = *new ShareTable; // outlives handles that are closed at the process's end
    return table;
}

constexpr bool IsReadOnly(mode_t nMode)
{
    return (nMode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
}

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
    constexpr LONGLONG UnixEpoch = 116444736000000000; // in 100 ns since 1601
    LONGLONG const nTicks = std::max<LONGLONG>(0, UnixEpoch + time.tv_sec * 10000000 + time.tv_nsec / 100);
    return {static_cast<DWORD>(nTicks), static_cast<DWORD>(nTicks >> 32)};
}

/// Fills the fields that all information structures have in common.
template <typename Info>
void Describe(struct statx const & info, Info & target)
{
    target.dwFileAttributes = AttributesOf(info.stx_mode);
    auto const earlier = [](struct statx_timestamp const & a, struct statx_timestamp const & b)
    { return std::pair(a.tv_sec, a.tv_nsec) < std::pair(b.tv_sec, b.tv_nsec) ? a : b; };
    target.ftCreationTime =
        ToFileTime(info.stx_mask & STATX_BTIME ? info.stx_btime : earlier(info.stx_mtime, info.stx_ctime));
    target.ftLastAccessTime = ToFileTime(info.stx_atime);
    target.ftLastWriteTime = ToFileTime(info.stx_mtime);
    ULONGLONG const nSize = S_ISDIR(info.stx_mode) ? 0 : info.stx_size;
    target.nFileSizeHigh = static_cast<DWORD>(nSize >> 32);
    target.nFileSizeLow = static_cast<DWORD>(nSize);
}

int Stat(int nFolder, char const * pszPath, int nFlags, struct statx & info)
{
    return statx(nFolder, pszPath, nFlags | AT_NO_AUTOMOUNT, STATX_BASIC_STATS | STATX_BTIME, &info);
}

bool IsFolder(std::string const & strHost)
{
    struct stat info;
    return stat(strHost.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

/// SetLastErrorForPath for what must be a folder: ERROR_DIRECTORY if something else is there.
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

/// The part of a path after its last separator or drive.
std::size_t NamePosition(std::u16string_view path)
{
    std::size_t const n = path.find_last_of(u"\\/");
    if (n != path.npos)
    {
        return n + 1;
    }
    return path.size() >= 2 && path[1] == u':' ? 2 : 0;
}

} // namespace

bool MayDeleteFile(dev_t device, ino_t inode)
{
    return Shares().MayDelete(device, inode);
}

File::~File()
{
    Leave();
}

bool File::Enter(Opening const & opening)
{
    if (!Shares().Enter(opening))
    {
        return false;
    }
    m_opening = opening;
    m_bEntered.store(true, std::memory_order_release);
    return true;
}

void File::Leave() noexcept
{
    if (!m_bEntered.exchange(false, std::memory_order_acq_rel))
    {
        return;
    }
    Shares().Leave(m_opening);
    struct stat info;
    if (!m_strDeleted.empty() && lstat(m_strDeleted.c_str(), &info) == 0 && info.st_dev == m_opening.device &&
        info.st_ino == m_opening.inode)
    {
        unlink(m_strDeleted.c_str());
    }
}

void File::OnHandleClosed() noexcept
{
    Leave();
}

BOOL File::Read(void * pBuffer, DWORD nBytes, DWORD & nRead, OVERLAPPED * pOverlapped)
{
    if (!m_bRead)
    {
        return Refuse(ERROR_ACCESS_DENIED);
    }
    if (pOverlapped && pOverlapped->hEvent)
    {
        return Refuse(ERROR_NOT_SUPPORTED);
    }
    auto const nOffset =
        pOverlapped ? static_cast<ULONGLONG>(pOverlapped->OffsetHigh) << 32 | pOverlapped->Offset : 0ULL;
    if (nOffset > INT64_MAX)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    char * const pTarget = static_cast<char *>(pBuffer);
    while (nRead < nBytes)
    {
        std::size_t const nWanted = std::min<std::size_t>(nBytes - nRead, MaxTransfer);
        ssize_t const n = Retry(
            [&]
            {
                return pOverlapped ? pread(m_nDescriptor, pTarget + nRead, nWanted, static_cast<off_t>(nOffset + nRead))
                                   : read(m_nDescriptor, pTarget + nRead, nWanted);
            });
        if (n < 0)
        {
            if (nRead > 0)
            {
                break; // the next call meets the error again
            }
            return Fail();
        }
        nRead += static_cast<DWORD>(n);
        if (n == 0 || !S_ISREG(m_nMode))
        {
            break;
        }
    }
    if (pOverlapped)
    {
        lseek(m_nDescriptor, static_cast<off_t>(nOffset + nRead), SEEK_SET);
        pOverlapped->Internal = 0;
        pOverlapped->InternalHigh = nRead;
        if (nRead == 0 && nBytes > 0)
        {
            return Refuse(ERROR_HANDLE_EOF);
        }
    }
    return TRUE;
}

BOOL File::Write(void const * pBuffer, DWORD nBytes, DWORD & nWritten, OVERLAPPED * pOverlapped)
{
    if (!m_bWrite)
    {
        return Refuse(ERROR_ACCESS_DENIED);
    }
    if (pOverlapped && pOverlapped->hEvent)
    {
        return Refuse(ERROR_NOT_SUPPORTED);
    }
    auto const nOffset =
        pOverlapped ? static_cast<ULONGLONG>(pOverlapped->OffsetHigh) << 32 | pOverlapped->Offset : 0ULL;
    // All ones ask for the end of the file.
    bool const bAtEnd = pOverlapped && nOffset == UINT64_MAX;
    if (!bAtEnd && nOffset > INT64_MAX)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    if (bAtEnd && lseek(m_nDescriptor, 0, SEEK_END) < 0)
    {
        return Fail();
    }
    bool const bPositioned = pOverlapped && !bAtEnd;
    PipeSignalGuard const guard(S_ISFIFO(m_nMode) || S_ISSOCK(m_nMode));
    char const * const pSource = static_cast<char const *>(pBuffer);
    while (nWritten < nBytes)
    {
        std::size_t const nWanted = std::min<std::size_t>(nBytes - nWritten, MaxTransfer);
        ssize_t const n = Retry(
            [&]
            {
                return bPositioned
                           ? pwrite(m_nDescriptor, pSource + nWritten, nWanted, static_cast<off_t>(nOffset + nWritten))
                           : write(m_nDescriptor, pSource + nWritten, nWanted);
            });
        if (n < 0)
        {
            return Fail();
        }
        nWritten += static_cast<DWORD>(n);
    }
    if (pOverlapped)
    {
        if (bPositioned)
        {
            lseek(m_nDescriptor, static_cast<off_t>(nOffset + nWritten), SEEK_SET);
        }
        pOverlapped->Internal = 0;
        pOverlapped->InternalHigh = nWritten;
    }
    return TRUE;
}

BOOL File::Flush()
{
    if (!m_bWrite)
    {
        return Refuse(ERROR_ACCESS_DENIED);
    }
    if (Retry([&] { return fsync(m_nDescriptor); }) == 0 || errno == EINVAL || errno == EROFS)
    {
        return TRUE; // what can't be synced holds nothing back
    }
    return Fail();
}

DWORD File::GetType() const
{
    if (S_ISCHR(m_nMode))
    {
        return FILE_TYPE_CHAR;
    }
    return S_ISFIFO(m_nMode) || S_ISSOCK(m_nMode) ? FILE_TYPE_PIPE : FILE_TYPE_DISK;
}

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
        Fail();
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
        Fail();
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

/// Copies what is left of one descriptor to the other.
bool CopyContents(int nFrom, int nTo)
{
    // Some file systems copy by reference; those that can't, or files without a size, are read and written.
    for (;;)
    {
        ssize_t const n = Retry([&] { return copy_file_range(nFrom, nullptr, nTo, nullptr, MaxTransfer, 0); });
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

/// Holds a place in the table for the length of a call.
class TransientOpening
{
public:
    explicit TransientOpening(Opening const & opening) : m_opening(opening), m_bEntered(Shares().Enter(opening)) {}
    ~TransientOpening()
    {
        if (m_bEntered)
        {
            Shares().Leave(m_opening);
        }
    }
    TransientOpening(TransientOpening const &) = delete;
    TransientOpening & operator=(TransientOpening const &) = delete;
    explicit operator bool() const { return m_bEntered; }

private:
    Opening m_opening;
    bool m_bEntered;
};

/// Both paths are looked up in any case.
bool CopyHost(std::string strFrom, std::string strTo, bool bFailIfExists)
{
    constexpr int Flags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
    UniqueFd const fromFile(CallOnPath(strFrom, [&](char const * p) { return open(p, O_RDONLY | Flags); }));
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
    UniqueFd toFile(open(strTo.c_str(), O_WRONLY | O_CREAT | O_EXCL | Flags, 0600));
    bool const bCreated = static_cast<bool>(toFile);
    if (!bCreated && errno == EEXIST)
    {
        if (bFailIfExists)
        {
            return Refuse(ERROR_FILE_EXISTS);
        }
        toFile = UniqueFd(open(strTo.c_str(), O_WRONLY | Flags));
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
        Fail();
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

/// A search in progress.
class Find final : public KernelObject
{
public:
    static constexpr Kind KIND = Kind::Find;

    /// A search that is over after its one entry.
    Find() noexcept : KernelObject(KIND), m_pattern(u""), m_pFolder(nullptr, closedir), m_nDots(2) {}

    Find(DIR * pFolder, std::u16string_view pattern, bool bRoot)
        : KernelObject(KIND), m_pattern(pattern), m_pFolder(pFolder, closedir), m_nDots(bRoot ? 2 : 0)
    {
    }

    bool Next(WIN32_FIND_DATAW & data)
    {
        std::scoped_lock const lock(m_mutex);
        while (m_nDots < 2)
        {
            std::u16string_view const name = m_nDots == 0 ? u"." : u"..";
            char const * const pszName = m_nDots == 0 ? "." : "..";
            ++m_nDots;
            if (m_pattern.Matches(name) && Fill(dirfd(m_pFolder.get()), pszName, name, DT_DIR, data))
            {
                return true;
            }
        }
        while (m_pFolder)
        {
            errno = 0;
            dirent const * const pEntry = readdir(m_pFolder.get());
            if (!pEntry)
            {
                if (errno != 0)
                {
                    return Fail();
                }
                break;
            }
            std::string_view const bytes(pEntry->d_name);
            if (bytes == "." || bytes == "..")
            {
                continue;
            }
            std::u16string const strName = FromHost(bytes);
            if (m_pattern.Matches(strName) &&
                Fill(dirfd(m_pFolder.get()), pEntry->d_name, strName, pEntry->d_type, data))
            {
                return true;
            }
        }
        return Refuse(ERROR_NO_MORE_FILES);
    }

    /// False when the entry is gone by now, or its name is too long for the structure.
    static bool Fill(int nFolder, char const * pszName, std::u16string_view name, int nType, WIN32_FIND_DATAW & data)
    {
        struct statx info = {};
        if (Stat(nFolder, pszName, AT_SYMLINK_NOFOLLOW, info) != 0)
        {
            if (errno != EACCES || nType == DT_UNKNOWN)
            {
                return false;
            }
            // A folder that may be listed but not entered: the name and type are all that can be had.
            info.stx_mode = static_cast<std::uint16_t>(DTTOIF(nType) | S_IWUSR);
        }
        if (name.size() >= MAX_PATH)
        {
            return false;
        }
        data = {};
        Describe(info, data);
        if (S_ISLNK(info.stx_mode))
        {
            data.dwReserved0 = IO_REPARSE_TAG_SYMLINK;
        }
        std::ranges::copy(name, data.cFileName);
        return true;
    }

private:
    std::mutex m_mutex;
    NamePattern const m_pattern;
    std::unique_ptr<DIR, int (*)(DIR *)> m_pFolder;
    int m_nDots; ///< how many of "." and ".." are done with
};

namespace
{

Ref<Find> FindOne(std::u16string_view path, WIN32_FIND_DATAW & data)
{
    std::string strHost = ToHost(path, LastComponent::AsWritten);
    if (strHost.empty())
    {
        return nullptr;
    }
    struct stat info;
    if (CallOnPath(strHost, [&](char const * p) { return lstat(p, &info); }) != 0)
    {
        SetLastErrorForPath(errno);
        return nullptr;
    }
    // A search answers with the name as it stands in the folder.
    std::string_view const name = std::string_view(strHost).substr(strHost.rfind('/') + 1);
    if (name.empty() || !Find::Fill(AT_FDCWD, strHost.c_str(), FromHost(name), DT_UNKNOWN, data))
    {
        Refuse(ERROR_FILE_NOT_FOUND);
        return nullptr;
    }
    return Ref<Find>(new Find);
}

Ref<Find> FindMany(std::u16string_view folder, std::u16string_view pattern, WIN32_FIND_DATAW & data)
{
    std::string strFolder = folder.empty() ? "." : ToHost(folder, LastComponent::AsWritten);
    if (strFolder.empty())
    {
        return nullptr;
    }
    UniqueFd opened(CallOnPath(strFolder, [](char const * p) { return open(p, O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    DIR * const pFolder = opened ? fdopendir(opened.Get()) : nullptr;
    if (pFolder)
    {
        opened.Detach();
    }
    else
    {
        SetLastErrorForFolder(errno, strFolder);
        if (GetLastError() == ERROR_FILE_NOT_FOUND)
        {
            SetLastError(ERROR_PATH_NOT_FOUND);
        }
        return nullptr;
    }
    bool const bRoot = strFolder == "/" || strFolder == GetDriveCRoot() || strFolder == GetDriveCRoot() + "/";
    Ref<Find> find(new Find(pFolder, pattern, bRoot));
    if (!find->Next(data))
    {
        if (GetLastError() == ERROR_NO_MORE_FILES)
        {
            Refuse(ERROR_FILE_NOT_FOUND);
        }
        return nullptr;
    }
    return find;
}

} // namespace

} // namespace kvx::win32

using namespace kvx::win32;

HANDLE CreateFileW(LPCWSTR pszPath, DWORD dwAccess, DWORD dwShare, LPSECURITY_ATTRIBUTES, DWORD dwDisposition,
                   DWORD dwFlags, HANDLE hTemplate)
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

BOOL ReadFile(HANDLE hFile, LPVOID pBuffer, DWORD nBytes, LPDWORD pnRead, LPOVERLAPPED pOverlapped)
{
    DWORD nRead = 0;
    BOOL bDone = FALSE;
    if (Ref<IoObject> const file = FindObject<IoObject>(hFile))
    {
        bDone = file->Read(pBuffer, nBytes, nRead, pOverlapped);
    }
    if (pnRead)
    {
        *pnRead = nRead;
    }
    return bDone;
}

BOOL WriteFile(HANDLE hFile, LPCVOID pBuffer, DWORD nBytes, LPDWORD pnWritten, LPOVERLAPPED pOverlapped)
{
    DWORD nWritten = 0;
    BOOL bDone = FALSE;
    if (Ref<IoObject> const file = FindObject<IoObject>(hFile))
    {
        bDone = file->Write(pBuffer, nBytes, nWritten, pOverlapped);
    }
    if (pnWritten)
    {
        *pnWritten = nWritten;
    }
    return bDone;
}

BOOL FlushFileBuffers(HANDLE hFile)
{
    Ref<IoObject> const file = FindObject<IoObject>(hFile);
    return file ? file->Flush() : FALSE;
}

BOOL SetFilePointerEx(HANDLE hFile, LARGE_INTEGER nDistance, LARGE_INTEGER * pnNewPointer, DWORD dwMethod)
{
    Ref<File> const file = FindObject<File>(hFile);
    if (!file)
    {
        return FALSE;
    }
    if (dwMethod > FILE_END)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    constexpr std::array Methods = {SEEK_SET, SEEK_CUR, SEEK_END};
    off_t const nPosition = lseek(file->GetDescriptor(), nDistance.QuadPart, Methods[dwMethod]);
    if (nPosition < 0)
    {
        return errno == EINVAL ? Refuse(ERROR_NEGATIVE_SEEK) : Fail();
    }
    if (pnNewPointer)
    {
        pnNewPointer->QuadPart = nPosition;
    }
    return TRUE;
}

DWORD SetFilePointer(HANDLE hFile, LONG nDistance, LONG * pnDistanceHigh, DWORD dwMethod)
{
    LARGE_INTEGER distance;
    LARGE_INTEGER position;
    distance.QuadPart = nDistance;
    if (pnDistanceHigh)
    {
        distance.LowPart = static_cast<DWORD>(nDistance);
        distance.HighPart = *pnDistanceHigh;
    }
    if (!SetFilePointerEx(hFile, distance, &position, dwMethod))
    {
        return INVALID_SET_FILE_POINTER;
    }
    if (pnDistanceHigh)
    {
        *pnDistanceHigh = position.HighPart;
    }
    if (position.LowPart == INVALID_SET_FILE_POINTER)
    {
        SetLastError(NO_ERROR); // tells a position from a failure
    }
    return position.LowPart;
}

BOOL SetEndOfFile(HANDLE hFile)
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
    off_t const nPosition = lseek(file->GetDescriptor(), 0, SEEK_CUR);
    if (nPosition < 0 || Retry([&] { return ftruncate(file->GetDescriptor(), nPosition); }) != 0)
    {
        return Fail();
    }
    return TRUE;
}

BOOL GetFileSizeEx(HANDLE hFile, LARGE_INTEGER * pnSize)
{
    Ref<File> const file = FindObject<File>(hFile);
    if (!file)
    {
        return FALSE;
    }
    if (!pnSize)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    struct stat info;
    if (fstat(file->GetDescriptor(), &info) != 0)
    {
        return Fail();
    }
    pnSize->QuadPart = info.st_size;
    return TRUE;
}

DWORD GetFileSize(HANDLE hFile, LPDWORD pnSizeHigh)
{
    LARGE_INTEGER size;
    if (!GetFileSizeEx(hFile, &size))
    {
        return INVALID_FILE_SIZE;
    }
    if (pnSizeHigh)
    {
        *pnSizeHigh = static_cast<DWORD>(size.HighPart);
    }
    if (size.LowPart == INVALID_FILE_SIZE)
    {
        SetLastError(NO_ERROR);
    }
    return size.LowPart;
}

DWORD GetFileType(HANDLE hFile)
{
    Ref<KernelObject> const object = FindObject<KernelObject>(hFile);
    if (!object)
    {
        return FILE_TYPE_UNKNOWN;
    }
    if (object->GetKind() == Kind::Socket)
    {
        return FILE_TYPE_PIPE;
    }
    if (IoObject::Matches(object->GetKind()))
    {
        return static_cast<IoObject const &>(*object).GetType();
    }
    SetLastError(ERROR_INVALID_HANDLE);
    return FILE_TYPE_UNKNOWN;
}

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
        return Fail();
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
    return futimens(file->GetDescriptor(), times) == 0 ? TRUE : Fail();
}

DWORD GetFileAttributesW(LPCWSTR pszPath)
{
    WIN32_FILE_ATTRIBUTE_DATA data;
    return Inspect(pszPath, data) ? data.dwFileAttributes : INVALID_FILE_ATTRIBUTES;
}

BOOL GetFileAttributesExW(LPCWSTR pszPath, GET_FILEEX_INFO_LEVELS level, LPVOID pData)
{
    if (level != GetFileExInfoStandard || !pData)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    return Inspect(pszPath, *static_cast<WIN32_FILE_ATTRIBUTE_DATA *>(pData));
}

BOOL SetFileAttributesW(LPCWSTR pszPath, DWORD dwAttributes)
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
    return chmod(strHost.c_str(), nMode & 07777) == 0 ? TRUE : Fail();
}

BOOL DeleteFileW(LPCWSTR pszPath)
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

BOOL MoveFileW(LPCWSTR pszFrom, LPCWSTR pszTo)
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
        return unlink(strFrom.c_str()) == 0 ? TRUE : Fail();
    }
    if (errno == EXDEV)
    {
        return Refuse(ERROR_NOT_SAME_DEVICE);
    }
    if (errno == ENOENT)
    {
        return Refuse(ERROR_PATH_NOT_FOUND);
    }
    return Fail();
}

BOOL CopyFileW(LPCWSTR pszFrom, LPCWSTR pszTo, BOOL bFailIfExists)
{
    std::string const strFrom = ToHost(pszFrom, LastComponent::AsWritten);
    if (strFrom.empty())
    {
        return FALSE;
    }
    std::string const strTo = ToHost(pszTo, LastComponent::AsWritten);
    return !strTo.empty() && CopyHost(strFrom, strTo, bFailIfExists);
}

BOOL CreateDirectoryW(LPCWSTR pszPath, LPSECURITY_ATTRIBUTES)
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
    return errno == ENOENT || errno == ENOTDIR ? Refuse(ERROR_PATH_NOT_FOUND) : Fail();
}

BOOL RemoveDirectoryW(LPCWSTR pszPath)
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
            return unlink(strHost.c_str()) == 0 ? TRUE : Fail();
        }
        return Refuse(lstat(strHost.c_str(), &info) == 0 ? ERROR_DIRECTORY : ERROR_PATH_NOT_FOUND);
    }
    SetLastErrorForPath(nError);
    return FALSE;
}

HANDLE FindFirstFileW(LPCWSTR pszPattern, LPWIN32_FIND_DATAW pData)
{
    if (!pData)
    {
        Refuse(ERROR_INVALID_PARAMETER);
        return INVALID_HANDLE_VALUE;
    }
    std::u16string_view const path(pszPattern ? pszPattern : u"");
    std::u16string_view const name = path.substr(NamePosition(path));
    Ref<Find> find;
    if (path.empty())
    {
        Refuse(ERROR_PATH_NOT_FOUND);
    }
    else if (name.empty())
    {
        Refuse(ERROR_FILE_NOT_FOUND);
    }
    else if (NamePattern::HasWildcards(name))
    {
        find = FindMany(path.substr(0, path.size() - name.size()), name, *pData);
    }
    else
    {
        find = FindOne(path, *pData);
    }
    HANDLE const hFind = find ? OpenHandle(find) : nullptr;
    return hFind ? hFind : INVALID_HANDLE_VALUE;
}

BOOL FindNextFileW(HANDLE hFind, LPWIN32_FIND_DATAW pData)
{
    Ref<Find> const find = FindObject<Find>(hFind);
    if (!find)
    {
        return FALSE;
    }
    return pData ? find->Next(*pData) : Refuse(ERROR_INVALID_PARAMETER);
}

BOOL FindClose(HANDLE hFind)
{
    return CloseObject(hFind, &IsOfKind<Find>);
}

DWORD GetFullPathNameW(LPCWSTR pszPath, DWORD nChars, LPWSTR pszBuffer, LPWSTR * ppszFilePart)
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

DWORD GetCurrentDirectoryW(DWORD nChars, LPWSTR pszBuffer)
{
    std::unique_ptr<char, decltype(&std::free)> const pszCurrent(getcwd(nullptr, 0), &std::free);
    if (!pszCurrent)
    {
        Fail();
        return 0;
    }
    return CopyText(FromHost(pszCurrent.get()), nChars, pszBuffer);
}

DWORD GetTempPathW(DWORD nChars, LPWSTR pszBuffer)
{
    char const * const pszFolder = std::getenv("TMPDIR");
    std::u16string strPath = FromHost(pszFolder && *pszFolder == '/' ? pszFolder : "/tmp");
    if (!strPath.ends_with(u'\\'))
    {
        strPath += u'\\';
    }
    return CopyText(strPath, nChars, pszBuffer);
}

BOOL SetCurrentDirectoryW(LPCWSTR pszPath)
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

UINT GetTempFileNameW(LPCWSTR pszPath, LPCWSTR pszPrefix, UINT nUnique, LPWSTR pszBuffer)
{
    if (!pszPath || !pszBuffer)
    {
        return Refuse(ERROR_INVALID_PARAMETER);
    }
    std::string const strFolder = ToHost(pszPath);
    if (strFolder.empty())
    {
        return 0;
    }
    if (!IsFolder(strFolder))
    {
        return Refuse(ERROR_DIRECTORY);
    }
    std::u16string strHead(pszPath);
    if (!strHead.ends_with(u'\\') && !strHead.ends_with(u'/'))
    {
        strHead += u'\\';
    }
    strHead += std::u16string_view(pszPrefix ? pszPrefix : u"").substr(0, 3);
    if (strHead.size() + 9 > MAX_PATH)
    {
        return Refuse(ERROR_BUFFER_OVERFLOW);
    }
    UINT nNumber = nUnique & 0xFFFF;
    if (nUnique == 0)
    {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        nNumber = static_cast<UINT>(now.tv_nsec / 1000 + getpid()) & 0xFFFF;
    }
    for (UINT nTries = 0; nTries <= 0xFFFF; ++nTries, nNumber = (nNumber + 1) & 0xFFFF)
    {
        if (nNumber == 0 && nUnique == 0)
        {
            continue;
        }
        char szNumber[12];
        int const nDigits = std::snprintf(szNumber, sizeof szNumber, "%X.TMP", nNumber);
        std::u16string strName = strHead;
        strName.append(szNumber, szNumber + nDigits);
        if (nUnique == 0)
        {
            std::string strHost = ToHost(strName, LastComponent::AsWritten);
            if (strHost.empty())
            {
                return 0;
            }
            FindInAnyCase(strHost);
            UniqueFd const created(open(strHost.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
            if (!created && errno == EEXIST)
            {
                continue;
            }
            if (!created)
            {
                return static_cast<UINT>(Fail());
            }
        }
        CopyText(strName, MAX_PATH, pszBuffer);
        return nUnique ? nUnique : nNumber;
    }
    return Refuse(ERROR_FILE_EXISTS);
}
