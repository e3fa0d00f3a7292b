#pragma once

#include "kvx/platform/mfc/Exception.h"

// <windows.h> spells this one as a macro.
#undef GetFileTitle

/// A file, or what derived classes make of it. It has no buffer: every Read and Write is one call of the
/// system. A file that is not open raises CFileException with `invalidFile`; all other failures raise it with
/// the cause and the Win32 error. Threads: an object is for one at a time.
class KVX_API CFile : public CObject
{
    DECLARE_DYNAMIC(CFile)

public:
    enum OpenFlags
    {
        modeRead = 0x0000,
        modeWrite = 0x0001,
        modeReadWrite = 0x0002,
        shareCompat = 0x0000, ///< as shareExclusive
        shareExclusive = 0x0010,
        shareDenyWrite = 0x0020,
        shareDenyRead = 0x0030,
        shareDenyNone = 0x0040,
        modeNoInherit = 0x0080,
        modeCreate = 0x1000,     ///< makes the file, or empties it
        modeNoTruncate = 0x2000, ///< with modeCreate: keeps what an existing file holds
        typeText = 0x4000,       ///< for derived classes; no meaning here
        typeBinary = 0x8000
    };
    enum SeekPosition
    {
        begin = 0,
        current = 1,
        end = 2
    };
    enum BufferCommand
    {
        bufferRead,
        bufferWrite,
        bufferCommit,
        bufferCheck
    };
    enum BufferFlags
    {
        bufferDirect = 1
    };

    static HANDLE const hFileNull;

    CFile() = default;
    /// Takes an open handle, and doesn't close it unless `Close` is called.
    explicit CFile(HANDLE hFile);
    /// Raises CFileException if the file can't be opened.
    CFile(LPCTSTR lpszFileName, UINT nOpenFlags);
    ~CFile() override;
    CFile(CFile const &) = delete;
    CFile & operator=(CFile const &) = delete;

    operator HANDLE() const { return m_hFile; }

    /// FALSE if it fails; then `*pError`, if given, tells why. A file that is open already is closed first.
    virtual BOOL Open(LPCTSTR lpszFileName, UINT nOpenFlags, CFileException * pError = nullptr);
    /// Closing a file that isn't open does nothing.
    virtual void Close();
    /// Closes and raises nothing.
    virtual void Abort();
    /// A second CFile with a handle of its own to the same file, for the caller to delete.
    virtual CFile * Duplicate() const;

    /// Bytes read: less than `nCount` at the end of the file or on a pipe, 0 at the end.
    virtual UINT Read(void * lpBuf, UINT nCount);
    /// Writes all; a full disk raises `diskFull`.
    virtual void Write(void const * lpBuf, UINT nCount);
    /// What was written is with the operating system as soon as Write returns, so there is nothing left to do. It
    /// does not wait for the disk.
    virtual void Flush();

    /// The new position in bytes from the begin. A place before it raises `badSeek`, one behind the end is
    /// fine.
    virtual ULONGLONG Seek(LONGLONG lOff, UINT nFrom);
    void SeekToBegin() { Seek(0, begin); }
    ULONGLONG SeekToEnd() { return Seek(0, end); }
    virtual ULONGLONG GetPosition() const;
    virtual ULONGLONG GetLength() const;
    /// Cuts or lengthens the file; the position is at its end then.
    virtual void SetLength(ULONGLONG dwNewLen);

    /// Locks of parts of a file are not supported: CNotSupportedException.
    virtual void LockRange(ULONGLONG dwPos, ULONGLONG dwCount);
    virtual void UnlockRange(ULONGLONG dwPos, ULONGLONG dwCount);

    /// How many bytes `Read` and `Write` move for a count of one: 1, but for files that count characters. What works in
    /// bytes refuses those with CInvalidArgException (RequireBytes).
    virtual UINT GetUnitSize() const { return 1; }
    void RequireBytes() const
    {
        if (GetUnitSize() != 1)
        {
            AfxThrowInvalidArgException();
        }
    }

    /// Direct access to the memory behind a file. 0: there is none, as here.
    virtual UINT GetBufferPtr(UINT nCommand, UINT nCount = 0, void ** ppBufStart = nullptr, void ** ppBufMax = nullptr);

    /// "report.txt" of "C:\data\report.txt".
    virtual CString GetFileName() const;
    /// "report".
    virtual CString GetFileTitle() const;
    virtual CString GetFilePath() const;
    /// Only the name that the three above give.
    virtual void SetFilePath(LPCTSTR lpszNewName);

    static void Rename(LPCTSTR lpszOldName, LPCTSTR lpszNewName);
    static void Remove(LPCTSTR lpszFileName);

    HANDLE m_hFile = INVALID_HANDLE_VALUE;

protected:
    BOOL m_bCloseOnDelete = FALSE;
    CString m_strFileName;

    HANDLE GetOpenHandle() const;
};

/// A file in memory, of up to 2 GB. Bytes between the old end and a place written behind it are 0.
class KVX_API CMemFile : public CFile
{
    DECLARE_DYNAMIC(CMemFile)

public:
    /// `nGrowBytes`: the least number of bytes to grow by. 0: the memory can't grow, and a Write that needs
    /// more raises CMemoryException.
    explicit CMemFile(UINT nGrowBytes = 1024);
    CMemFile(BYTE * lpBuffer, UINT nBufferSize, UINT nGrowBytes = 0);
    ~CMemFile() override;

    /// Takes memory that stays the caller's. With `nGrowBytes` 0 its content is the content of the file;
    /// otherwise the file is empty, and the memory must come from malloc, since it may be moved.
    void Attach(BYTE * lpBuffer, UINT nBufferSize, UINT nGrowBytes = 0);
    /// Hands the memory over to the caller, who ends it with free, and leaves the file empty. May be null.
    BYTE * Detach();

    BOOL Open(LPCTSTR lpszFileName, UINT nOpenFlags, CFileException * pError = nullptr) override;
    void Close() override;
    void Abort() override;
    CFile * Duplicate() const override;
    UINT Read(void * lpBuf, UINT nCount) override;
    void Write(void const * lpBuf, UINT nCount) override;
    void Flush() override;
    ULONGLONG Seek(LONGLONG lOff, UINT nFrom) override;
    ULONGLONG GetPosition() const override { return m_nPosition; }
    ULONGLONG GetLength() const override { return m_nFileSize; }
    void SetLength(ULONGLONG dwNewLen) override;

    /// bufferRead: the bytes from the position on, at most `nCount` of them, and moves the position behind them.
    /// bufferWrite: room for `nCount` bytes at the position; bufferCommit then takes so many as written. The
    /// result is the number of bytes between the two pointers. bufferCheck gives `bufferDirect`. Pointers are
    /// good until the next Write or SetLength.
    UINT GetBufferPtr(UINT nCommand, UINT nCount = 0, void ** ppBufStart = nullptr,
                      void ** ppBufMax = nullptr) override;

protected:
    /// Where the memory comes from; null is a failure.
    virtual BYTE * Alloc(SIZE_T nBytes);
    virtual BYTE * Realloc(BYTE * lpMem, SIZE_T nBytes);
    virtual void Free(BYTE * lpMem);

    SIZE_T m_nGrowBytes;
    SIZE_T m_nPosition = 0;
    SIZE_T m_nBufferSize = 0;
    SIZE_T m_nFileSize = 0;
    BYTE * m_lpBuffer = nullptr;
    BOOL m_bAutoDelete = TRUE;

private:
    void Grow(SIZE_T nNeeded);
    void Lengthen(SIZE_T nNewSize);
    void Release();
};
