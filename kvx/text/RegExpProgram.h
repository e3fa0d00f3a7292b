#pragma once

/// The compiler and the matcher behind the regular expressions: over bytes, and without a class of texts.
///
/// The notation, the program and the search are those of the small regular expression library that Henry Spencer
/// published in 1986, with classes of characters and borders of words added. It backtracks: groups report what they
/// matched, and the first alternative that leads to a match wins, not the longest. Neither compiler nor matcher
/// recurses.

#include "kvx/platform/mfc/Afx.h"

#include <bitset>
#include <string_view>
#include <vector>

namespace kvx
{
/// Why a pattern or a match was refused: the number that callers get, and the complaint in words.
struct RegExpFault
{
    int nError;
    char const * pszComplaint; // static
};

/// Of a group in the subject, in bytes; -1 if it took no part in the match.
struct RegExpRange
{
    int nStart = -1;
    int nEnd = -1;
};

class RegExpBudget;

class RegExpProgram
{
public:
    /// Compiles. Throws RegExpFault.
    explicit RegExpProgram(std::string_view pattern);
    RegExpProgram(RegExpProgram const &) = delete;
    RegExpProgram & operator=(RegExpProgram const &) = delete;

    /// The number of groups, with the whole match as the first.
    int GetGroups() const { return m_nGroups; }
    /// Looks for the first match from the left. `ranges` has a place for each group, all of them unset. Throws
    /// RegExpFault if more than `limit` steps would be needed, or more than MEMORY_MAX bytes.
    bool Search(std::string_view subject, std::vector<RegExpRange> & ranges, ULONGLONG limit) const;

    /// A program has less bytes than this.
    static constexpr std::size_t SIZE_MAX_BYTES = 32767;
    static constexpr int GROUPS_MAX = 32767;
    static constexpr std::size_t MEMORY_MAX = std::size_t{64} << 20;

private:
    using CharSet = std::bitset<256>;
    friend class RegExpCompiler;
    friend class RegExpMatch;

    static constexpr unsigned char MAGIC = 156;

    int m_nGroups = 1;
    bool m_bAnchored = false;  // matches start at the start of the subject
    std::string_view m_prefix; // every match starts with this; points into m_code
    bool m_bHasFirst = false;  // or with one of m_first
    CharSet m_first;
    std::string_view m_must; // every match contains this; points into m_code
    std::vector<unsigned char> m_code;
    std::vector<CharSet> m_sets;         // of the operations that test one character,
    std::vector<unsigned short> m_setOf; // by their place in the code

    void Optimise(bool hasWidth);
    bool AddFirst(std::size_t at, CharSet & set, int depth) const;
    void CollectSets();
    bool SkipToStart(std::string_view subject, std::size_t & start, RegExpBudget & budget) const;
};
} // namespace kvx
