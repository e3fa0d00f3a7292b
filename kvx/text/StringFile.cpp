#include "kvx/text/StringFile.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <limits>

namespace kvx
{
template <class XCHAR>
BOOL StringFile<XCHAR>::Open(LPCTSTR, UINT, CFileException *)
{
    return 1;
}

template <class XCHAR>
UINT StringFile<XCHAR>::Read(void * lpBuf, UINT nCount)
{
    auto const length = static_cast<DWORD>(m_text.GetLength());
    if (m_nPosition > length)
    {
        AfxThrowFileException(CFileException::endOfFile);
    }
    UINT const count = std::min<UINT>(nCount, length - m_nPosition);
    if (count > 0)
    {
        std::memmove(lpBuf, m_text.GetString() + m_nPosition, count * sizeof(XCHAR));
    }
    m_nPosition += count;
    return count;
}

// To at least this length; the new characters are 0.
template <class XCHAR>
void StringFile<XCHAR>::Lengthen(ULONGLONG length)
{
    if (length > static_cast<ULONGLONG>(std::numeric_limits<int>::max()))
    {
        AfxThrowMemoryException();
    }
    int const before = m_text.GetLength();
    if (static_cast<int>(length) > before)
    {
        auto * const buffer = m_text.GetBuffer(static_cast<int>(length));
        std::fill(buffer + before, buffer + length, XCHAR());
        m_text.ReleaseBufferSetLength(static_cast<int>(length));
    }
}

template <class XCHAR>
void StringFile<XCHAR>::Write(void const * lpBuf, UINT nCount)
{
    if (nCount == 0)
    {
        return;
    }
    ULONGLONG const end = ULONGLONG{m_nPosition} + nCount;
    // A part of the text itself would be gone when that grows; and a copy keeps it from being written in place.
    auto const * const source = static_cast<BYTE const *>(lpBuf);
    auto const * const text = reinterpret_cast<BYTE const *>(m_text.GetString());
    auto const bytes = static_cast<std::size_t>(m_text.GetLength()) * sizeof(XCHAR);
    bool const bOwn = std::greater_equal<>()(source, text) && std::less<>()(source, text + bytes);
    CStringT<XCHAR> const kept = bOwn ? m_text : CStringT<XCHAR>();
    Lengthen(end);
    int const length = m_text.GetLength();
    std::memmove(m_text.GetBuffer(length) + m_nPosition, lpBuf, nCount * sizeof(XCHAR));
    m_text.ReleaseBufferSetLength(length);
    m_nPosition = static_cast<DWORD>(end);
}

template <class XCHAR>
ULONGLONG StringFile<XCHAR>::Seek(LONGLONG lOff, UINT nFrom)
{
    // The position has 32 bits and wraps; no place is refused.
    auto const offset = static_cast<DWORD>(lOff);
    switch (nFrom)
    {
    case begin:
        m_nPosition = offset;
        break;
    case current:
        m_nPosition += offset;
        break;
    case end:
        m_nPosition = static_cast<DWORD>(m_text.GetLength()) - offset;
        break;
    default:
        AfxThrowInvalidArgException();
    }
    return m_nPosition;
}

template <class XCHAR>
void StringFile<XCHAR>::SetLength(ULONGLONG dwNewLen)
{
    Lengthen(dwNewLen);
    m_text.Truncate(static_cast<int>(dwNewLen));
}

template class StringFile<char>;
template class StringFile<WCHAR>;
} // namespace kvx
