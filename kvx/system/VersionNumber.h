#pragma once

#include "kvx/foundation/Stringable.h"

#include <array>

/// A version of four numbers, the most important one first.
class KVX_API CVersionNumber : public CObject, public CStringable
{
public:
    /// 0.0.0.0
    CVersionNumber() = default;
    CVersionNumber(CVersionNumber const & other) = default;
    /// As FromString.
    explicit CVersionNumber(CString const & text) { CVersionNumber::FromString(text); }
    CVersionNumber(unsigned int major, unsigned int minor, unsigned int build, unsigned int revision)
    {
        Set(major, minor, build, revision);
    }
    /// Four numbers; CInvalidArgException for null.
    explicit CVersionNumber(unsigned int const * numbers);
    CVersionNumber & operator=(CVersionNumber const & other) = default;

    void Set(unsigned int major, unsigned int minor, unsigned int build, unsigned int revision)
    {
        m_numbers = {major, minor, build, revision};
    }
    void Reset() { m_numbers = {}; }
    /// Whether all four are 0.
    int IsEmpty() const { return m_numbers == std::array<unsigned int, 4>{}; }
    int IsNotEmpty() const { return !IsEmpty(); }
    /// CInvalidArgException for an index other than 0 to 3.
    unsigned int & operator[](int index);
    unsigned int operator[](int index) const;

    /// Up to four numbers with dots or commas between them; blanks don't count, nor do dots without a number between
    /// them, and numbers that are missing are 0. Of a part only the figures at its begin count, behind a sign if there
    /// is one; what passes the range of an int is its end.
    void FromString(CString const & text) override;
    /// So many numbers, at most four, with a separator between them.
    CString ToString(int parts, char const * separator) const;
    CString ToString() const override { return ToString(4, "."); }

    /// Number by number: -1, 0 or 1.
    int Compare(CVersionNumber const & other) const;
    bool operator==(CVersionNumber const & other) const { return Compare(other) == 0; }
    bool operator<(CVersionNumber const & other) const { return Compare(other) < 0; }
    /// Adds number to number; there is no carry.
    CVersionNumber & operator+=(CVersionNumber const & other);

    /// 16 bytes.
    void Serialize(CArchive & archive) override;

private:
    std::array<unsigned int, 4> m_numbers{};
};
