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

/// Whether END, or a comment that may stand behind it, is right before the last ";".
bool SqlSplitter::MayEndTrigger() const
{
    std::size_t const last = m_strText.find_last_not_of(" \t\r\n\f\v", m_nScanned - 2);
    if (last == m_strText.npos || last < m_nBegin + 2)
    {
        return false;
    }
    auto const is = [&](std::size_t at, char letter) { return (m_strText[at] | 0x20) == letter; };
    return m_strText[last] == '/' || m_strText.find('\n', last) < m_nScanned - 1 ||
           (is(last, 'd') && is(last - 1, 'n') && is(last - 2, 'e'));
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
            // A trigger has statements of its own, and the engine knows its end. It is asked only where that may be.
            if (m_bTrigger && !MayEndTrigger())
            {
                continue;
            }
            std::string piece = m_strText.substr(m_nBegin, m_nScanned - m_nBegin);
            if (m_bAny && !sqlite3_complete(piece.c_str()))
            {
                m_bTrigger = true;
                continue;
            }
            m_bTrigger = false;
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
