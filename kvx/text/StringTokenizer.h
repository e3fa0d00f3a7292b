#pragma once

/// Splits a text at a delimiter, which is a whole text and no set of characters.

#include "kvx/platform/mfc/Afx.h"

/// Between two adjacent delimiters stands an empty token; a delimiter at the end of the source is followed by none.
/// Threads: a tokenizer belongs to one thread.
class KVX_API CStringTokenizer
{
public:
    CStringTokenizer() = default;
    CStringTokenizer(CString const & source, LPCTSTR delimiter) { SetSource(source, delimiter); }
    virtual ~CStringTokenizer() = default;

    void SetSource(CString const & source, LPCTSTR delimiter);
    /// The source, and the delimiter for a non-null pointer.
    CString GetSource(CString * delimiter = nullptr) const;

    /// Non-zero if there was a token. A non-null delimiter replaces the one in force, from here on.
    int GetNextString(CString & token, LPCTSTR delimiter = nullptr);
    int GetNext(CString & token, LPCTSTR delimiter = nullptr) { return GetNextString(token, delimiter); }
    CString GetNextString(LPCTSTR delimiter = nullptr);
    CString GetNext(LPCTSTR delimiter = nullptr) { return GetNextString(delimiter); }

    /// All from the next token to the end of the source; 0 and empty without one. With `consume` the token counts as
    /// taken.
    int GetRemainder(CString & text, int consume);
    void Restart();
    int IsValid() const;

    /// Adds all tokens at the tail of `out`; non-null arguments replace source and delimiter.
    void Tokenize(CStringList & out, LPCTSTR source = nullptr, LPCTSTR delimiter = nullptr);

private:
    int m_nStart = 0;
    int m_nEnd = -1;
    CString m_strSource;
    CString m_strDelimiter{_T(" ")};

    bool SeekNextString();
    int FindEnd(int start) const;
};
