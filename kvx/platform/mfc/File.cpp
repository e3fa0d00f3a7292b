#include "kvx/platform/mfc/File.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace
{
constexpr ULONGLONG MAX_MEMORY_FILE = 0x7FFFFFFF;
constexpr DWORD PATH_CHARACTERS = 1024;

[[noreturn]] void ThrowLastError(CString const & strFileName)
{
    CFileException::ThrowOsError(static_cast<LONG>(GetLastError()), strFileName);
}

CString FullPath(LPCTSTR lpszPath)
{
    std::array<WCHAR, PATH_CHARACTERS> path;
    auto const nLength = GetFullPathNameW(lpszPath, PATH_CHARACTERS, path.data(), nullptr);
    if (nLength == 0 || nLength >= PATH_CHARACTERS)
    {
        return lpszPath;
    }
    return CString(path.data(), static_cast<int>(nLength));
}

DWORD ShareMode(UINT nOpenFlags)
{
    switch (nOpenFlags & 0x70)
    {
    case CFile::shareDenyWrite:
        return FILE_SHARE_READ;
    case CFile::shareDenyRead:
        return FILE_SHARE_WRITE;
    case CFile::shareDenyNone:
        return FILE_SHARE_READ | FILE_SHARE_WRITE;
    default:
        return 0;
    }
}

DWORD AccessMode(UINT nOpenFlags)
{
    switch (nOpenFlags & 0x3)
    {
    case CFile::modeRead:
        return GENERIC_READ;
    case CFile::modeWrite:
        return GENERIC_WRITE;
    default:
        return GENERIC_READ | GENERIC_WRITE;
    }
}
} // namespace

IMPLEMENT_DYNAMIC(CFile, CObject)
IMPLEMENT_DYNAMIC(CMemFile, CFile)

HANDLE const CFile::hFileNull = INVALID_HANDLE_VALUE;

CFile::CFile(HANDLE hFile) : m_hFile(hFile) {}

CFile::CFile(LPCTSTR lpszFileName, UINT nOpenFlags)
{
    auto pError = std::make_unique<CFileException>();
    if (!CFile::Open(lpszFileName, nOpenFlags, pError.get()))
    {
        throw pError.release();
    }
}

CFile::~CFile()
{
    if (m_hFile != INVALID_HANDLE_VALUE && m_bCloseOnDelete)
    {
        CloseHandle(m_hFile);
    }
}

HANDLE CFile::GetOpenHandle() const
{
    if (m_hFile == INVALID_HANDLE_VALUE) [[unlikely]]
    {
        AfxThrowFileException(CFileException::invalidFile, ERROR_INVALID_HANDLE, m_strFileName);
    }
    return m_hFile;
}

BOOL CFile::Open(LPCTSTR lpszFileName, UINT nOpenFlags, CFileException * pError)
{
    CFile::Abort();
    auto const fail = [&](int cause, LONG lOsError)
    {
        if (pError)
        {
            pError->m_cause = cause;
            pError->m_lOsError = lOsError;
            pError->m_strFileName = lpszFileName;
        }
        return FALSE;
    };
    if (!lpszFileName || !*lpszFileName)
    {
        return fail(CFileException::badPath, ERROR_PATH_NOT_FOUND);
    }

    SECURITY_ATTRIBUTES security{};
    security.nLength = sizeof security;
    security.bInheritHandle = (nOpenFlags & modeNoInherit) == 0;
    DWORD nDisposition = OPEN_EXISTING;
    if (nOpenFlags & modeCreate)
    {
        nDisposition = nOpenFlags & modeNoTruncate ? OPEN_ALWAYS : CREATE_ALWAYS;
    }
    CString strFullPath = FullPath(lpszFileName); // memory first: an open file is closed by whoever has one
    auto const hFile = CreateFileW(lpszFileName, AccessMode(nOpenFlags), ShareMode(nOpenFlags), &security, nDisposition,
                                   FILE_ATTRIBUTE_NORMAL, nullptr);
    if (hFile == INVALID_HANDLE_VALUE)
    {
        auto const lOsError = static_cast<LONG>(GetLastError());
        return fail(CFileException::OsErrorToException(lOsError), lOsError);
    }
    m_hFile = hFile;
    m_bCloseOnDelete = TRUE;
    m_strFileName = std::move(strFullPath);
    return TRUE;
}

