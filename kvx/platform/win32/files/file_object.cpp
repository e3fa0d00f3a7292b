#include "kvx/platform/win32/files/file_object.h"

#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/pipe_signal.h"
#include "kvx/platform/win32/retry.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

File::~File()
{
    Leave();
}

bool File::Enter(Opening const & opening)
{
    if (!EnterOpening(opening))
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
    LeaveOpening(m_opening);
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
        std::size_t const nWanted = std::min<std::size_t>(nBytes - nRead, MAX_TRANSFER);
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
            return RefuseByErrno();
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
        return RefuseByErrno();
    }
    bool const bPositioned = pOverlapped && !bAtEnd;
    std::optional<PipeSignalGuard> guard;
    if (GetType() == FILE_TYPE_PIPE)
    {
        guard.emplace();
    }
    char const * const pSource = static_cast<char const *>(pBuffer);
    while (nWritten < nBytes)
    {
        std::size_t const nWanted = std::min<std::size_t>(nBytes - nWritten, MAX_TRANSFER);
        ssize_t const n = Retry(
            [&]
            {
                return bPositioned
                           ? pwrite(m_nDescriptor, pSource + nWritten, nWanted, static_cast<off_t>(nOffset + nWritten))
                           : write(m_nDescriptor, pSource + nWritten, nWanted);
            });
        if (n < 0)
        {
            if (guard && errno == EPIPE)
            {
                guard->Raised();
            }
            return RefuseByErrno();
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
    return RefuseByErrno();
}

DWORD File::GetType() const
{
    if (S_ISCHR(m_nMode))
    {
        return FILE_TYPE_CHAR;
    }
    return S_ISFIFO(m_nMode) || S_ISSOCK(m_nMode) ? FILE_TYPE_PIPE : FILE_TYPE_DISK;
}

} // namespace kvx::win32

using namespace kvx::win32;

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
    constexpr std::array METHODS = {SEEK_SET, SEEK_CUR, SEEK_END};
    off_t const nPosition = lseek(file->GetDescriptor(), nDistance.QuadPart, METHODS[dwMethod]);
    if (nPosition < 0)
    {
        return errno == EINVAL ? Refuse(ERROR_NEGATIVE_SEEK) : RefuseByErrno();
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
        return RefuseByErrno();
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
        return RefuseByErrno();
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
