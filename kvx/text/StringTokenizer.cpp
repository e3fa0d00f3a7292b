#include "kvx/text/StringTokenizer.h"

void CStringTokenizer::SetSource(CString const & source, LPCTSTR delimiter)
{
    m_strSource = source;
    if (delimiter)
    {
        m_strDelimiter = delimiter;
    }
    m_nStart = 0;
    m_nEnd = 0;
}

CString CStringTokenizer::GetSource(CString * delimiter) const
{
    if (delimiter)
    {
        *delimiter = m_strDelimiter;
    }
    return m_strSource;
}

/// Where the token that begins at `start` ends; an empty delimiter splits nothing.
int CStringTokenizer::FindEnd(int start) const
{
    int const found = m_strDelimiter.IsEmpty() ? -1 : m_strSource.Find(m_strDelimiter.AsView(), start);
    return found < 0 ? m_strSource.GetLength() : found;
}

void CStringTokenizer::Restart()
{
    m_nStart = 0;
    m_nEnd = FindEnd(0);
}

int CStringTokenizer::IsValid() const
{
    return m_nStart == 0 && m_nEnd == 0 ? !m_strSource.IsEmpty() : m_nEnd > m_nStart;
}

bool CStringTokenizer::SeekNextString()
{
    if (m_strSource.IsEmpty())
    {
        return false;
    }
    if (m_nStart == 0 && m_nEnd == 0)
    {
        Restart();
    }
    else if (m_nEnd <= m_nStart && m_nStart < m_strSource.GetLength())
    {
        m_nEnd = FindEnd(m_nStart);
    }
    return m_nEnd >= m_nStart && m_nStart < m_strSource.GetLength();
}

int CStringTokenizer::GetNextString(CString & token, LPCTSTR delimiter)
{
    if (delimiter)
    {
        m_strDelimiter = delimiter;
        m_nEnd = m_nStart > 0 ? m_nStart : 0;
    }
    if (!SeekNextString())
    {
        token.Empty();
        return 0;
    }
    token = m_strSource.Mid(m_nStart, m_nEnd - m_nStart);
    m_nStart = m_nEnd + (m_strDelimiter.IsEmpty() ? 0 : m_strDelimiter.GetLength());
    m_nEnd = m_nStart;
    return 1;
}

CString CStringTokenizer::GetNextString(LPCTSTR delimiter)
{
    CString token;
    GetNextString(token, delimiter);
    return token;
}

int CStringTokenizer::GetRemainder(CString & text, int consume)
{
    if (!SeekNextString())
    {
        text.Empty();
        return 0;
    }
    text = m_strSource.Mid(m_nStart);
    if (consume)
    {
        m_nStart = m_nEnd;
    }
    return 1;
}

void CStringTokenizer::Tokenize(CStringList & out, LPCTSTR source, LPCTSTR delimiter)
{
    if (source)
    {
        m_strSource = source;
    }
    if (delimiter)
    {
        m_strDelimiter = delimiter;
    }
    m_nStart = 0;
    m_nEnd = 0;
    CString token;
    while (GetNextString(token))
    {
        out.AddTail(token);
    }
}
