#pragma once

#include "kvx/platform/mfc/Exception.h"

#include <bit>
#include <concepts>
#include <cstring>
#include <memory>
#include <span>

class CFile;

namespace kvx
{
template <class T, class... LIST>
concept OneOf = (std::is_same_v<T, LIST> || ...);

/// What an archive stores by its bytes. `long` is of different width on the hosts: it may go into an archive
/// only where it is the 32-bit LONG.
template <class T>
concept ArchiveScalar = OneOf<T, bool, char, signed char, unsigned char, short, unsigned short, int, unsigned int, LONG,
                              DWORD, long long, unsigned long long, float, double, WCHAR>;
} // namespace kvx

/// Reads or writes a stream of values and objects through a buffer over a CFile, which it doesn't own. One
/// archive has one direction and is for one thread.
///
/// Numbers are little-endian and of their own width, a `bool` is one byte. Texts and objects have the forms
/// told at their operations.
///
/// Errors: CArchiveException with `endOfFile` when data is missing, `badIndex`, `badClass` or `badSchema` when
/// it is malformed, `readOnly` or `writeOnly` on use against the direction; CFileException from the file. What is
/// read is never trusted: memory grows with the bytes that arrive, not with a count that was read.
class KVX_API CArchive
{
public:
    enum Mode
    {
        store = 0,
        load = 1,
        bNoFlushOnDelete = 2 ///< the destructor lets go of what is still in the buffer
    };

    /// `nBufSize` is in bytes, at least 128. A buffer of the caller's own is used instead if given, and must
    /// be of that size and outlive the archive. A file that counts in characters raises CInvalidArgException.
    CArchive(CFile * pFile, UINT nMode, int nBufSize = 4096, void * lpBuf = nullptr);
    /// Does what `Close` does, but can't tell of a failure: a writer that cares calls `Close`.
    ~CArchive();
    CArchive(CArchive const &) = delete;
    CArchive & operator=(CArchive const &) = delete;

    BOOL IsLoading() const { return (m_nMode & load) != 0; }
    BOOL IsStoring() const { return (m_nMode & load) == 0; }
    BOOL IsBufferEmpty() const { return m_pCursor == m_pEnd; }
    CFile * GetFile() const { return m_pFile; }

    /// The schema of the object that is being read, for versionable classes, once; then -1.
    UINT GetObjectSchema();
    void SetObjectSchema(UINT nSchema) { m_nObjectSchema = nSchema; }

    /// The number of bytes read, which is less than asked for only at the end of the file.
    UINT Read(void * lpBuf, UINT nMax);
    /// Raises `endOfFile` unless all bytes are there.
    void EnsureRead(void * lpBuf, UINT nCount);
    void Write(void const * lpBuf, UINT nMax);

    /// Loading, for who scans the bytes where they lie: those in the buffer that aren't read yet. They are good until
    /// the next operation.
    std::span<BYTE const> GetUnread() const { return {m_pCursor, m_pEnd}; }
    /// Counts so many of them as read.
    void SkipUnread(std::size_t nCount);
    /// Fills the buffer if nothing in it is unread. FALSE at the end of the file.
    BOOL Refill();

    /// Storing: hands the buffer to the file. Loading: puts the file back to the first byte not yet read.
    void Flush();
    /// Flushes, then lets go of the file. An archive that is closed can't be used any more.
    void Close();
    /// Lets go of the file, and of what is in the buffer.
    void Abort();

    /// A count in 2, 6 or 14 bytes, as its size needs.
    DWORD_PTR ReadCount();
    void WriteCount(DWORD_PTR dwCount);

