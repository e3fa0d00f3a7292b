#pragma once

/// Profiles: INI files, with `key=value` lines in `[sections]`.
///
/// Paths take every form of kvx/platform/win32/paths.h; a name without separators lies in C:\Windows. A file with a
/// mark is UTF-16 (low byte first) or UTF-8 as the mark says. Without one it is UTF-8 if all of it is, else in the ANSI
/// code page. Names of sections and keys are compared without regard to case, and blanks around them and around values
/// don't count; of several alike the first counts. A line that begins with ';' is a comment.
///
/// A write changes the lines that it must and no other byte, and replaces the file as a whole: a reader sees the old
/// one or the new one. Writers of all processes take turns. A file of more than 64 MB is refused. Any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

/// Copies the value of a key, without quotes that enclose it, and returns its length. nSize is the room in characters,
/// with the NUL; what doesn't fit is cut (last error ERROR_MORE_DATA, result nSize - 1). If there is no such key or no
/// file, pszDefault is copied without blanks at its end, and the last error is ERROR_FILE_NOT_FOUND or the system's
/// reason. A null key asks for the keys of the section, a null section for the sections: each name ends with a NUL, the
/// list with one more, and a list that is cut gives nSize - 2.
/// ERROR_INVALID_PARAMETER for a null path or a null or empty buffer, with result 0.
KVX_API DWORD GetPrivateProfileStringW(LPCWSTR pszSection, LPCWSTR pszKey, LPCWSTR pszDefault, LPWSTR pszBuffer,
                                       DWORD nSize, LPCWSTR pszPath) noexcept;

/// The number that the value begins with: decimal with a sign or not, or behind 0x, 0o or 0b; 0 for a value that is no
/// number. nDefault if the key isn't there or has no value.
KVX_API UINT GetPrivateProfileIntW(LPCWSTR pszSection, LPCWSTR pszKey, INT nDefault, LPCWSTR pszPath) noexcept;

/// Writes a value; section and file are made if they aren't there. A null value removes the key, a null key the
/// section. FALSE with last error: ERROR_INVALID_PARAMETER for a null path or section, and for texts that would not be
/// read back (line ends anywhere, `]` in a section, `=`, or `;` or `[` at the beginning of a key, a key of blanks);
/// ERROR_NO_UNICODE_TRANSLATION for characters that the file's encoding lacks; ERROR_BAD_FORMAT for a file in UTF-16
/// with the high bytes first; ERROR_FILE_TOO_LARGE; ERROR_ACCESS_DENIED, ERROR_PATH_NOT_FOUND and other reasons of the
/// system.
KVX_API BOOL WritePrivateProfileStringW(LPCWSTR pszSection, LPCWSTR pszKey, LPCWSTR pszValue, LPCWSTR pszPath) noexcept;

namespace kvx::win32
{

/// The content of an INI file.
class KVX_API IniText
{
public:
    /// Any bytes will do: what is no line of an INI file is kept and ignored.
    explicit IniText(std::string strBytes);

    std::string const & GetBytes() const { return m_strBytes; }
    std::vector<std::u16string> GetSections() const;
    std::vector<std::u16string> GetKeys(std::u16string_view section) const;
    bool Find(std::u16string_view section, std::u16string_view key, std::u16string & strValue) const;

    /// These give 0 or a code of WritePrivateProfileStringW, and then change nothing.
    LONG Set(std::u16string_view section, std::u16string_view key, std::u16string_view value);
    LONG RemoveKey(std::u16string_view section, std::u16string_view key);
    LONG RemoveSection(std::u16string_view section);

private:
    enum class Encoding : std::uint8_t
    {
        Ansi,
        Utf8,
        Utf16,
        Foreign
    };
    enum class Kind : std::uint8_t
    {
        Blank,
        Other,
        Section,
        Entry
    };
    struct Line
    {
        std::size_t nBegin; ///< offsets in the bytes
        std::size_t nValue; ///< of an entry
        std::size_t nEnd;   ///< without the line end
        std::size_t nNext;
        Kind kind;
        std::u16string strName;
    };
    struct Range
    {
        std::size_t nFirst; ///< the section's own line
        std::size_t nLast;  ///< behind its last one
    };

    std::string m_strBytes;
    Encoding m_encoding = Encoding::Utf8;
    std::vector<Line> m_lines;

    void Read();
    Line ReadLine(std::size_t nBegin, std::size_t nEnd, std::size_t nNext) const;
    std::u16string Decode(std::size_t nBegin, std::size_t nEnd) const;
    static LONG Encode(std::u16string_view text, Encoding encoding, std::string & strBytes);
    Range FindSection(std::u16string_view section) const;
    std::size_t FindKey(Range const & range, std::u16string_view key) const;
    LONG Replace(std::size_t nBegin, std::size_t nEnd, std::u16string_view text);
    std::u16string GetLineEnd() const;
};

} // namespace kvx::win32
