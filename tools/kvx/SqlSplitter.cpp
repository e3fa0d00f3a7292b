#include "SqlSplitter.h"

#include <sqlite3.h>

#include <utility>

void SqlSplitter::AddLine(std::string_view line)
{
    m_strText.erase(0, m_nBegin);
    m_nScanned -= m_nBegin;
    m_nBegin = 0;
    m_strText += line;
    m_strText += '\n';
}

bool SqlSplitter::Take(std::string & statement)
{
    while (m_nScanned < m_strText.size())
    {
        char const c = m_strText[m_nScanned++];
        char const next = m_nScanned < m_strText.size() ? m_strText[m_nScanned] : '\0';
        if (m_cWithin == '-')
        {
            m_cWithin = c == '\n' ? '\0' : '-';
        }
        else if (m_cWithin == '*')
        {
            if (c == '*' && next == '/')
            {
                ++m_nScanned;
                m_cWithin = 0;
            }
        }
        else if (m_cWithin != 0)
        {
            m_cWithin = c == m_cWithin ? '\0' : m_cWithin; // a doubled quote leaves and comes back
        }
        else if ((c == '-' && next == '-') || (c == '/' && next == '*'))
        {
            ++m_nScanned;
            m_cWithin = next;
        }
        else if (c == ';')
        {
            // A trigger has statements of its own, which the engine knows the end of.
            std::string piece = m_strText.substr(m_nBegin, m_nScanned - m_nBegin);
            if (m_bAny && !sqlite3_complete(piece.c_str()))
            {
                continue;
            }
            m_nBegin = m_nScanned;
            if (std::exchange(m_bAny, false))
            {
                statement = std::move(piece);
                return true;
            }
        }
        else
        {
            m_bAny = m_bAny || (c != ' ' && (c < '\t' || c > '\r'));
            m_cWithin = c == '\'' || c == '"' || c == '`' ? c : c == '[' ? ']' : '\0';
        }
    }
    return false;
}

bool SqlSplitter::HasRest() const
{
    return m_bAny;
}

std::string SqlSplitter::TakeRest()
{
    std::string rest = m_strText.substr(m_nBegin);
    *this = SqlSplitter();
    return rest;
}
