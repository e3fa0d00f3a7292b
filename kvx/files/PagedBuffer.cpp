#include "kvx/files/PagedBuffer.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace
{
unsigned int CheckedLength(ULONGLONG length)
{
    if (length > std::numeric_limits<unsigned int>::max())
    {
        AfxThrowInvalidArgException();
    }
    return static_cast<unsigned int>(length);
}

// A text's length in bytes fits in the buffer's: texts have at most 2^31 bytes.
unsigned int BytesOf(CString const & text)
{
    return static_cast<unsigned int>(text.GetLength()) * sizeof(WCHAR);
}
} // namespace

CPagedBuffer::CPagedBuffer(unsigned int pageSize) : m_nPageSize(pageSize ? pageSize : DEFAULT_PAGE_SIZE) {}

CPagedBuffer::CPagedBuffer(void const * data, unsigned int size) : CPagedBuffer(size)
{
    Attach(const_cast<void *>(data), size);
    m_nPosition = m_nLength;
}

void CPagedBuffer::Attach(void * data, unsigned int size)
{
    if (!data && size > 0)
    {
        AfxThrowInvalidArgException();
    }
    std::vector<std::unique_ptr<CPage>> pages;
    if (size > 0)
    {
        kvx::MemoryGuarded([&] { pages.push_back(std::make_unique<CPage>(size)); });
        std::memcpy(pages.front()->GetData(), data, size);
    }
    Reset(size);
    m_pages.swap(pages);
    m_nLength = size;
}

void CPagedBuffer::Reset(unsigned int pageSize)
{
    m_pages.clear();
    m_nLength = m_nPosition = 0;
    if (pageSize > 0)
    {
        m_nPageSize = pageSize;
    }
}

bool CPagedBuffer::SetPosition(unsigned int position)
{
    if (position > m_nLength)
    {
        return false;
    }
    m_nPosition = position;
    return true;
}

void CPagedBuffer::SetLength(unsigned int length)
{
    CreatePage(length / m_nPageSize);
    m_nLength = length;
    m_nPosition = std::min(m_nPosition, length);
}

void CPagedBuffer::CalcPageInfo(unsigned int position, unsigned int & index, unsigned int & offset) const
{
    index = position / m_nPageSize;
    offset = position % m_nPageSize;
}

CPagedBuffer::CPage * CPagedBuffer::GetPage(unsigned int index) const
{
    if (index >= m_pages.size())
    {
        AfxThrowInvalidArgException();
    }
    return m_pages[index].get();
}

CPagedBuffer::CPage * CPagedBuffer::CreatePage(unsigned int index)
{
    std::size_t const before = m_pages.size();
    try
    {
        while (m_pages.size() <= index)
        {
            m_pages.push_back(std::make_unique<CPage>(m_nPageSize));
        }
    }
    catch (std::bad_alloc const &)
    {
        m_pages.resize(before);
        AfxThrowMemoryException();
    }
    return m_pages[index].get();
}

void CPagedBuffer::Move(int count)
{
    LONGLONG const target = LONGLONG{m_nPosition} + count;
    m_nPosition = CheckedLength(static_cast<ULONGLONG>(target)); // below 0 is far beyond
}

// Calls `work` with the bytes of each page in the range, all of which exist, and with what lies behind it in the range.
template <class WORK>
void CPagedBuffer::ForEachPiece(unsigned int position, unsigned int count, WORK work) const
{
    unsigned int index = 0;
    unsigned int offset = 0;
    CalcPageInfo(position, index, offset);
    for (; count > 0; ++index, offset = 0)
    {
        unsigned int const piece = std::min(count, m_nPageSize - offset);
        count -= piece;
        work(GetPage(index)->GetData() + offset, piece);
    }
}

void CPagedBuffer::CopyOut(unsigned int position, void * target, unsigned int count) const
{
    auto * out = static_cast<BYTE *>(target);
    ForEachPiece(position, count,
                 [&](BYTE const * data, unsigned int piece)
                 {
                     std::memcpy(out, data, piece);
                     out += piece;
                 });
}

int CPagedBuffer::Read(void * target, int count)
{
    if (m_nPosition >= m_nLength)
    {
        return -1;
    }
    if (count > 0)
    {
        count = static_cast<int>(std::min(static_cast<unsigned int>(count), m_nLength - m_nPosition));
        CopyOut(m_nPosition, target, static_cast<unsigned int>(count));
    }
    Move(count);
    return count;
}

int CPagedBuffer::Write(void const * source, int count)
{
    if (count > 0)
    {
        unsigned int const end = CheckedLength(ULONGLONG{m_nPosition} + static_cast<unsigned int>(count));
        CreatePage((end - 1) / m_nPageSize);
        auto const * in = static_cast<BYTE const *>(source);
        ForEachPiece(m_nPosition, static_cast<unsigned int>(count),
                     [&](BYTE * data, unsigned int piece)
                     {
                         std::memmove(data, in, piece); // it may be a page of this buffer
                         in += piece;
                     });
    }
    Move(count);
    m_nLength = std::max(m_nLength, m_nPosition);
    return count;
}