    /// Objects: a 16-bit tag that is 0 for null, the number of an object or class that came before, or 0xFFFF
    /// with a new class behind it; behind a class follows the object's content. A pointer is thus restored
    /// to the one object that it pointed to, however often it occurs.
    ///
    /// An object whose content can't be read is deleted before the exception goes on. Objects nest up to 1000 deep in
    /// each other's content, in both directions; deeper ones raise `genericException`.
    void WriteObject(CObject const * pOb);
    CObject * ReadObject(CRuntimeClass const * pClass);
    void WriteClass(CRuntimeClass const * pClass);
    /// The class, or null with the number of an object in `*pObTag`.
    CRuntimeClass * ReadClass(CRuntimeClass const * pClassRequested = nullptr, UINT * pSchema = nullptr,
                              DWORD * pObTag = nullptr);
    void SerializeClass(CRuntimeClass const * pClass);
    /// Gives a number to an object that is not archived through its pointer, so that pointers to it are kept.
    void MapObject(CObject const * pOb);

    template <kvx::ArchiveScalar T>
    CArchive & operator<<(T value)
    {
        if (IsLoading())
        {
            ThrowDirection();
        }
        if (static_cast<std::size_t>(m_pEnd - m_pCursor) < sizeof(T))
        {
            Flush();
        }
        if (!m_pFile)
        {
            ThrowClosed();
        }
        std::memcpy(m_pCursor, &value, sizeof(T));
        m_pCursor += sizeof(T);
        return *this;
    }
    template <kvx::ArchiveScalar T>
    CArchive & operator>>(T & value)
    {
        if (IsStoring())
        {
            ThrowDirection();
        }
        if (static_cast<std::size_t>(m_pEnd - m_pCursor) < sizeof(T))
        {
            FillBuffer(sizeof(T));
        }
        if constexpr (std::is_same_v<T, bool>)
        {
            value = *m_pCursor != 0;
        }
        else
        {
            std::memcpy(&value, m_pCursor, sizeof(T));
        }
        m_pCursor += sizeof(T);
        return *this;
    }

    CString m_strFileName; ///< the path of the file, for exceptions

private:
    static_assert(std::endian::native == std::endian::little);

    struct ObjectMap;

    CFile * m_pFile;
    BYTE * m_pStart;
    BYTE * m_pCursor;
    BYTE * m_pEnd; // storing: end of the buffer; loading: end of what has been read
    std::size_t m_nBufSize;
    UINT m_nMode;
    UINT m_nObjectSchema = static_cast<UINT>(-1);
    std::unique_ptr<BYTE[]> m_pOwnBuffer;
    std::unique_ptr<ObjectMap> m_pObjects;

    [[noreturn]] void Throw(int cause) const;
    [[noreturn]] void ThrowDirection() const;
    [[noreturn]] void ThrowClosed() const;
    void FillBuffer(std::size_t nNeeded);
    std::size_t ReadFile(BYTE * pTarget, std::size_t nMax);
    ObjectMap & GetObjects();
    void WriteTag(DWORD nTag, bool bClass);
};

/// The length of a text in an archive: for wide text the bytes FF FE FF first; then a byte, or FF and a word,
/// or FF FF FF and a double word, and so on to 64 bits.
KVX_API void AfxWriteStringLength(CArchive & ar, UINT_PTR nLength, BOOL bUnicode);
/// `nCharSize` becomes 2 for wide text, 1 for narrow.
KVX_API UINT_PTR AfxReadStringLength(CArchive & ar, int & nCharSize);

/// A text: its length as above, then the characters. Either kind reads what either kind wrote, through the
/// ANSI code page where they differ.
KVX_API CArchive & operator<<(CArchive & ar, CString const & str);
KVX_API CArchive & operator>>(CArchive & ar, CString & str);
KVX_API CArchive & operator<<(CArchive & ar, CStringA const & str);
KVX_API CArchive & operator>>(CArchive & ar, CStringA & str);

inline CArchive & operator<<(CArchive & ar, CObject const * pOb)
{
    ar.WriteObject(pOb);
    return ar;
}
inline CArchive & operator>>(CArchive & ar, CObject *& pOb)
{
    pOb = ar.ReadObject(nullptr);
    return ar;
}