void CFile::Close()
{
    auto const hFile = m_hFile;
    auto const strFileName = m_strFileName;
    m_hFile = INVALID_HANDLE_VALUE;
    m_bCloseOnDelete = FALSE;
    m_strFileName.Empty();
    if (hFile != INVALID_HANDLE_VALUE && !CloseHandle(hFile))
    {
        ThrowLastError(strFileName);
    }
}

void CFile::Abort()
{
    if (m_hFile != INVALID_HANDLE_VALUE)
    {
        CloseHandle(m_hFile);
    }
    m_hFile = INVALID_HANDLE_VALUE;
    m_bCloseOnDelete = FALSE;
    m_strFileName.Empty();
}

CFile * CFile::Duplicate() const
{
    auto pCopy = std::make_unique<CFile>();
    auto const hProcess = GetCurrentProcess();
    HANDLE hCopy;
    if (!DuplicateHandle(hProcess, GetOpenHandle(), hProcess, &hCopy, 0, FALSE, DUPLICATE_SAME_ACCESS))
    {
        ThrowLastError(m_strFileName);
    }
    pCopy->m_hFile = hCopy;
    pCopy->m_bCloseOnDelete = TRUE;
    pCopy->m_strFileName = m_strFileName;
    return pCopy.release();
}

UINT CFile::Read(void * lpBuf, UINT nCount)
{
    auto const hFile = GetOpenHandle();
    if (nCount == 0)
    {
        return 0;
    }
    DWORD nRead = 0;
    if (!ReadFile(hFile, lpBuf, nCount, &nRead, nullptr))
    {
        ThrowLastError(m_strFileName);
    }
    return nRead;
}

void CFile::Write(void const * lpBuf, UINT nCount)
{
    auto const hFile = GetOpenHandle();
    if (nCount == 0)
    {
        return;
    }
    DWORD nWritten = 0;
    if (!WriteFile(hFile, lpBuf, nCount, &nWritten, nullptr))
    {
        ThrowLastError(m_strFileName);
    }
    if (nWritten != nCount)
    {
        AfxThrowFileException(CFileException::diskFull, ERROR_DISK_FULL, m_strFileName);
    }
}

void CFile::Flush()
{
    GetOpenHandle();
}

ULONGLONG CFile::Seek(LONGLONG lOff, UINT nFrom)
{
    LARGE_INTEGER offset;
    LARGE_INTEGER position;
    offset.QuadPart = lOff;
    if (!SetFilePointerEx(GetOpenHandle(), offset, &position, nFrom))
    {
        ThrowLastError(m_strFileName);
    }
    return static_cast<ULONGLONG>(position.QuadPart);
}

ULONGLONG CFile::GetPosition() const
{
    LARGE_INTEGER offset;
    LARGE_INTEGER position;
    offset.QuadPart = 0;
    if (!SetFilePointerEx(GetOpenHandle(), offset, &position, FILE_CURRENT))
    {
        ThrowLastError(m_strFileName);
    }
    return static_cast<ULONGLONG>(position.QuadPart);
}

ULONGLONG CFile::GetLength() const
{
    LARGE_INTEGER length;
    if (!GetFileSizeEx(GetOpenHandle(), &length))
    {
        ThrowLastError(m_strFileName);
    }
    return static_cast<ULONGLONG>(length.QuadPart);
}

void CFile::SetLength(ULONGLONG dwNewLen)
{
    CFile::Seek(static_cast<LONGLONG>(dwNewLen), begin);
    if (!SetEndOfFile(m_hFile))
    {
        ThrowLastError(m_strFileName);
    }
}

void CFile::LockRange(ULONGLONG, ULONGLONG)
{
    AfxThrowNotSupportedException();
}

void CFile::UnlockRange(ULONGLONG, ULONGLONG)
{
    AfxThrowNotSupportedException();
}

UINT CFile::GetBufferPtr(UINT, UINT, void **, void **)
{
    return 0;
}

CString CFile::GetFileName() const
{
    CString::View const path = m_strFileName;
    auto const nSeparator = path.find_last_of(_T("\\/:"));
    return CString(nSeparator == path.npos ? path : path.substr(nSeparator + 1));
}

