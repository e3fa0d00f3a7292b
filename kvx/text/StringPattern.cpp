#include "kvx/text/StringPattern.h"

#include <algorithm>

IMPLEMENT_SERIAL(CStringPattern, CObject, 1)

int CStringPattern::Match(CString const & text) const
{
    using View = CString::View;
    View pattern = m_strPattern;
    View rest = text;
    std::size_t const first = std::min(pattern.find('*'), pattern.size());
    if (!rest.starts_with(pattern.substr(0, first)))
    {
        return 0;
    }
    rest.remove_prefix(first);
    pattern.remove_prefix(first);
    while (!pattern.empty())
    {
        pattern.remove_prefix(1); // the wildcard
        if (pattern.empty())
        {
            return 1;
        }
        std::size_t const length = std::min(pattern.find('*'), pattern.size());
        std::size_t const found = rest.find(pattern.substr(0, length));
        if (found == View::npos)
        {
            return 0;
        }
        rest.remove_prefix(found + length);
        pattern.remove_prefix(length);
    }
    return rest.empty();
}

void CStringPattern::Serialize(CArchive & archive)
{
    if (archive.IsStoring())
    {
        archive << static_cast<DWORD>(m_strPattern.GetLength());
        archive.Write(m_strPattern.GetString(), static_cast<UINT>(m_strPattern.GetLength()) * sizeof(WCHAR));
        return;
    }
    // Read in pieces: a false length costs no more memory than bytes arrive.
    constexpr DWORD PIECE = 32768;
    DWORD length = 0;
    archive >> length;
    CString pattern;
    while (length > 0)
    {
        UINT const step = std::min(length, PIECE);
        CString piece;
        UINT const got = archive.Read(piece.GetBufferSetLength(static_cast<int>(step)), step * sizeof(WCHAR));
        if (got < step * sizeof(WCHAR))
        {
            AfxThrowArchiveException(CArchiveException::endOfFile);
        }
        pattern += piece;
        length -= step;
    }
    m_strPattern = pattern;
}
