#include "kvx/platform/mfc/Exception.h"

#include <algorithm>
#include <array>
#include <limits>
#include <new>

namespace
{
using namespace std::string_view_literals;

/// An object that is ready before any constructor has run and is never destroyed.
template <class T>
union Permanent
{
    constexpr Permanent() : object(FALSE) {}
    ~Permanent() {}
    T object;
};

constinit Permanent<CMemoryException> g_memoryException;
constinit Permanent<CNotSupportedException> g_notSupportedException;
constinit Permanent<CInvalidArgException> g_invalidArgException;
constinit Permanent<CResourceException> g_resourceException;

constexpr std::array<std::basic_string_view<WCHAR>, 15> FILE_CAUSES = {
    _T("No error"),
    _T("The file operation failed"),
    _T("The file does not exist"),
    _T("The path is not valid"),
    _T("Too many files are open"),
    _T("Access is denied"),
    _T("The file is not open"),
    _T("The current directory can't be removed"),
    _T("The directory is full"),
    _T("The file position is not valid"),
    _T("The device reports an error"),
    _T("Another program uses the file"),
    _T("A part of the file is locked"),
    _T("The disk is full"),
    _T("The end of the file was reached"),
};

constexpr std::array<std::basic_string_view<WCHAR>, 8> ARCHIVE_CAUSES = {
    _T("No error"),
    _T("The archive could not be processed"),
    _T("The archive is open for reading only"),
    _T("The archive ends too early"),
    _T("The archive is open for writing only"),
    _T("The archive is malformed"),
    _T("The archive holds an object of an unexpected class"),
    _T("The archive was written by another version"),
};

template <std::size_t N>
CString CauseText(std::array<std::basic_string_view<WCHAR>, N> const & texts, int cause, CString const & strFileName)
{
    auto const text = texts[cause >= 0 && static_cast<std::size_t>(cause) < N ? cause : 1];
    CString strResult(text.data(), static_cast<int>(text.size()));
    if (strFileName.IsEmpty())
    {
        return strResult + _T(".");
    }
    return strResult + _T(": ") + strFileName;
}
} // namespace

IMPLEMENT_DYNAMIC(CException, CObject)
IMPLEMENT_DYNAMIC(CMemoryException, CException)
IMPLEMENT_DYNAMIC(CNotSupportedException, CException)
IMPLEMENT_DYNAMIC(CInvalidArgException, CException)
IMPLEMENT_DYNAMIC(CResourceException, CException)
IMPLEMENT_DYNAMIC(CFileException, CException)
IMPLEMENT_DYNAMIC(CArchiveException, CException)

BOOL CException::GetErrorMessage(LPTSTR lpszError, UINT nMaxError, UINT * pnHelpContext) const
{
    if (pnHelpContext)
    {
        *pnHelpContext = 0;
    }
    CopyMessage({}, lpszError, nMaxError);
    return FALSE;
}

BOOL CException::CopyMessage(std::basic_string_view<WCHAR> message, LPTSTR lpszError, UINT nMaxError)
{
    if (!lpszError || nMaxError == 0)
    {
        return FALSE;
    }
    auto const nCopied = message.copy(lpszError, nMaxError - 1);
    lpszError[nCopied] = 0;
    return TRUE;
}

BOOL CSimpleException::GetErrorMessage(LPTSTR lpszError, UINT nMaxError, UINT * pnHelpContext) const
{
    if (pnHelpContext)
    {
        *pnHelpContext = 0;
    }
    return CopyMessage(m_lpszMessage, lpszError, nMaxError);
}

CFileException::CFileException(int cause, LONG lOsError, LPCTSTR lpszFileName)
    : m_cause(cause), m_lOsError(lOsError), m_strFileName(lpszFileName)
{
}

BOOL CFileException::GetErrorMessage(LPTSTR lpszError, UINT nMaxError, UINT * pnHelpContext) const
{
    if (pnHelpContext)
    {
        *pnHelpContext = 0;
    }
    auto const strText = CauseText(FILE_CAUSES, m_cause, m_strFileName);
    return CopyMessage({strText.GetString(), static_cast<std::size_t>(strText.GetLength())}, lpszError, nMaxError);
}