CString CFile::GetFileTitle() const
{
    auto const strName = GetFileName();
    CString::View const name = strName;
    auto const nDot = name.rfind(_T('.'));
    return nDot == name.npos || nDot == 0 ? strName : CString(name.substr(0, nDot));
}

CString CFile::GetFilePath() const
{
    return m_strFileName;
}

void CFile::SetFilePath(LPCTSTR lpszNewName)
{
    m_strFileName = lpszNewName;
}

void CFile::Rename(LPCTSTR lpszOldName, LPCTSTR lpszNewName)
{
    if (!MoveFileW(lpszOldName, lpszNewName))
    {
        ThrowLastError(lpszOldName);
    }
}

void CFile::Remove(LPCTSTR lpszFileName)
{
    if (!DeleteFileW(lpszFileName))
    {
        ThrowLastError(lpszFileName);
    }
}

CMemFile::CMemFile(UINT nGrowBytes) : m_nGrowBytes(nGrowBytes) {}

CMemFile::CMemFile(BYTE * lpBuffer, UINT nBufferSize, UINT nGrowBytes) : m_nGrowBytes(nGrowBytes)
{
    CMemFile::Attach(lpBuffer, nBufferSize, nGrowBytes);
}

CMemFile::~CMemFile()
{
    Release();
}

void CMemFile::Release()
{
    if (m_lpBuffer && m_bAutoDelete)
    {
        Free(m_lpBuffer);
    }
    m_lpBuffer = nullptr;
    m_nBufferSize = m_nFileSize = m_nPosition = 0;
}

void CMemFile::Attach(BYTE * lpBuffer, UINT nBufferSize, UINT nGrowBytes)
{
    if (!lpBuffer && nBufferSize != 0)
    {
        AfxThrowInvalidArgException();
    }
    Release();
    m_lpBuffer = lpBuffer;
    m_nBufferSize = nBufferSize;
    m_nGrowBytes = nGrowBytes;
    m_nFileSize = nGrowBytes == 0 ? nBufferSize : 0;
    m_bAutoDelete = FALSE;
}

BYTE * CMemFile::Detach()
{
    auto * lpBuffer = m_lpBuffer;
    m_bAutoDelete = FALSE;
    Release();
    m_bAutoDelete = TRUE;
    return lpBuffer;
}

BOOL CMemFile::Open(LPCTSTR, UINT, CFileException *)
{
    return TRUE;
}

void CMemFile::Close()
{
    Release();
    m_nGrowBytes = 0;
}

void CMemFile::Abort()
{
    Close();
}

CFile * CMemFile::Duplicate() const
{
    AfxThrowNotSupportedException();
}

void CMemFile::Flush() {}

UINT CMemFile::Read(void * lpBuf, UINT nCount)
{
    if (m_nPosition >= m_nFileSize)
    {
        return 0;
    }
    auto const nRead = std::min<SIZE_T>(nCount, m_nFileSize - m_nPosition);
    if (nRead != 0)
    {
        std::memcpy(lpBuf, m_lpBuffer + m_nPosition, nRead);
    }
    m_nPosition += nRead;
    return static_cast<UINT>(nRead);
}

void CMemFile::Write(void const * lpBuf, UINT nCount)
{
    if (nCount == 0)
    {
        return;
    }
    if (nCount > MAX_MEMORY_FILE - m_nPosition)
    {
        AfxThrowMemoryException();
    }
    auto const nEnd = m_nPosition + nCount;
    Grow(nEnd);
    if (m_nPosition > m_nFileSize)
    {
        Lengthen(m_nPosition);
    }
    std::memcpy(m_lpBuffer + m_nPosition, lpBuf, nCount);
    m_nPosition = nEnd;
    m_nFileSize = std::max(m_nFileSize, nEnd);
}

