/// The paths of pipes, and the names of the files behind them.

#include "kvx/platform/win32/pipes/pipe_names.h"

#include "kvx/platform/Fnv.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/pipes.h"
#include "kvx/platform/win32/upcase.h"
#include "kvx/platform/win32/utf8.h"

#include <optional>
#include <string_view>

#include <unistd.h>

namespace kvx::win32
{

namespace
{

constexpr bool IsSeparator(char16_t c)
{
    return c == u'\\' || c == u'/';
}

struct PipePath
{
    std::u16string_view machine;
    std::u16string_view name;
};

/// The parts of `\\machine\pipe\name`; none for any other path.
std::optional<PipePath> SplitPipePath(std::u16string_view path) noexcept
{
    if (path.size() < 2 || !IsSeparator(path[0]) || !IsSeparator(path[1]))
    {
        return std::nullopt;
    }
    path.remove_prefix(2);
    std::size_t const nMachine = path.find_first_of(u"\\/");
    if (nMachine == path.npos || nMachine == 0)
    {
        return std::nullopt;
    }
    constexpr std::u16string_view FOLDER = u"pipe";
    std::u16string_view const rest = path.substr(nMachine + 1);
    if (!IsSameName(rest.substr(0, FOLDER.size()), FOLDER) || rest.size() <= FOLDER.size() ||
        !IsSeparator(rest[FOLDER.size()]))
    {
        return std::nullopt;
    }
    return PipePath{path.substr(0, nMachine), rest.substr(FOLDER.size() + 1)};
}

bool IsThisMachine(std::u16string_view name)
{
    if (name == u".")
    {
        return true;
    }
    char szHost[256] = "";
    gethostname(szHost, sizeof szHost - 1);
    std::string_view const host(szHost);
    return IsSameName(name, std::u16string(host.begin(), host.end()));
}

/// The file that stands for a name: "pipe." and the name, with letters of ASCII in lower case, digits, "-", "_" and "."
/// as they are, and the UTF-8 bytes of all else, upper case, as %XX. A long one is cut and gets a hash of the whole.
std::string MakeFileName(std::u16string_view name)
{
    constexpr std::size_t LONGEST = 64;
    constexpr std::size_t READABLE = 47;
    constexpr char DIGITS[] = "0123456789ABCDEF";
    std::string strFile;
    for (std::size_t n = 0; n < name.size(); ++n)
    {
        char32_t c = name[n] == u'/' ? u'\\' : UpCase(name[n]);
        if (IsHighSurrogate(name[n]) && n + 1 < name.size() && IsLowSurrogate(name[n + 1]))
        {
            c = JoinSurrogates(name[n], name[n + 1]), ++n;
        }
        if (c >= U'A' && c <= U'Z')
        {
            strFile += static_cast<char>(c - U'A' + U'a');
        }
        else if ((c >= U'0' && c <= U'9') || c == U'-' || c == U'_' || c == U'.')
        {
            strFile += static_cast<char>(c);
        }
        else
        {
            char bytes[4];
            for (char const cByte : std::string_view(bytes, EncodeUtf8Char(c, bytes)))
            {
                auto const nByte = static_cast<unsigned char>(cByte);
                strFile += {'%', DIGITS[nByte >> 4], DIGITS[nByte & 0xF]};
            }
        }
    }
    if (strFile.size() > LONGEST)
    {
        Fnv hash;
        for (char const c : strFile)
        {
            hash.Add(static_cast<unsigned char>(c));
        }
        strFile.resize(READABLE);
        strFile += '~';
        for (int nShift = 60; nShift >= 0; nShift -= 4)
        {
            strFile += DIGITS[hash.Get() >> nShift & 0xF];
        }
    }
    return "pipe." + strFile;
}

} // namespace

std::string FileOfPipe(LPCWSTR pszPath)
{
    constexpr std::size_t LONGEST_PATH = 256;
    std::u16string_view const path(pszPath ? pszPath : u"");
    std::optional<PipePath> const parts = SplitPipePath(path);
    if (!parts || parts->name.empty())
    {
        SetLastError(ERROR_INVALID_NAME);
    }
    else if (path.size() > LONGEST_PATH)
    {
        SetLastError(ERROR_FILENAME_EXCED_RANGE);
    }
    else if (!IsThisMachine(parts->machine))
    {
        SetLastError(ERROR_BAD_NETPATH);
    }
    else
    {
        return MakeFileName(parts->name);
    }
    return {};
}

bool IsPipePath(LPCWSTR pszPath) noexcept
{
    return pszPath && IsSeparator(pszPath[0]) && IsSeparator(pszPath[1]) && SplitPipePath(pszPath).has_value();
}

} // namespace kvx::win32
