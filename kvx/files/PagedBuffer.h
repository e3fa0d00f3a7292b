#pragma once

/// A byte buffer that grows without moving what it holds.

#include "kvx/platform/mfc/File.h"

#include <memory>
#include <vector>

/// Bytes in pages of equal size, with a position. A page stays until `Reset`, and its bytes are 0 until they are
/// written. Some operations give less than their names say, on which callers rely; each of them tells, and the useful
/// way stands beside it.
///
/// Lengths and positions are in bytes, and below 4 GiB: what goes beyond, or before the begin, raises
/// CInvalidArgException, as do files that count in characters. An allocation that fails raises CMemoryException, and
/// the buffer stays as it was. Threads: one at a time.
class KVX_API CPagedBuffer
{
public:
    /// The page size where 0 is given.
    static constexpr unsigned int DEFAULT_PAGE_SIZE = 1024;

    explicit CPagedBuffer(unsigned int pageSize);
    /// With a copy of the data, written in one page of its size. The position is at its end.
    CPagedBuffer(void const * data, unsigned int size);
    virtual ~CPagedBuffer() = default;
    CPagedBuffer(CPagedBuffer const &) = delete;
    CPagedBuffer & operator=(CPagedBuffer const &) = delete;

    /// Holds a copy of the data, in one page of its size; the position is 0. In spite of the name the block is not
    /// kept.
    void Attach(void * data, unsigned int size);
    /// Frees all pages. A page size other than 0 replaces the present one.
    void Reset(unsigned int pageSize);

    unsigned int GetLength() const { return m_nLength; }
    unsigned int GetPosition() const { return m_nPosition; }
    /// False, and nothing changes, beyond the length.
    bool SetPosition(unsigned int position);
    /// Makes the pages up to the one of the byte at that offset, so that a multiple of the page size has a page more
    /// than it fills. Frees none. A position beyond the new length becomes the length.
    void SetLength(unsigned int length);

    /// The number of bytes read, or -1 at or beyond the end. A negative count only moves the position.
    int Read(void * target, int count);
    /// The count. A negative one only moves the position.
    int Write(void const * source, int count);

    /// Four bytes in the host's order. By contract the results are the opposite of all others: 0 says that it went
    /// well, non-zero that there weren't four bytes.
    int Read(unsigned long & value);
    int Write(unsigned long value);

    /// By contract only the length, in characters, is written, and the result is 0: see `WriteText`.
    int Write(CString const & text);
    /// By contract only the length is read, the text stays as it is, and the result is 0; without four bytes the text
    /// becomes empty, and the result isn't 0. See `ReadText`.
    int Read(CString & text);
    /// The length in characters, four bytes, and the characters in UTF-16.
    void WriteText(CString const & text);
    /// What `WriteText` wrote. False, with the text and the position as they were, if there isn't a whole one.
    bool ReadText(CString & text);

    /// The whole content as bytes, or as UTF-16 without an odd last byte. The position stays.
    void ToString(CStringA & text);
    void ToString(CString & text);
    /// The content becomes these bytes; the position is 0.
    void FromString(CStringA const & text);
    /// By contract the content becomes twice as many bytes as there are characters, of which only the first half is
    /// written; the rest stays as the pages hold it. The position is 0. See `SetText`.
    void FromString(CString const & text);
    /// The content becomes the text in UTF-16; the position is 0.
    void SetText(CString const & text);

    /// Writes all to the file, from its position on.
    void ToFile(CFile & file);
    /// Takes the file's length, and reads from its position on. By contract each piece of a page's size lands in the
    /// first page, so that only a file of up to one page comes over: see `LoadFile`.
    void FromFile(CFile & file);
    /// The content becomes what the file holds from its position on, to its end; the position is 0.
    void LoadFile(CFile & file);

    class CPage
    {
    public:
        explicit CPage(unsigned int size) : m_data(std::make_unique<BYTE[]>(size)) {}
        BYTE * GetData() const { return m_data.get(); }

    private:
        std::unique_ptr<BYTE[]> m_data;
    };

protected:
    /// Of a byte: its page, and where it lies in it.
    void CalcPageInfo(unsigned int position, unsigned int & index, unsigned int & offset) const;
    /// Raises CInvalidArgException beyond the last page.
    CPage * GetPage(unsigned int index) const;
    /// The page, which is made, with all before it, if it isn't there.
    CPage * CreatePage(unsigned int index);

private:
    unsigned int m_nLength = 0;
    unsigned int m_nPosition = 0;
    unsigned int m_nPageSize;
    std::vector<std::unique_ptr<CPage>> m_pages;

    void Move(int count);
    template <class WORK>
    void ForEachPiece(unsigned int position, unsigned int count, WORK work) const;
    void CopyOut(unsigned int position, void * target, unsigned int count) const;
};
