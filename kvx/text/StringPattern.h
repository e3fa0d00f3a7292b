#pragma once

/// A wildcard pattern: `*` stands for any text, everything else for itself, in its own case.

#include "kvx/foundation/Stringable.h"

/// Each literal part is taken at its first occurrence, with no backing up: `*abc` doesn't match `abcxabc`. An empty
/// pattern matches the empty text alone.
class KVX_API CStringPattern : public CObject, public CStringable
{
    DECLARE_SERIAL(CStringPattern)

public:
    CStringPattern() = default;
    CStringPattern(CString const & pattern) : m_strPattern(pattern) {}
    CStringPattern(CStringPattern const & other) : CObject(), CStringable(), m_strPattern(other.m_strPattern) {}

    CStringPattern & operator=(CStringPattern const & other)
    {
        Copy(other);
        return *this;
    }
    CStringPattern & operator=(LPCTSTR pattern)
    {
        m_strPattern = pattern;
        return *this;
    }
    void Copy(CStringPattern const & other) { m_strPattern = other.m_strPattern; }

    CString ToString() const override { return m_strPattern; }
    void FromString(CString const & pattern) override { m_strPattern = pattern; }
    int GetLength() const { return m_strPattern.GetLength(); }
    int IsEmpty() const { return m_strPattern.IsEmpty(); }

    /// 1 or 0. Threads: any number may match on one pattern.
    int Match(CString const & text) const;

    /// The 32-bit length and the characters as UTF-16. Errors: the archive's exceptions.
    void Serialize(CArchive & archive) override;

private:
    CString m_strPattern;
};