int CPagedBuffer::Read(unsigned long & value)
{
    DWORD word = 0;
    int const count = Read(&word, sizeof(word));
    value = word;
    return count != sizeof(word);
}

int CPagedBuffer::Write(unsigned long value)
{
    auto const word = static_cast<DWORD>(value);
    return Write(&word, sizeof(word)) != sizeof(word);
}

int CPagedBuffer::Write(CString const & text)
{
    return Write(static_cast<unsigned long>(text.GetLength()));
}

int CPagedBuffer::Read(CString & text)
{
    unsigned long length = 0;
    int const failed = Read(length);
    if (failed)
    {
        text.Empty(); // there is no length that could be believed
    }
    return failed;
}

void CPagedBuffer::WriteText(CString const & text)
{
    unsigned int const start = m_nPosition;
    CheckedLength(ULONGLONG{start} + sizeof(DWORD) + BytesOf(text));
    Write(static_cast<unsigned long>(text.GetLength()));
    try
    {
        Write(text.GetString(), static_cast<int>(BytesOf(text)));
    }
    catch (CMemoryException *)
    {
        m_nPosition = start;
        throw;
    }
}

bool CPagedBuffer::ReadText(CString & text)
{
    unsigned int const start = m_nPosition;
    unsigned long length = 0;
    if (Read(length) || length > (m_nLength - m_nPosition) / sizeof(WCHAR))
    {
        m_nPosition = start;
        return false;
    }
    CString read;
    CopyOut(m_nPosition, read.GetBufferSetLength(static_cast<int>(length)),
            static_cast<unsigned int>(length * sizeof(WCHAR)));
    m_nPosition += static_cast<unsigned int>(length * sizeof(WCHAR));
    text = read;
    return true;
}

void CPagedBuffer::ToString(CStringA & text)
{
    auto const length = static_cast<int>(std::min<unsigned int>(m_nLength, std::numeric_limits<int>::max()));
    if (static_cast<unsigned int>(length) != m_nLength)
    {
        AfxThrowMemoryException(); // no text is as long as that
    }
    CStringA content;
    CopyOut(0, content.GetBufferSetLength(length), m_nLength);
    text = content;
}

void CPagedBuffer::ToString(CString & text)
{
    unsigned int const characters = m_nLength / sizeof(WCHAR);
    CString content;
    CopyOut(0, content.GetBufferSetLength(static_cast<int>(characters)),
            characters * static_cast<unsigned int>(sizeof(WCHAR)));
    text = content;
}

void CPagedBuffer::FromString(CStringA const & text)
{
    SetLength(static_cast<unsigned int>(text.GetLength()));
    m_nPosition = 0;
    Write(text.GetString(), text.GetLength());
    m_nPosition = 0;
}

void CPagedBuffer::FromString(CString const & text)
{
    SetLength(BytesOf(text));
    m_nPosition = 0;
    Write(text.GetString(), text.GetLength()); // bytes, not characters
    m_nPosition = 0;
}

void CPagedBuffer::SetText(CString const & text)
{
    SetLength(BytesOf(text));
    m_nPosition = 0;
    Write(text.GetString(), static_cast<int>(BytesOf(text)));
    m_nPosition = 0;
}

void CPagedBuffer::ToFile(CFile & file)
{
    file.RequireBytes();
    ForEachPiece(0, m_nLength, [&](BYTE const * data, unsigned int piece) { file.Write(data, piece); });
}

void CPagedBuffer::FromFile(CFile & file)
{
    file.RequireBytes();
    unsigned int const length = CheckedLength(file.GetLength());
    CreatePage(length / m_nPageSize); // what may fail comes first
    BYTE * const first = GetPage(0)->GetData();
    for (unsigned int rest = length; rest > 0;)
    {
        unsigned int const got = file.Read(first, std::min(rest, m_nPageSize));
        if (got == 0)
        {
            break; // the file has become shorter
        }
        rest -= got;
    }
    SetLength(length);
}

void CPagedBuffer::LoadFile(CFile & file)
{
    file.RequireBytes();
    CPagedBuffer loaded(m_nPageSize); // this one stays as it is until all is there, and may be what is read
    for (;;)
    {
        unsigned int index = 0;
        unsigned int offset = 0;
        loaded.CalcPageInfo(loaded.m_nLength, index, offset);
        unsigned int const got = file.Read(loaded.CreatePage(index)->GetData() + offset, m_nPageSize - offset);
        if (got == 0)
        {
            break;
        }
        loaded.m_nLength = CheckedLength(ULONGLONG{loaded.m_nLength} + got);
    }
    m_pages.swap(loaded.m_pages);
    m_nLength = loaded.m_nLength;
    m_nPosition = 0;
}
