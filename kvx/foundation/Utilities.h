#pragma once

/// CUtilities: static helpers that many folders share. It is declared here, and each folder defines the members
/// of its own topic: text/ the splitting of texts, hash/ the conversions between encodings.

#include "kvx/platform/mfc/Afx.h"

class CValueAccessor;

class KVX_API CUtilities
{
public:
    CUtilities() = delete;

    // Splitting (kvx/text/UtilitiesText.cpp)

    /// Splits at the first occurrence of `delimiter`, or at the last with `fromEnd`. The index of the delimiter;
    /// without it -1, with `left` the whole text and `right` empty. `left` and `right` may be `text` itself.
    static int SplitString(CString text, CString & left, CString & right, CString const & delimiter, int fromEnd);

    /// The last occurrence of `part`, or null; an empty `part` is found at the end.
    static LPCTSTR FindLastSubstring(LPCTSTR text, LPCTSTR part);

    /// Appends the words of a command line: separated by white space, or in double quotes; there is no escape.
    /// @return the size of `tokens`.
    static int TokenizeCommandLine(LPCTSTR line, CStringArray & tokens);
    /// The same into named values: `-name=value`, `/name=value`, or a name alone with the value 1.
    /// @return the number of values.
    static int TokenizeCommandLine(LPCTSTR line, CValueAccessor & values);

    // Conversions (kvx/hash/UtilitiesConversions.cpp). The names don't say what they do: the two AnsiToString read
    // different encodings.

    /// To the ANSI code page, cut to as many bytes as the text has characters.
    static CStringA StringToAnsi(CString const & text);
    static CStringA StringToAnsi(LPCTSTR text);
    /// From the ANSI code page.
    static CString AnsiToString(CStringA const & text);
    static CString AnsiToString(CStringA & text) { return AnsiToString(static_cast<CStringA const &>(text)); }
    /// From UTF-8.
    static CString AnsiToString(char const * text);
    static CStringA UnicodeToAnsi(CString const & text);
    static CString UnicodeToString(CString const & text) { return text; }
    static CString StringToUnicode(CString const & text) { return text; }
    /// Between a code page and wide text, of any length; empty where the system refuses.
    static CString MB2W(CStringA const & text, UINT codePage);
    static CStringA W2MB(CString const & text, UINT codePage);
    static CStringA MB2MB(CStringA const & text, UINT from, UINT to);
    static CString MB2T(CStringA const & text, UINT codePage) { return MB2W(text, codePage); }
    static CStringA T2MB(CString const & text, UINT codePage) { return W2MB(text, codePage); }
};