ULONGLONG CMemFile::Seek(LONGLONG lOff, UINT nFrom)
{
    LONGLONG nBase;
    switch (nFrom)
    {
    case begin:
        nBase = 0;
        break;
    case current:
        nBase = static_cast<LONGLONG>(m_nPosition);
        break;
    case end:
        nBase = static_cast<LONGLONG>(m_nFileSize);
        break;
    default:
        AfxThrowInvalidArgException();
    }
    constexpr auto MAXIMUM = static_cast<LONGLONG>(MAX_MEMORY_FILE);
    if (lOff < -nBase || lOff > MAXIMUM - nBase)
    {
        AfxThrowFileException(CFileException::badSeek, ERROR_NEGATIVE_SEEK, m_strFileName);
    }
    m_nPosition = static_cast<SIZE_T>(nBase + lOff);
    return m_nPosition;
}

void CMemFile::SetLength(ULONGLONG dwNewLen)
{
    if (dwNewLen > MAX_MEMORY_FILE)
    {
        AfxThrowMemoryException();
    }
    auto const nNewSize = static_cast<SIZE_T>(dwNewLen);
    Grow(nNewSize);
    if (nNewSize > m_nFileSize)
    {
        Lengthen(nNewSize);
    }
    m_nFileSize = nNewSize;
    m_nPosition = std::min(m_nPosition, nNewSize);
}

UINT CMemFile::GetBufferPtr(UINT nCommand, UINT nCount, void ** ppBufStart, void ** ppBufMax)
{
    if (nCommand == bufferCheck)
    {
        return bufferDirect;
    }
    if (nCommand == bufferCommit)
    {
        if (m_nPosition > m_nBufferSize || nCount > m_nBufferSize - m_nPosition)
        {
            AfxThrowInvalidArgException();
        }
        m_nPosition += nCount;
        m_nFileSize = std::max(m_nFileSize, m_nPosition);
        return 0;
    }
    if ((nCommand != bufferRead && nCommand != bufferWrite) || !ppBufStart || !ppBufMax)
    {
        AfxThrowInvalidArgException();
    }

    SIZE_T nGiven;
    if (nCommand == bufferWrite)
    {
        if (nCount > MAX_MEMORY_FILE - m_nPosition)
        {
            AfxThrowMemoryException();
        }
        Grow(m_nPosition + nCount);
        if (m_nPosition > m_nFileSize)
        {
            Lengthen(m_nPosition);
        }
        nGiven = nCount;
    }
    else
    {
        nGiven = m_nPosition < m_nFileSize ? std::min<SIZE_T>(nCount, m_nFileSize - m_nPosition) : 0;
    }
    auto * pStart = m_lpBuffer ? m_lpBuffer + std::min(m_nPosition, m_nBufferSize) : nullptr;
    *ppBufStart = pStart;
    *ppBufMax = pStart ? pStart + nGiven : nullptr;
    if (nCommand == bufferRead)
    {
        m_nPosition += nGiven;
    }
    return static_cast<UINT>(nGiven);
}

BYTE * CMemFile::Alloc(SIZE_T nBytes)
{
    return static_cast<BYTE *>(std::malloc(nBytes));
}

BYTE * CMemFile::Realloc(BYTE * lpMem, SIZE_T nBytes)
{
    return static_cast<BYTE *>(std::realloc(lpMem, nBytes));
}

void CMemFile::Free(BYTE * lpMem)
{
    std::free(lpMem);
}

void CMemFile::Grow(SIZE_T nNeeded)
{
    if (nNeeded <= m_nBufferSize)
    {
        return;
    }
    if (m_nGrowBytes == 0)
    {
        AfxThrowMemoryException();
    }
    auto const nStep = std::max(m_nGrowBytes, m_nBufferSize / 2);
    auto const nNewSize = static_cast<SIZE_T>(
        std::min<ULONGLONG>(std::max<ULONGLONG>(nNeeded, ULONGLONG{m_nBufferSize} + nStep), MAX_MEMORY_FILE));
    auto * lpNew = m_lpBuffer ? Realloc(m_lpBuffer, nNewSize) : Alloc(nNewSize);
    if (!lpNew)
    {
        AfxThrowMemoryException();
    }
    m_lpBuffer = lpNew;
    m_nBufferSize = nNewSize;
}

/// The room must be there.
void CMemFile::Lengthen(SIZE_T nNewSize)
{
    std::memset(m_lpBuffer + m_nFileSize, 0, nNewSize - m_nFileSize);
    m_nFileSize = nNewSize;
}
