#include "kvx/files/PagedMemFile.h"

#include <algorithm>
#include <limits>

BOOL CPagedMemFile::Open(LPCTSTR, UINT, CFileException *)
{
    return 1;
}

void CPagedMemFile::Close()
{
    m_buffer.Reset(0);
}

UINT CPagedMemFile::Read(void * lpBuf, UINT nCount)
{
    int const count = m_buffer.Read(lpBuf, static_cast<int>(std::min<UINT>(nCount, std::numeric_limits<int>::max())));
    return count < 0 ? 0 : static_cast<UINT>(count);
}

void CPagedMemFile::Write(void const * lpBuf, UINT nCount)
{
    auto const * bytes = static_cast<BYTE const *>(lpBuf);
    while (nCount > 0)
    {
        int const piece = static_cast<int>(std::min<UINT>(nCount, std::numeric_limits<int>::max()));
        m_buffer.Write(bytes, piece);
        bytes += piece;
        nCount -= static_cast<UINT>(piece);
    }
}

ULONGLONG CPagedMemFile::Seek(LONGLONG lOff, UINT nFrom)
{
    auto const length = static_cast<LONGLONG>(m_buffer.GetLength());
    // From the begin or the end: whatever is added to or taken from these stays far from the bounds of the type, or is
    // refused first.
    if (lOff > length || lOff < -length || nFrom > end)
    {
        return 0;
    }
    LONGLONG const target = nFrom == begin ? lOff : nFrom == current ? lOff + m_buffer.GetPosition() : length - lOff;
    return target >= 0 && target <= length && m_buffer.SetPosition(static_cast<unsigned int>(target));
}

void CPagedMemFile::SetLength(ULONGLONG dwNewLen)
{
    if (dwNewLen > std::numeric_limits<unsigned int>::max())
    {
        AfxThrowInvalidArgException();
    }
    m_buffer.SetLength(static_cast<unsigned int>(dwNewLen));
}
