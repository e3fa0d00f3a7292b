#pragma once

#include "kvx/platform/mfc/Object.h"
#include "kvx/platform/mfc/Text.h"

#include <new>

#include <string_view>
#include <type_traits>

/// Base of what is thrown: always a pointer to an object that ends with `Delete`, which frees it if it was
/// made with the auto-delete flag and does nothing for the ready-made ones.
class KVX_API CException : public CObject
{
    DECLARE_DYNAMIC(CException)

public:
    constexpr CException() = default;
    constexpr explicit CException(BOOL bAutoDelete) : m_bAutoDelete(bAutoDelete) {}

    void Delete()
    {
        if (m_bAutoDelete > 0)
        {
            delete this;
        }
    }

    /// Copies the message, cut to `nMaxError` characters with the terminating zero. FALSE: there is none,
    /// and the buffer holds an empty text.
    virtual BOOL GetErrorMessage(LPTSTR lpszError, UINT nMaxError, UINT * pnHelpContext = nullptr) const;

protected:
    BOOL m_bAutoDelete = TRUE;

    static BOOL CopyMessage(std::basic_string_view<WCHAR> message, LPTSTR lpszError, UINT nMaxError);
};

/// An exception that says all by its class; it has a fixed message. The AfxThrow functions throw
/// ready-made objects, so that they need no memory.
class KVX_API CSimpleException : public CException
{
public:
    constexpr CSimpleException(BOOL bAutoDelete, LPCTSTR lpszMessage)
        : CException(bAutoDelete), m_lpszMessage(lpszMessage)
    {
    }

    BOOL GetErrorMessage(LPTSTR lpszError, UINT nMaxError, UINT * pnHelpContext = nullptr) const override;

private:
    LPCTSTR m_lpszMessage;
};

class KVX_API CMemoryException : public CSimpleException
{
    DECLARE_DYNAMIC(CMemoryException)

public:
    constexpr explicit CMemoryException(BOOL bAutoDelete = TRUE) : CSimpleException(bAutoDelete, _T("Out of memory."))
    {
    }
};

class KVX_API CNotSupportedException : public CSimpleException
{
    DECLARE_DYNAMIC(CNotSupportedException)

public:
    constexpr explicit CNotSupportedException(BOOL bAutoDelete = TRUE)
        : CSimpleException(bAutoDelete, _T("The operation is not supported."))
    {
    }
};

/// A null or foreign position, an index outside an array, a format without its argument.
class KVX_API CInvalidArgException : public CSimpleException
{
    DECLARE_DYNAMIC(CInvalidArgException)

public:
    constexpr explicit CInvalidArgException(BOOL bAutoDelete = TRUE)
        : CSimpleException(bAutoDelete, _T("An argument is not valid."))
    {
    }
};

/// A kernel object (event, mutex) could not be made.
class KVX_API CResourceException : public CSimpleException
{
    DECLARE_DYNAMIC(CResourceException)

public:
    constexpr explicit CResourceException(BOOL bAutoDelete = TRUE)
        : CSimpleException(bAutoDelete, _T("A system resource could not be made."))
    {
    }
};

/// A failed file operation.
class KVX_API CFileException : public CException
{
    DECLARE_DYNAMIC(CFileException)

public:
    enum
    {
        none,
        genericException,
        generic = genericException,
        fileNotFound,
        badPath,
        tooManyOpenFiles,
        accessDenied,
        invalidFile,
        removeCurrentDir,
        directoryFull,
        badSeek,
        hardIO,
        sharingViolation,
        lockViolation,
        diskFull,
        endOfFile
    };

    explicit CFileException(int cause = none, LONG lOsError = -1, LPCTSTR lpszFileName = nullptr);

    int m_cause;           ///< one of the causes above
    LONG m_lOsError;       ///< the Win32 error number, -1 if there was none
    CString m_strFileName; ///< as the file was opened; may be empty

    BOOL GetErrorMessage(LPTSTR lpszError, UINT nMaxError, UINT * pnHelpContext = nullptr) const override;

    /// The cause for a Win32 error number.
    static int OsErrorToException(LONG lOsError);
    [[noreturn]] static void ThrowOsError(LONG lOsError, LPCTSTR lpszFileName = nullptr);
};

/// Malformed or missing data in an archive, or an archive used against its direction.
class KVX_API CArchiveException : public CException
{
    DECLARE_DYNAMIC(CArchiveException)

public:
    enum
    {
        none,
        genericException,
        generic = genericException,
        readOnly,
        endOfFile,
        writeOnly,
        badIndex,
        badClass,
        badSchema
    };

    explicit CArchiveException(int cause = none, LPCTSTR lpszArchiveName = nullptr);

    int m_cause;
    CString m_strFileName;

    BOOL GetErrorMessage(LPTSTR lpszError, UINT nMaxError, UINT * pnHelpContext = nullptr) const override;
};

/// Leaves ERROR_NOT_ENOUGH_MEMORY as the thread's last error.
[[noreturn]] KVX_API void AfxThrowMemoryException();
namespace kvx
{
/// The result of the work, in which std::bad_alloc becomes CMemoryException, as callers expect it.
template <class WORK>
auto MemoryGuarded(WORK const & work)
{
    try
    {
        return work();
    }
    catch (std::bad_alloc const &)
    {
        AfxThrowMemoryException();
    }
}

/// The result of the work; without memory, or a system resource, `failure`, and the thread's last error tells why. For
/// calls of which every failure is a result.
template <class WORK, class RESULT = std::invoke_result_t<WORK const &>>
RESULT FailingWithoutMemory(WORK const & work, RESULT failure = RESULT())
{
    try
    {
        return work();
    }
    catch (CResourceException * exception)
    {
        exception->Delete();
        return failure;
    }
    catch (CMemoryException * exception)
    {
        exception->Delete();
    }
    catch (std::bad_alloc const &)
    {
    }
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return failure;
}

/// What a function whose result is a code gives for an exception, in its catch-all: ERROR_NOT_ENOUGH_MEMORY. What isn't
/// about memory goes on its way.
inline LONG CodeWithoutMemory()
{
    try
    {
        throw;
    }
    catch (CMemoryException * exception)
    {
        exception->Delete();
    }
    catch (std::bad_alloc const &)
    {
    }
    return ERROR_NOT_ENOUGH_MEMORY;
}
} // namespace kvx
[[noreturn]] KVX_API void AfxThrowNotSupportedException();
[[noreturn]] KVX_API void AfxThrowInvalidArgException();
[[noreturn]] KVX_API void AfxThrowResourceException();
[[noreturn]] KVX_API void AfxThrowFileException(int cause, LONG lOsError = -1, LPCTSTR lpszFileName = nullptr);
[[noreturn]] KVX_API void AfxThrowArchiveException(int cause, LPCTSTR lpszArchiveName = nullptr);

/// A cheap plausibility test: FALSE for null, for the lowest 64 KB, for what no program can address and for
/// a block that runs over the end of the address space. It doesn't touch the memory, so TRUE is no proof.
KVX_API BOOL AfxIsValidAddress(void const * p, UINT_PTR nBytes, BOOL bReadWrite = TRUE);
