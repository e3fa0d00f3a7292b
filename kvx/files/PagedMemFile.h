#pragma once

#include "kvx/files/PagedBuffer.h"

/// A file in memory, over a CPagedBuffer with pages of 1024 bytes: what an archive or a message stream can work on. The
/// text and file forms are the buffer's, with what those docstrings tell. Errors and threads as there.
class KVX_API CPagedMemFile : public CFile
{
public:
    CPagedMemFile() = default;

    /// Does nothing, and gives 1.
    BOOL Open(LPCTSTR lpszFileName, UINT nOpenFlags, CFileException * pError = nullptr) override;
    /// Empties the file.
    void Close() override;
    void Abort() override {}
    /// Null: the file can't be opened twice.
    CFile * Duplicate() const override { return nullptr; }
    /// 0 at the end. More than 2 GiB aren't read in one call.
    UINT Read(void * lpBuf, UINT nCount) override;
    void Write(void const * lpBuf, UINT nCount) override;
    void Flush() override {}
    /// By contract not what a CFile's gives: 1 if the position was set, 0 where it would lie beyond the length. From
    /// the end, a positive offset goes back.
    ULONGLONG Seek(LONGLONG lOff, UINT nFrom) override;
    ULONGLONG GetPosition() const override { return m_buffer.GetPosition(); }
    ULONGLONG GetLength() const override { return m_buffer.GetLength(); }
    void SetLength(ULONGLONG dwNewLen) override;
    void LockRange(ULONGLONG, ULONGLONG) override {}
    void UnlockRange(ULONGLONG, ULONGLONG) override {}

    virtual void ToString(CString & text) { m_buffer.ToString(text); }
    virtual void ToString(CStringA & text) { m_buffer.ToString(text); }
    virtual void FromString(CString const & text) { m_buffer.FromString(text); }
    virtual void FromString(CStringA const & text) { m_buffer.FromString(text); }
    virtual void ToFile(CFile & file) { m_buffer.ToFile(file); }
    virtual void FromFile(CFile & file) { m_buffer.FromFile(file); }
    void SetText(CString const & text) { m_buffer.SetText(text); }
    void LoadFile(CFile & file) { m_buffer.LoadFile(file); }

private:
    CPagedBuffer m_buffer{1024};
};
