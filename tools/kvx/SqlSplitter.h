#pragma once

#include <string>
#include <string_view>

/// Takes text apart into statements, which end at a ";" that stands in no text, name, comment or trigger. Work is
/// linear in the text.
class SqlSplitter
{
public:
    /// Adds a line, without its end.
    void AddLine(std::string_view line);
    /// The next whole statement with its ";"; false if there is none yet.
    bool Take(std::string & statement);
    /// Whether what is left has anything but white space and comments in it.
    bool HasRest() const;
    /// What is left, which is no longer there then.
    std::string TakeRest();

private:
    std::string m_strText;
    std::size_t m_nBegin = 0;   // of the statement to come
    std::size_t m_nScanned = 0; // so far
    char m_cWithin = 0;         // the quote to come, '-' in a comment of a line, '*' in one between marks
    bool m_bAny = false;        // there is something to run
    bool m_bTrigger = false;    // which ends at a "; END;"

    bool MayEndTrigger() const;
};
