#pragma once

/// Regular expressions.
///
/// The notation: `|` between alternatives; `*`, `+` and `?` behind what is repeated; `(` `)` for groups; `^` and `$`
/// for the start and the end of the subject; `.` for any character; `[a-z]` and `[^a-z]`, in which `]` and `-` are
/// themselves where they stand first, and `-` where it stands last; `\<` and `\>` for the start and the end of a word;
/// and, behind a backslash, a class: `m` letters and digits, `a` letters, `b` blank and tab, `c` controls, `d` digits,
/// `g` visible, `l` lower case, `p` visible or blank, `n` punctuation, `s` white space, `u` upper case, `x` hexadecimal
/// digits, `w` words (`m` and `_`). By contract a class in upper case is no complement but the class in front of it in
/// this list: `\D` is `\c`, and `\M` fits nothing. Any other character behind a backslash is itself. Classes are those
/// of ASCII.

#include "kvx/platform/mfc/Text.h"

#include <memory>
#include <vector>

namespace kvx
{
class RegExpProgram;
struct RegExpFault;
struct RegExpRange;
} // namespace kvx

/// Thrown by value.
class KVX_API CRegExpException
{
public:
    enum Error
    {
        invalidArgument = -1,
        tooBig = -2, ///< a pattern whose program would have 32767 bytes or more
        outOfMemory = -3,
        groups = -4, ///< `(` without `)` or the reverse, or too many of them
        range = -5,
        brackets = -6,
        quantifier = -7, ///< nothing to repeat, or something that can be empty, or a repeat of a repeat
        escape = -8,
        steps = -50, ///< a search that was given up: see `CRegExp::SetStepLimit`
        internal = -99
    };

    explicit CRegExpException(int error, char const * complaint = "") : m_nError(error), m_pszComplaint(complaint) {}

    int GetError() const { return m_nError; }
    /// The error in words.
    CString GetErrorString() const;
    /// What the compiler or the matcher complained of, more closely; static, in ASCII.
    char const * GetComplaint() const { return m_pszComplaint; }

private:
    int m_nError;
    char const * m_pszComplaint;
};

namespace kvx
{
/// What both kinds have in common: an expression, and the last match.
template <class STRING>
class RegExp
{
public:
    /// A search takes steps, about one for each operation or for 16 characters of a simple repeat; patterns such as
    /// `(a|aa)*b` may need more than there is time for. Beyond the limit, or when it has too many places to come back
    /// to, a search ends with the error `steps`. At the default that takes about a second, and never more than 100 MB.
    static constexpr ULONGLONG DEFAULT_STEP_LIMIT = 100'000'000;

    RegExp(RegExp const &) = delete;
    RegExp & operator=(RegExp const &) = delete;
    ~RegExp();

    /// Looks for the first match from the left: 1 or 0. Throws CRegExpException.
    int Exec(STRING const & subject);
    void SetStepLimit(ULONGLONG steps) { m_nStepLimit = steps; }

    // Of the last search. Group 0 is the whole match, groups count by their opening brackets.

    /// The number of groups, with group 0.
    int GetNumberOfMatches() const;
    int IsMatched(int group) const;
    /// Offsets, -1 for a group that took no part in the match, and for one that doesn't exist.
    int GetMatchStart(int group) const;
    int GetMatchEnd(int group) const;
    /// Empty where not matched.
    STRING GetMatch(int group) const;

protected:
    explicit RegExp(typename STRING::PCXSTR pattern);

private:
    std::unique_ptr<RegExpProgram const> m_program;
    STRING m_strSubject;
    std::vector<RegExpRange> m_ranges;
    ULONGLONG m_nStepLimit = DEFAULT_STEP_LIMIT;
};

KVX_INSTANCES(class, RegExp<CStringW>);
KVX_INSTANCES(class, RegExp<CStringA>);
} // namespace kvx

/// By contract the matcher reads the bytes of the wide texts up to the first byte that is 0: of a pattern or a subject
/// in ASCII that is the first character alone, and offsets count bytes. For whole texts take CRegExpA. Threads: an
/// object is for one at a time.
class KVX_API CRegExp : public kvx::RegExp<CStringW>
{
public:
    /// Throws CRegExpException.
    explicit CRegExp(LPCWSTR pattern) : RegExp(pattern) {}
};

/// Over narrow text, all of which the matcher sees; the pattern ends at a NUL, the subject may contain some. With UTF-8
/// a character of several bytes is that many characters to `.`, to sets and to repeats. Threads: an object is for one
/// at a time.
class KVX_API CRegExpA : public kvx::RegExp<CStringA>
{
public:
    /// Throws CRegExpException.
    explicit CRegExpA(LPCSTR pattern) : RegExp(pattern) {}
};