int CFileException::OsErrorToException(LONG lOsError)
{
    switch (lOsError)
    {
    case 0: // success
        return none;
    case 2:   // file not found
    case 10:  // bad environment
    case 11:  // bad format
    case 53:  // network path not found
    case 67:  // network name not found
    case 126: // module not found
    case 127: // procedure not found
        return fileNotFound;
    case 3:    // path not found
    case 15:   // invalid drive
    case 123:  // invalid name
    case 161:  // bad path name
    case 206:  // name too long
    case 267:  // not a directory
    case 1006: // file replaced under the handle
        return badPath;
    case 4:   // no more descriptors
    case 36:  // sharing buffer exceeded
    case 155: // too many threads
    case 164:
    case 1450: // no system resources
        return tooManyOpenFiles;
    case 5:   // access denied
    case 19:  // write protected
    case 65:  // network access denied
    case 82:  // can't create
    case 108: // drive locked
    case 183: // exists already
    case 80:  // file exists
        return accessDenied;
    case 6:   // invalid handle
    case 114: // invalid target handle
        return invalidFile;
    case 16:
        return removeCurrentDir;
    case 18: // no more files
        return directoryFull;
    case 25:  // seek error
    case 131: // negative seek
    case 132: // seek on a device
        return badSeek;
    case 21: // not ready
    case 23: // checksum
    case 27: // sector not found
    case 29: // write fault
    case 30: // read fault
    case 31: // general failure
    case 1117:
        return hardIO;
    case 32:
        return sharingViolation;
    case 33:
    case 158: // not locked
    case 167: // lock failed
        return lockViolation;
    case 39:  // handle disk full
    case 112: // disk full
        return diskFull;
    case 38: // end of file
        return endOfFile;
    default:
        return genericException;
    }
}

void CFileException::ThrowOsError(LONG lOsError, LPCTSTR lpszFileName)
{
    AfxThrowFileException(OsErrorToException(lOsError), lOsError, lpszFileName);
}

CArchiveException::CArchiveException(int cause, LPCTSTR lpszArchiveName)
    : m_cause(cause), m_strFileName(lpszArchiveName)
{
}

BOOL CArchiveException::GetErrorMessage(LPTSTR lpszError, UINT nMaxError, UINT * pnHelpContext) const
{
    if (pnHelpContext)
    {
        *pnHelpContext = 0;
    }
    auto const strText = CauseText(ARCHIVE_CAUSES, m_cause, m_strFileName);
    return CopyMessage({strText.GetString(), static_cast<std::size_t>(strText.GetLength())}, lpszError, nMaxError);
}

void AfxThrowMemoryException()
{
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    throw &g_memoryException.object;
}

void AfxThrowNotSupportedException()
{
    throw &g_notSupportedException.object;
}

void AfxThrowInvalidArgException()
{
    throw &g_invalidArgException.object;
}

void AfxThrowResourceException()
{
    throw &g_resourceException.object;
}

void AfxThrowFileException(int cause, LONG lOsError, LPCTSTR lpszFileName)
{
    throw new CFileException(cause, lOsError, lpszFileName);
}

void AfxThrowArchiveException(int cause, LPCTSTR lpszArchiveName)
{
    throw new CArchiveException(cause, lpszArchiveName);
}

BOOL AfxIsValidAddress(void const * p, UINT_PTR nBytes, BOOL)
{
    constexpr UINT_PTR LOWEST = 0x10000;
    constexpr UINT_PTR HIGHEST =
        sizeof(void *) == 8 ? static_cast<UINT_PTR>(0x00007FFFFFFFFFFF) : std::numeric_limits<UINT_PTR>::max() - 0xFFFF;
    auto const nAddress = reinterpret_cast<UINT_PTR>(p);
    return nAddress >= LOWEST && nAddress <= HIGHEST && nBytes <= HIGHEST - nAddress;
}

void * AfxAllocate(std::size_t nBytes)
{
    if (void * p = ::operator new(nBytes, std::nothrow))
    {
        return p;
    }
    AfxThrowMemoryException();
}

void AfxFree(void * p) noexcept
{
    ::operator delete(p);
}
