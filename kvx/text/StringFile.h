#pragma once

/// Files over a text of the caller's, so that what is written for a file, an archive in particular, works on text in
/// memory.

#include "kvx/platform/mfc/File.h"

namespace kvx
{
/// The text is not owned, and must outlive the file. Lengths, positions and counts are in characters of the text: a
/// count of n moves 2n bytes in a wide one. An archive, and all else that works in bytes, takes the narrow form alone.
///
/// Errors: reading behind the end raises CFileException `endOfFile`; a text of more than 2^31 characters
/// CMemoryException. Threads: one at a time.
template <class XCHAR>
class StringFile : public CFile
{
public:
    explicit StringFile(CStringT<XCHAR> & text) : m_text(text) {}

    /// Does nothing, and gives 1.
    BOOL Open(LPCTSTR lpszFileName, UINT nOpenFlags, CFileException * pError = nullptr) override;
    void Close() override {}
    void Abort() override {}
    /// Null: there is one file on a text.
    CFile * Duplicate() const override { return nullptr; }
    /// The number of characters read, 0 at the end.
    UINT Read(void * lpBuf, UINT nCount) override;
    /// Overwrites, and lengthens the text where it must. Characters between its end and a position behind it become 0.
    void Write(void const * lpBuf, UINT nCount) override;
    void Flush() override {}
    /// The new position; it may lie behind the end. By contract an offset from the end goes back where it is positive,
    /// the opposite of what it is for other files.
    ULONGLONG Seek(LONGLONG lOff, UINT nFrom) override;
    UINT GetUnitSize() const override { return sizeof(XCHAR); }
    ULONGLONG GetPosition() const override { return m_nPosition; }
    ULONGLONG GetLength() const override { return static_cast<ULONGLONG>(m_text.GetLength()); }
    /// The position stays.
    void SetLength(ULONGLONG dwNewLen) override;
    void LockRange(ULONGLONG, ULONGLONG) override {}
    void UnlockRange(ULONGLONG, ULONGLONG) override {}

private:
    CStringT<XCHAR> & m_text;
    DWORD m_nPosition = 0;

    void Lengthen(ULONGLONG length);
};

KVX_INSTANCES(class, StringFile<char>);
KVX_INSTANCES(class, StringFile<WCHAR>);
} // namespace kvx

class KVX_API CStringFileA : public kvx::StringFile<char>
{
public:
    using StringFile::StringFile;
};

class KVX_API CStringFileW : public kvx::StringFile<WCHAR>
{
public:
    using StringFile::StringFile;
};

/// Over the library's own text.
class KVX_API CStringFile : public kvx::StringFile<WCHAR>
{
public:
    using StringFile::StringFile;
};
