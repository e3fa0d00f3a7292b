#include "kvx/platform/win32/profiles.h"

#include "kvx/platform/win32/codepages.h"
#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/retry.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/unique_fd.h"
#include "kvx/platform/win32/upcase.h"
#include "kvx/platform/win32/utf8.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace kvx::win32;

namespace
{

constexpr std::size_t MAX_FILE = 64 << 20;
constexpr std::string_view UTF8_MARK = "\xEF\xBB\xBF";
constexpr std::string_view UTF16_MARK = "\xFF\xFE";
constexpr std::string_view UTF16_HIGH_MARK = "\xFE\xFF";
constexpr std::size_t NONE = static_cast<std::size_t>(-1);

bool IsBlank(char16_t c)
{
    return c <= u' ';
}

std::u16string_view Trim(std::u16string_view text)
{
    while (!text.empty() && IsBlank(text.front()))
    {
        text.remove_prefix(1);
    }
    while (!text.empty() && IsBlank(text.back()))
    {
        text.remove_suffix(1);
    }
    return text;
}

bool IsUtf8(std::string_view bytes)
{
    for (std::size_t n = 0; n < bytes.size();)
    {
        DecodedChar const decoded = DecodeUtf8Char(bytes, n);
        if (!decoded.bValid)
        {
            return false;
        }
        n += decoded.nBytes;
    }
    return true;
}

bool HasLineEnd(std::u16string_view text)
{
    return text.find_first_of(std::u16string_view(u"\r\n\0", 3)) != std::u16string_view::npos;
}

bool IsSectionName(std::u16string_view section)
{
    return !HasLineEnd(section) && section.find(u']') == std::u16string_view::npos;
}

bool IsKeyName(std::u16string_view key)
{
    key = Trim(key);
    return !key.empty() && key.front() != u';' && key.front() != u'[' && !HasLineEnd(key) &&
           key.find(u'=') == std::u16string_view::npos;
}

/// The host's path of a profile; empty with last error.
std::string ProfilePath(std::u16string_view path)
{
    if (path.find_first_of(u"/\\:") != std::u16string_view::npos)
    {
        return ToHost(path);
    }
    return ToHost(u"C:\\Windows\\" + std::u16string(path));
}

LONG CurrentError()
{
    return static_cast<LONG>(ErrorFromErrno(errno));
}

LONG ReadAll(int nFile, std::string & strBytes)
{
    struct stat info
    {
    };
    if (::fstat(nFile, &info) != 0)
    {
        return CurrentError();
    }
    if (!S_ISREG(info.st_mode))
    {
        return ERROR_ACCESS_DENIED;
    }
    if (info.st_size > static_cast<off_t>(MAX_FILE))
    {
        return ERROR_FILE_TOO_LARGE;
    }
    strBytes.resize(static_cast<std::size_t>(info.st_size));
    std::size_t nRead = 0;
    while (nRead < strBytes.size())
    {
        ssize_t const nGot = Retry(
            [&]
            { return ::pread(nFile, strBytes.data() + nRead, strBytes.size() - nRead, static_cast<off_t>(nRead)); });
        if (nGot < 0)
        {
            return CurrentError();
        }
        if (nGot == 0)
        {
            break;
        }
        nRead += static_cast<std::size_t>(nGot);
    }
    strBytes.resize(nRead);
    return 0;
}

LONG LoadProfile(LPCWSTR pszPath, std::string & strBytes)
{
    std::string const strHost = ProfilePath(pszPath);
    if (strHost.empty())
    {
        return static_cast<LONG>(GetLastError());
    }
    UniqueFd const file(::open(strHost.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    return file ? ReadAll(file.Get(), strBytes) : CurrentError();
}

/// Puts the bytes in the place of the file, with its rights.
LONG ReplaceFile(std::string const & strHost, struct stat const & info, std::string_view bytes)
{
    std::string strNew = strHost + ".XXXXXX";
    UniqueFd const file(::mkostemp(strNew.data(), O_CLOEXEC));
    if (!file)
    {
        return CurrentError();
    }
    bool bGood = ::fchmod(file.Get(), info.st_mode & 07777) == 0;
    if (info.st_uid != ::geteuid() || info.st_gid != ::getegid())
    {
        bGood = bGood && ::fchown(file.Get(), info.st_uid, info.st_gid) == 0;
    }
    while (bGood && !bytes.empty())
    {
        ssize_t const nWritten = Retry([&] { return ::write(file.Get(), bytes.data(), bytes.size()); });
        bGood = nWritten >= 0;
        bytes.remove_prefix(nWritten > 0 ? static_cast<std::size_t>(nWritten) : 0);
    }
    bGood = bGood && ::fdatasync(file.Get()) == 0 && ::rename(strNew.c_str(), strHost.c_str()) == 0;
    LONG const nError = bGood ? 0 : CurrentError();
    if (!bGood)
    {
        ::unlink(strNew.c_str());
    }
    return nError;
}

/// Opens the file, made if it may be, and locks out other writers; the lock goes with the descriptor. `strHost` becomes
/// the file itself where it was a link.
LONG LockProfile(std::string & strHost, bool bCreate, UniqueFd & file, struct stat & info)
{
    for (;;)
    {
        if (std::unique_ptr<char, decltype(&std::free)> const pszReal(::realpath(strHost.c_str(), nullptr), &std::free);
            pszReal)
        {
            strHost = pszReal.get();
        }
        file = UniqueFd(
            ::open(strHost.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | (bCreate ? O_CREAT : 0), 0666));
        if (!file)
        {
            return CurrentError();
        }
        struct stat current
        {
        };
        if (Retry([&] { return ::flock(file.Get(), LOCK_EX); }) != 0 || ::fstat(file.Get(), &info) != 0)
        {
            return CurrentError();
        }
        // The writer before may have put another file in its place.
        if (::stat(strHost.c_str(), &current) == 0 && current.st_ino == info.st_ino && current.st_dev == info.st_dev)
        {
            return 0;
        }
    }
}

LONG ChangeProfile(LPCWSTR pszSection, LPCWSTR pszKey, LPCWSTR pszValue, LPCWSTR pszPath)
{
    if (!IsSectionName(pszSection) || (pszKey && !IsKeyName(pszKey)) || (pszKey && pszValue && HasLineEnd(pszValue)))
    {
        return ERROR_INVALID_PARAMETER;
    }
    std::u16string_view const path(pszPath);
    std::string strHost = ProfilePath(path);
    if (strHost.empty())
    {
        return static_cast<LONG>(GetLastError());
    }
    bool const bCreate = pszKey && pszValue;
    if (bCreate && path.find_first_of(u"/\\:") == std::u16string_view::npos)
    {
        ::mkdir(strHost.substr(0, strHost.rfind('/')).c_str(), 0777);
    }
    UniqueFd file;
    struct stat info
    {
    };
    LONG nError = LockProfile(strHost, bCreate, file, info);
    if (nError == ERROR_FILE_NOT_FOUND)
    {
        if (bCreate)
        {
            return ERROR_PATH_NOT_FOUND;
        }
        return 0; // what isn't there has been removed
    }
    std::string strBytes;
    if (nError == 0)
    {
        nError = ReadAll(file.Get(), strBytes);
    }
    if (nError != 0)
    {
        return nError;
    }
    IniText text(strBytes);
    if (!pszKey)
    {
        nError = text.RemoveSection(pszSection);
    }
    else if (!pszValue)
    {
        nError = text.RemoveKey(pszSection, pszKey);
    }
    else
    {
        nError = text.Set(pszSection, pszKey, pszValue);
    }
    if (nError == 0 && text.GetBytes().size() > MAX_FILE)
    {
        nError = ERROR_FILE_TOO_LARGE;
    }
    return nError != 0 || text.GetBytes() == strBytes ? nError : ReplaceFile(strHost, info, text.GetBytes());
}

/// Runs the body of a call to its end whatever happens to the thread, and turns what is thrown into an error.
template <class F>
LONG Guarded(F const & body) noexcept
{
    UninterruptedScope const scope;
    try
    {
        return body();
    }
    catch (std::bad_alloc const &)
    {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    catch (...)
    {
        return ERROR_INVALID_PARAMETER;
    }
}

std::u16string_view WithoutQuotes(std::u16string_view value)
{
    bool const bQuoted =
        value.size() >= 2 && value.front() == value.back() && (value.front() == u'"' || value.front() == u'\'');
    return bQuoted ? value.substr(1, value.size() - 2) : value;
}

DWORD CopyText(std::u16string_view text, LPWSTR pszBuffer, DWORD nSize)
{
    if (text.size() >= nSize)
    {
        SetLastError(ERROR_MORE_DATA);
        text = text.substr(0, nSize - 1);
    }
    *std::ranges::copy(text, pszBuffer).out = u'\0';
    return static_cast<DWORD>(text.size());
}

/// The list lacks its last NUL.
DWORD CopyList(std::u16string_view list, LPWSTR pszBuffer, DWORD nSize)
{
    if (list.size() < nSize)
    {
        *std::ranges::copy(list, pszBuffer).out = u'\0';
        if (list.empty() && nSize > 1)
        {
            pszBuffer[1] = u'\0';
        }
        return static_cast<DWORD>(list.size());
    }
    SetLastError(ERROR_MORE_DATA);
    DWORD const nKept = nSize < 2 ? 0 : nSize - 2;
    std::ranges::copy(list.substr(0, nKept), pszBuffer);
    std::fill(pszBuffer + nKept, pszBuffer + nSize, u'\0');
    return nKept;
}

UINT ToNumber(std::u16string_view text)
{
    bool bNegative = false;
    if (!text.empty() && (text.front() == u'-' || text.front() == u'+'))
    {
        bNegative = text.front() == u'-';
        text.remove_prefix(1);
    }
    unsigned nBase = 10;
    if (text.size() >= 2 && text[0] == u'0')
    {
        char16_t const c = static_cast<char16_t>(text[1] | 0x20);
        nBase = c == u'x' ? 16 : c == u'o' ? 8 : c == u'b' ? 2 : 10;
        text.remove_prefix(nBase == 10 ? 0 : 2);
    }
    UINT nResult = 0;
    for (char16_t const c : text)
    {
        char16_t const cLower = static_cast<char16_t>(c | 0x20);
        unsigned const nDigit = c >= u'0' && c <= u'9'             ? c - u'0'
                                : cLower >= u'a' && cLower <= u'f' ? cLower - u'a' + 10u
                                                                   : 16u;
        if (nDigit >= nBase)
        {
            break;
        }
        nResult = nResult * nBase + nDigit;
    }
    return bNegative ? 0u - nResult : nResult;
}

} // namespace

namespace kvx::win32
{

IniText::IniText(std::string strBytes) : m_strBytes(std::move(strBytes))
{
    Read();
}

void IniText::Read()
{
    m_lines.clear();
    std::string_view const bytes = m_strBytes;
    std::size_t nBegin = 0;
    std::size_t nUnit = 1;
    if (bytes.starts_with(UTF16_MARK))
    {
        m_encoding = Encoding::Utf16;
        nBegin = nUnit = 2;
    }
    else if (bytes.starts_with(UTF16_HIGH_MARK))
    {
        m_encoding = Encoding::Foreign;
        return;
    }
    else if (bytes.starts_with(UTF8_MARK))
    {
        m_encoding = Encoding::Utf8;
        nBegin = UTF8_MARK.size();
    }
    else
    {
        m_encoding = IsUtf8(bytes) ? Encoding::Utf8 : Encoding::Ansi;
    }

    auto const isUnit = [&](std::size_t nAt, char c)
    { return bytes[nAt] == c && (nUnit == 1 || (nAt + 1 < bytes.size() && bytes[nAt + 1] == 0)); };
    while (nBegin < bytes.size())
    {
        std::size_t nEnd = nBegin;
        while (nEnd < bytes.size() && !isUnit(nEnd, '\n'))
        {
            nEnd += nUnit;
        }
        nEnd = std::min(nEnd, bytes.size());
        std::size_t const nNext = std::min(nEnd + nUnit, bytes.size());
        if (nEnd >= nBegin + nUnit && nEnd < bytes.size() && isUnit(nEnd - nUnit, '\r'))
        {
            nEnd -= nUnit;
        }
        m_lines.push_back(ReadLine(nBegin, nEnd, nNext));
        nBegin = nNext;
    }
}

IniText::Line IniText::ReadLine(std::size_t nBegin, std::size_t nEnd, std::size_t nNext) const
{
    Line line{nBegin, nEnd, nEnd, nNext, Kind::Other, {}};
    std::u16string const strText = Decode(nBegin, nEnd);
    std::u16string_view const text = Trim(strText);
    if (text.empty())
    {
        line.kind = Kind::Blank;
    }
    else if (text.front() == u'[')
    {
        std::size_t const nClose = text.find(u']');
        if (nClose != std::u16string_view::npos)
        {
            line.kind = Kind::Section;
            line.strName = Trim(text.substr(1, nClose - 1));
        }
    }
    else if (std::size_t const nEqual = text.find(u'='); text.front() != u';' && nEqual != std::u16string_view::npos)
    {
        std::u16string_view const name = Trim(text.substr(0, nEqual));
        if (name.empty())
        {
            return line;
        }
        line.kind = Kind::Entry;
        line.strName = name;
        // In each encoding the sign is found among the bytes as well, whatever the text around it decodes to.
        std::size_t const nUnit = m_encoding == Encoding::Utf16 ? 2 : 1;
        std::string_view const bytes = m_strBytes;
        std::size_t nAt = nBegin;
        auto const isUnit = [&](char c) { return bytes[nAt] == c && (nUnit == 1 || bytes[nAt + 1] == 0); };
        while (nAt + nUnit <= nEnd && !isUnit('='))
        {
            nAt += nUnit;
        }
        nAt = std::min(nAt + nUnit, nEnd);
        while (nAt + nUnit <= nEnd && (isUnit(' ') || isUnit('\t')))
        {
            nAt += nUnit;
        }
        line.nValue = nAt;
    }
    return line;
}

std::u16string IniText::Decode(std::size_t nBegin, std::size_t nEnd) const
{
    std::string_view const bytes = std::string_view(m_strBytes).substr(nBegin, nEnd - nBegin);
    std::u16string strText;
    switch (m_encoding)
    {
    case Encoding::Utf16:
        strText.resize(bytes.size() / 2);
        std::memcpy(strText.data(), bytes.data(), 2 * strText.size());
        break;
    case Encoding::Utf8:
        strText = FromUtf8(bytes);
        break;
    case Encoding::Ansi:
        if (!bytes.empty())
        {
            int const nBytes = static_cast<int>(bytes.size());
            int const nUnits = MultiByteToWideChar(CP_ACP, 0, bytes.data(), nBytes, nullptr, 0);
            strText.resize(static_cast<std::size_t>(nUnits));
            MultiByteToWideChar(CP_ACP, 0, bytes.data(), nBytes, strText.data(), nUnits);
        }
        break;
    case Encoding::Foreign:
        break;
    }
    return strText;
}

LONG IniText::Encode(std::u16string_view text, Encoding encoding, std::string & strBytes)
{
    strBytes.clear();
    if (text.empty())
    {
        return 0;
    }
    if (encoding == Encoding::Foreign)
    {
        return ERROR_BAD_FORMAT;
    }
    if (encoding == Encoding::Utf16)
    {
        strBytes.assign(reinterpret_cast<char const *>(text.data()), 2 * text.size());
        return 0;
    }
    UINT const nPage = encoding == Encoding::Utf8 ? CP_UTF8 : CP_ACP;
    bool const bUtf8 = nPage == CP_UTF8 || GetACP() == CP_UTF8;
    DWORD const dwFlags = bUtf8 ? WC_ERR_INVALID_CHARS : WC_NO_BEST_FIT_CHARS;
    BOOL bLost = FALSE;
    BOOL * const pbLost = bUtf8 ? nullptr : &bLost;
    int const nUnits = static_cast<int>(text.size());
    int const nBytes = WideCharToMultiByte(nPage, dwFlags, text.data(), nUnits, nullptr, 0, nullptr, pbLost);
    if (nBytes <= 0 || bLost)
    {
        return ERROR_NO_UNICODE_TRANSLATION;
    }
    strBytes.resize(static_cast<std::size_t>(nBytes));
    WideCharToMultiByte(nPage, dwFlags, text.data(), nUnits, strBytes.data(), nBytes, nullptr, pbLost);
    return bLost ? ERROR_NO_UNICODE_TRANSLATION : 0;
}

IniText::Range IniText::FindSection(std::u16string_view section) const
{
    section = Trim(section);
    Range range{NONE, NONE};
    for (std::size_t n = 0; n < m_lines.size(); ++n)
    {
        if (m_lines[n].kind != Kind::Section)
        {
            continue;
        }
        if (range.nFirst != NONE)
        {
            range.nLast = n;
            return range;
        }
        if (IsSameName(m_lines[n].strName, section))
        {
            range = {n, m_lines.size()};
        }
    }
    return range;
}

std::size_t IniText::FindKey(Range const & range, std::u16string_view key) const
{
    key = Trim(key);
    if (range.nFirst != NONE)
    {
        for (std::size_t n = range.nFirst + 1; n < range.nLast; ++n)
        {
            if (m_lines[n].kind == Kind::Entry && IsSameName(m_lines[n].strName, key))
            {
                return n;
            }
        }
    }
    return NONE;
}

std::vector<std::u16string> IniText::GetSections() const
{
    std::vector<std::u16string> names;
    for (Line const & line : m_lines)
    {
        if (line.kind == Kind::Section)
        {
            names.push_back(line.strName);
        }
    }
    return names;
}

std::vector<std::u16string> IniText::GetKeys(std::u16string_view section) const
{
    std::vector<std::u16string> names;
    Range const range = FindSection(section);
    if (range.nFirst != NONE)
    {
        for (std::size_t n = range.nFirst; n < range.nLast; ++n)
        {
            if (m_lines[n].kind == Kind::Entry)
            {
                names.push_back(m_lines[n].strName);
            }
        }
    }
    return names;
}

bool IniText::Find(std::u16string_view section, std::u16string_view key, std::u16string & strValue) const
{
    std::size_t const n = FindKey(FindSection(section), key);
    if (n == NONE)
    {
        return false;
    }
    std::u16string const strText = Decode(m_lines[n].nValue, m_lines[n].nEnd);
    strValue = Trim(strText);
    return true;
}

std::u16string IniText::GetLineEnd() const
{
    for (Line const & line : m_lines)
    {
        if (line.nNext > line.nEnd)
        {
            return Decode(line.nEnd, line.nNext);
        }
    }
    return u"\r\n";
}

LONG IniText::Replace(std::size_t nBegin, std::size_t nEnd, std::u16string_view text)
{
    if (m_encoding == Encoding::Utf16 && nBegin % 2 != 0)
    {
        --nBegin; // half a character at the end would put all behind it out of step
    }
    // The bytes that told the encoding may be the ones that go.
    Encoding encoding = m_encoding;
    for (int nTry = 0; nTry < 2; ++nTry)
    {
        std::string strText;
        if (LONG const nError = Encode(text, encoding, strText); nError != 0)
        {
            return nError;
        }
        IniText changed(std::string(m_strBytes).replace(nBegin, nEnd - nBegin, strText));
        if (changed.m_encoding == encoding || text.empty())
        {
            *this = std::move(changed);
            return 0;
        }
        encoding = changed.m_encoding;
    }
    return ERROR_NO_UNICODE_TRANSLATION;
}

LONG IniText::Set(std::u16string_view section, std::u16string_view key, std::u16string_view value)
{
    if (!IsSectionName(section) || !IsKeyName(key) || HasLineEnd(value))
    {
        return ERROR_INVALID_PARAMETER;
    }
    if (m_encoding == Encoding::Foreign)
    {
        return ERROR_BAD_FORMAT;
    }
    value = Trim(value);
    Range const range = FindSection(section);
    if (std::size_t const n = FindKey(range, key); n != NONE)
    {
        return Replace(m_lines[n].nValue, m_lines[n].nEnd, value);
    }

    std::u16string const strEnd = GetLineEnd();
    std::u16string strNew;
    std::size_t nAt = m_strBytes.size();
    std::size_t nLast = m_lines.size();
    if (range.nFirst != NONE)
    {
        nLast = range.nLast;
        while (m_lines[nLast - 1].kind == Kind::Blank)
        {
            --nLast;
        }
        nAt = m_lines[nLast - 1].nNext;
    }
    if (nLast > 0 && m_lines[nLast - 1].nNext == m_lines[nLast - 1].nEnd)
    {
        strNew = strEnd;
    }
    if (range.nFirst == NONE)
    {
        strNew.append(u"[").append(section).append(u"]").append(strEnd);
    }
    strNew.append(Trim(key)).append(u"=").append(value).append(strEnd);
    return Replace(nAt, nAt, strNew);
}

LONG IniText::RemoveKey(std::u16string_view section, std::u16string_view key)
{
    std::size_t const n = FindKey(FindSection(section), key);
    return n == NONE ? 0 : Replace(m_lines[n].nBegin, m_lines[n].nNext, {});
}

LONG IniText::RemoveSection(std::u16string_view section)
{
    Range const range = FindSection(section);
    return range.nFirst == NONE ? 0 : Replace(m_lines[range.nFirst].nBegin, m_lines[range.nLast - 1].nNext, {});
}

} // namespace kvx::win32

DWORD GetPrivateProfileStringW(LPCWSTR pszSection, LPCWSTR pszKey, LPCWSTR pszDefault, LPWSTR pszBuffer, DWORD nSize,
                               LPCWSTR pszPath) noexcept
{
    if (!pszPath || !pszBuffer || nSize == 0)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    DWORD nCopied = 0;
    LONG const nError = Guarded(
        [&]
        {
            std::string strBytes;
            std::u16string strFound;
            LONG nReason = LoadProfile(pszPath, strBytes);
            IniText const text(std::move(strBytes));
            if (!pszSection || !pszKey)
            {
                for (std::u16string const & strName : pszSection ? text.GetKeys(pszSection) : text.GetSections())
                {
                    strFound.append(strName).append(1, u'\0');
                }
                SetLastError(static_cast<DWORD>(nReason));
                nCopied = CopyList(strFound, pszBuffer, nSize);
                return LONG{0};
            }
            std::u16string_view value;
            if (nReason == 0 && text.Find(pszSection, pszKey, strFound))
            {
                value = WithoutQuotes(strFound);
            }
            else
            {
                nReason = nReason == 0 ? ERROR_FILE_NOT_FOUND : nReason;
                value = pszDefault ? std::u16string_view(pszDefault) : std::u16string_view();
                value = value.substr(0, value.find_last_not_of(u' ') + 1);
            }
            SetLastError(static_cast<DWORD>(nReason));
            nCopied = CopyText(value, pszBuffer, nSize);
            return LONG{0};
        });
    if (nError != 0)
    {
        SetLastError(static_cast<DWORD>(nError));
        *pszBuffer = u'\0';
    }
    return nCopied;
}

UINT GetPrivateProfileIntW(LPCWSTR pszSection, LPCWSTR pszKey, INT nDefault, LPCWSTR pszPath) noexcept
{
    constexpr std::size_t LONGEST = 64;
    if (!pszSection || !pszKey)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return static_cast<UINT>(nDefault);
    }
    std::array<WCHAR, LONGEST> text{};
    DWORD const nLength = GetPrivateProfileStringW(pszSection, pszKey, nullptr, text.data(), LONGEST, pszPath);
    return nLength == 0 ? static_cast<UINT>(nDefault) : ToNumber(std::u16string_view(text.data(), nLength));
}

BOOL WritePrivateProfileStringW(LPCWSTR pszSection, LPCWSTR pszKey, LPCWSTR pszValue, LPCWSTR pszPath) noexcept
{
    LONG const nError = !pszSection || !pszPath
                            ? ERROR_INVALID_PARAMETER
                            : Guarded([&] { return ChangeProfile(pszSection, pszKey, pszValue, pszPath); });
    if (nError != 0)
    {
        SetLastError(static_cast<DWORD>(nError));
    }
    return nError == 0;
}
