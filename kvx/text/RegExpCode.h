#pragma once

/// The code that a pattern is compiled to, for those who write and who run it.

#include "kvx/text/RegExpProgram.h"

#include <string_view>
#include <vector>

namespace kvx::regexp
{
// An operation is a byte, two bytes with the distance to the next one (0: none; Back counts backwards), and an operand.
enum Operation : unsigned char
{
    End = 0,
    TextStart = 1,
    TextEnd = 2,
    Any = 3,
    AnyOf = 4,  // characters, ended by NUL
    AnyBut = 5, // the same
    Branch = 6, // an alternative; its operand is the operations of the alternative
    Back = 7,
    Exactly = 8, // characters, ended by NUL
    Nothing = 9,
    Star = 10,  // a single-character operation
    Plus = 11,  // the same
    Class = 12, // the number of a class
    WordStart = 13,
    WordEnd = 14,
    Open = 20, // the number of the group, two bytes; or, for groups 1 to 9, this operation and the number in one
    Close = 30
};

inline constexpr std::size_t HEAD = 3;
inline constexpr std::size_t NONE = ~std::size_t{0};

inline constexpr int ERROR_TOO_BIG = -2;
inline constexpr int ERROR_GROUPS = -4;
inline constexpr int ERROR_RANGE = -5;
inline constexpr int ERROR_BRACKETS = -6;
inline constexpr int ERROR_REPEAT = -7;
inline constexpr int ERROR_ESCAPE = -8;
inline constexpr int ERROR_STEPS = -50;

[[noreturn]] inline void Fail(int error, char const * complaint)
{
    throw RegExpFault{error, complaint};
}

// The classes are the C locale's, whatever that of the process is.
inline bool IsInClass(int index, unsigned char c)
{
    bool const bDigit = c >= '0' && c <= '9';
    bool const bLower = c >= 'a' && c <= 'z';
    bool const bUpper = c >= 'A' && c <= 'Z';
    bool const bAlnum = bDigit || bLower || bUpper;
    bool const bGraph = c > ' ' && c < 0x7F;
    switch (index)
    {
    case 0:
        return bAlnum;
    case 1:
        return bLower || bUpper;
    case 2:
        return c == ' ' || c == '\t';
    case 3:
        return c < ' ' || c == 0x7F;
    case 4:
        return bDigit;
    case 5:
        return bGraph;
    case 6:
        return bLower;
    case 7:
        return bGraph || c == ' ';
    case 8:
        return bGraph && !bAlnum;
    case 9:
        return c == ' ' || (c >= '\t' && c <= '\r');
    case 10:
        return bUpper;
    case 11:
        return bDigit || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    case 12:
        return bAlnum || c == '_';
    default:
        return false; // there is no row in front of the first
    }
}

inline bool IsWord(unsigned char c)
{
    return IsInClass(12, c);
}

inline std::size_t Distance(std::vector<unsigned char> const & code, std::size_t at)
{
    return static_cast<std::size_t>(code[at + 1]) << 8 | code[at + 2];
}

inline std::size_t NextOf(std::vector<unsigned char> const & code, std::size_t at)
{
    std::size_t const distance = Distance(code, at);
    return distance == 0 ? NONE : code[at] == Back ? at - distance : at + distance;
}

inline std::string_view TextAt(std::vector<unsigned char> const & code, std::size_t at)
{
    return reinterpret_cast<char const *>(code.data() + at + HEAD); // ended by NUL
}

inline bool TestsOneCharacter(unsigned char operation)
{
    return operation == Any || operation == AnyOf || operation == AnyBut || operation == Class;
}
} // namespace kvx::regexp
