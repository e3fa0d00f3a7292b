#pragma once

/// How values come from a request into the engine, and back.

#include "kvx/platform/mfc/Text.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Half of a surrogate pair has no form in UTF-8, and would be stored as something else.
bool IsWellFormed(CString::View text);

/// X'00FF'
CString ToHexLiteral(BYTE const * bytes, int count);
/// The bytes of X'00FF' or 00FF; nothing for another text.
std::optional<std::vector<BYTE>> FromHexLiteral(CString::View text);

/// Short texts that a column has had lately: most columns repeat few in many rows, and one that is shared costs less to
/// make and to send. It gives up where a column doesn't.
class CTextCache
{
public:
    CString Get(std::string_view bytes);
    /// Another column comes.
    void Restart() { m_nLookups = m_nHits = 0; }

private:
    struct Entry
    {
        std::string strBytes;
        CString strText;
    };
    std::vector<Entry> m_entries; // by hash
    std::size_t m_nLookups = 0;
    std::size_t m_nHits = 0;
};
