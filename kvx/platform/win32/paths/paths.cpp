#include "kvx/platform/win32/paths.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/failure.h"
#include "kvx/platform/win32/low_descriptors.h"
#include "kvx/platform/win32/paths/folder_index.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/upcase.h"
#include "kvx/platform/win32/utf8.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

constexpr std::size_t MAX_CHARS = 32767;
/// Stands for a backslash inside a file name, which would else be taken for a separator.
constexpr char16_t NAMED_BACKSLASH = 0xF05C;

constexpr bool IsSeparator(char16_t c)
{
    return c == u'\\' || c == u'/';
}

constexpr bool IsLetter(char16_t c)
{
    return (c >= u'a' && c <= u'z') || (c >= u'A' && c <= u'Z');
}

bool StartsWithDrive(std::u16string_view path)
{
    return path.size() >= 2 && path[1] == u':' && IsLetter(path[0]);
}

/// Appends one component as bytes; false for what no file name can hold.
bool AppendName(std::string & strTarget, std::u16string_view name)
{
    std::size_t n = 0;
    std::size_t const nBefore = strTarget.size();
    strTarget.resize(nBefore + name.size());
    for (; n < name.size() && name[n] != 0 && name[n] < 0x80; ++n)
    {
        strTarget[nBefore + n] = static_cast<char>(name[n]);
    }
    strTarget.resize(nBefore + n);
    for (; n < name.size(); ++n)
    {
        char32_t c = name[n];
        if (c == 0)
        {
            return false;
        }
        if (c == NAMED_BACKSLASH)
        {
            c = U'\\';
        }
        else if (IsHighSurrogate(name[n]) && n + 1 < name.size() && IsLowSurrogate(name[n + 1]))
        {
            c = JoinSurrogates(name[n], name[n + 1]);
            ++n;
        }
        else if (c >= 0xDC80 && c <= 0xDCFF)
        {
            strTarget += static_cast<char>(c - 0xDC00);
            continue;
        }
        else if ((c & 0xF800) == 0xD800)
        {
            return false;
        }
        char szBytes[4];
        strTarget.append(szBytes, EncodeUtf8Char(c, szBytes));
    }
    return true;
}

/// Appends host bytes, with each slash turned to a backslash.
void AppendHost(std::u16string & strTarget, std::string_view host)
{
    for (std::size_t n = 0; n < host.size();)
    {
        DecodedChar const decoded = DecodeUtf8Char(host, n);
        if (!decoded.bValid)
        {
            for (std::size_t i = 0; i < decoded.nBytes; ++i)
            {
                strTarget += static_cast<char16_t>(0xDC00 + static_cast<unsigned char>(host[n + i]));
            }
        }
        else if (decoded.nChar == U'/')
        {
            strTarget += u'\\';
        }
        else if (decoded.nChar == U'\\')
        {
            strTarget += NAMED_BACKSLASH;
        }
        else
        {
            char16_t units[2];
            strTarget.append(units, EncodeUtf16Char(decoded.nChar, units));
        }
        n += decoded.nBytes;
    }
}

bool MakeFolders(std::string const & strPath)
{
    for (std::size_t n = 1; n != std::string::npos;)
    {
        n = strPath.find('/', n);
        std::string const strPart = strPath.substr(0, n);
        if (mkdir(strPart.c_str(), 0700) != 0 && errno != EEXIST)
        {
            return false;
        }
        if (n != std::string::npos)
        {
            ++n;
        }
    }
    return true;
}

std::string DataFolder()
{
    if (char const * const pszData = std::getenv("XDG_DATA_HOME"); pszData && *pszData == '/')
    {
        return std::string(pszData) + "/kvx";
    }
    return GetHomeFolder() + "/.local/share/kvx";
}

std::string FindDriveC()
{
    std::string strRoot;
    if (char const * const pszRoot = std::getenv("KVX_DRIVE_C"); pszRoot && *pszRoot == '/')
    {
        strRoot = pszRoot;
    }
    else
    {
        strRoot = DataFolder() + "/drive_c";
    }
    MakeFolders(strRoot);
    // getcwd tells the real path, by which the current directory is recognised as one on drive C.
    if (std::unique_ptr<char, decltype(&std::free)> const pszReal(realpath(strRoot.c_str(), nullptr), &std::free);
        pszReal)
    {
        strRoot = pszReal.get();
    }
    while (!strRoot.empty() && strRoot.back() == '/')
    {
        strRoot.pop_back();
    }
    return strRoot;
}

bool IsBelow(std::string_view path, std::string_view root)
{
    return path.starts_with(root) && (path.size() == root.size() || path[root.size()] == '/');
}

std::string CurrentDirectory()
{
    char szBuffer[PATH_MAX];
    if (!getcwd(szBuffer, sizeof szBuffer) || szBuffer[0] != '/')
    {
        return {};
    }
    return szBuffer;
}

/// The head of a path that ends before a name, on its own.
class FolderPath
{
public:
    FolderPath(std::string_view path, std::size_t nName) : m_bFits(nName < sizeof m_szPath)
    {
        if (nName == 0)
        {
            path = ".", nName = 1;
        }
        if (m_bFits)
        {
            m_szPath[path.copy(m_szPath, nName)] = '\0';
        }
    }
    explicit operator bool() const { return m_bFits; }
    char const * Get() const { return m_szPath; }

private:
    bool m_bFits;
    char m_szPath[PATH_MAX];
};

/// Where a path starts, and what follows.
struct Start
{
    enum class Base
    {
        Posix,    ///< the host's root, components are left alone
        Drive,    ///< the root of `nDrive`
        Relative, ///< the current directory
        Server    ///< a network or device path
    };
    Base base;
    char16_t nDrive; ///< upper case; 0 if the path names none
    std::u16string_view rest;
};

/// The drive of the current directory.
char16_t CurrentDrive(std::string_view current)
{
    return IsBelow(current, GetDriveCRoot()) ? u'C' : u'Z';
}

std::optional<Start> Analyse(std::u16string_view path)
{
    if (path.empty())
    {
        Refuse(ERROR_PATH_NOT_FOUND);
        return std::nullopt;
    }
    if (path.size() > MAX_CHARS)
    {
        Refuse(ERROR_FILENAME_EXCED_RANGE);
        return std::nullopt;
    }
    if (path.starts_with(u"\\\\?\\"))
    {
        path.remove_prefix(4);
        if (path.empty() || (path.size() >= 4 && IsSameName(path.substr(0, 4), u"UNC\\")))
        {
            Refuse(path.empty() ? ERROR_INVALID_NAME : ERROR_BAD_NETPATH);
            return std::nullopt;
        }
    }
    if (path.starts_with(u"\\\\"))
    {
        return Start{Start::Base::Server, 0, path};
    }
    if (StartsWithDrive(path))
    {
        Start start{Start::Base::Drive, UpCase(path[0]), path.substr(2)};
        if (start.rest.empty() || !IsSeparator(start.rest[0]))
        {
            if (start.nDrive == CurrentDrive(CurrentDirectory()))
            {
                start.base = Start::Base::Relative;
            }
        }
        return start;
    }
    if (path[0] == u'/')
    {
        return Start{Start::Base::Posix, 0, path};
    }
    if (path[0] == u'\\')
    {
        return Start{Start::Base::Drive, CurrentDrive(CurrentDirectory()), path};
    }
    return Start{Start::Base::Relative, 0, path};
}

/// Calls `visit(component)` for each component that isn't empty, until it returns false.
template <typename Char, typename Visit>
bool ForEachComponent(std::basic_string_view<Char> path, Visit visit)
{
    auto const isSeparator = [](Char c) { return c == Char('/') || (sizeof(Char) > 1 && c == Char('\\')); };
    for (std::size_t n = 0; n < path.size();)
    {
        std::size_t nEnd = n;
        while (nEnd < path.size() && !isSeparator(path[nEnd]))
        {
            ++nEnd;
        }
        if (nEnd > n && !visit(path.substr(n, nEnd - n)))
        {
            return false;
        }
        n = nEnd + 1;
    }
    return true;
}

/// Drops the last component of `strPath` without going below its first `nKept` characters.
bool DropLast(std::string & strPath, std::size_t nKept)
{
    if (strPath.size() <= nKept)
    {
        return false;
    }
    std::size_t const n = strPath.rfind('/');
    strPath.resize(n == std::string::npos || n < nKept ? nKept : n);
    return true;
}

bool Exists(std::string const & strPath)
{
    struct stat info;
    return lstat(strPath.c_str(), &info) == 0;
}

} // namespace

std::size_t NamePosition(std::u16string_view path)
{
    std::size_t const n = path.find_last_of(u"\\/");
    if (n != path.npos)
    {
        return n + 1;
    }
    return path.size() >= 2 && path[1] == u':' ? 2 : 0;
}

std::string GetHomeFolder()
{
    if (char const * const pszHome = std::getenv("HOME"); pszHome && *pszHome == '/')
    {
        return pszHome;
    }
    std::vector<char> buffer(16384);
    passwd entry;
    passwd * pEntry = nullptr;
    LowDescriptorGuard const guard;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &pEntry) == 0 && pEntry && pEntry->pw_dir)
    {
        return pEntry->pw_dir;
    }
    return "/nonexistent";
}

DWORD CopyText(std::u16string_view text, DWORD nChars, LPWSTR pszBuffer)
{
    if (text.empty())
    {
        return 0;
    }
    if (!pszBuffer || nChars <= text.size())
    {
        return static_cast<DWORD>(text.size() + 1);
    }
    *std::ranges::copy(text, pszBuffer).out = 0;
    return static_cast<DWORD>(text.size());
}

std::string GetDataFolder()
{
    std::string strFolder = DataFolder();
    if (MakeFolders(strFolder))
    {
        return strFolder;
    }
    SetLastErrorFromErrno();
    return {};
}

std::string const & GetDriveCRoot()
{
    // A thread that is terminated must not leave the first call half done; later calls are one load.
    UninterruptedScope const scope;
    static std::string const & strRoot = *new std::string(FindDriveC());
    return strRoot;
}

bool IsKnownMissing(std::string & strHost)
{
    std::size_t const nBegin = strHost.rfind('/') + 1; // 0 behind npos
    FolderPath const folder(strHost, nBegin);
    std::string strFound;
    if (!folder || nBegin == strHost.size())
    {
        return false;
    }
    auto const lookup = RecallName(folder.Get(), std::string_view(strHost).substr(nBegin), strFound);
    if (lookup == NameLookup::Found)
    {
        strHost.replace(nBegin, std::string::npos, strFound);
    }
    return lookup == NameLookup::Missing;
}

bool FindInAnyCase(std::string & strHost, LastComponent last)
{
    std::size_t const nPathEnd = strHost.find_last_not_of('/');
    if (nPathEnd == std::string::npos)
    {
        errno = ENOENT;
        return false;
    }
    std::size_t nEnd = nPathEnd + 1;
    std::size_t nBegin = strHost.rfind('/', nPathEnd) + 1; // 0 behind npos
    bool bLast = true;
    std::string strFound;
    auto const lookUp = [&]
    {
        if (bLast && last == LastComponent::Exact)
        {
            errno = ENOENT;
            return NameLookup::NoFolder;
        }
        std::string_view const name = std::string_view(strHost).substr(nBegin, nEnd - nBegin);
        if (FolderPath const folder(strHost, nBegin); folder)
        {
            return FindName(folder.Get(), name, strFound);
        }
        errno = ENAMETOOLONG;
        return NameLookup::NoFolder;
    };
    // Back to the last folder that is there as it is written, ...
    NameLookup lookup = lookUp();
    while (lookup == NameLookup::NoFolder && errno == ENOENT && nBegin > 0)
    {
        std::size_t const nFolderEnd = strHost.find_last_not_of('/', nBegin - 1);
        if (nFolderEnd == std::string::npos)
        {
            break;
        }
        nEnd = nFolderEnd + 1;
        nBegin = strHost.rfind('/', nFolderEnd) + 1;
        bLast = false;
        lookup = lookUp();
    }
    // ... and forth again by what is there in any case.
    bool bChanged = false;
    while (lookup == NameLookup::Found)
    {
        bChanged |= std::string_view(strHost).substr(nBegin, nEnd - nBegin) != strFound;
        strHost.replace(nBegin, nEnd - nBegin, strFound);
        if (bLast)
        {
            break;
        }
        // A name in another case can be of another length.
        nBegin = strHost.find_first_not_of('/', nBegin + strFound.size());
        nEnd = std::min(strHost.find('/', nBegin), strHost.size());
        bLast = strHost.find_first_not_of('/', nEnd) == std::string::npos;
        lookup = lookUp();
    }
    errno = bLast && lookup != NameLookup::NoFolder ? ENOENT : ENOTDIR;
    return bChanged && lookup == NameLookup::Found;
}

std::string ToHost(std::u16string_view path, LastComponent last)
{
    std::optional<Start> const start = Analyse(path);
    if (!start)
    {
        return {};
    }
    if (start->base == Start::Base::Server)
    {
        Refuse(path.starts_with(u"\\\\.\\") ? ERROR_INVALID_NAME : ERROR_BAD_NETPATH);
        return {};
    }
    if (start->nDrive != 0 && start->nDrive != u'C' && start->nDrive != u'Z')
    {
        Refuse(ERROR_PATH_NOT_FOUND);
        return {};
    }
    std::string strHost;
    if (start->base == Start::Base::Drive && start->nDrive == u'C')
    {
        strHost = GetDriveCRoot();
    }
    strHost.reserve(strHost.size() + start->rest.size() + 2);
    std::size_t nKept = strHost.size();
    // Whether a component put now needs a slash before it: only at the head of a relative path it doesn't.
    bool bAbsolute = start->base != Start::Base::Relative;
    bool const bDone = ForEachComponent(start->rest,
                                        [&](std::u16string_view name)
                                        {
                                            if (start->base != Start::Base::Posix)
                                            {
                                                if (name == u".")
                                                {
                                                    return true;
                                                }
                                                if (name == u"..")
                                                {
                                                    if (!DropLast(strHost, nKept) && !bAbsolute)
                                                    {
                                                        // Above the current directory: from here on the path is an
                                                        // absolute one.
                                                        strHost = CurrentDirectory();
                                                        if (strHost.empty())
                                                        {
                                                            return Refuse(ERROR_PATH_NOT_FOUND);
                                                        }
                                                        nKept =
                                                            CurrentDrive(strHost) == u'C' ? GetDriveCRoot().size() : 0;
                                                        bAbsolute = true;
                                                        if (strHost == "/")
                                                        {
                                                            strHost.clear();
                                                        }
                                                        DropLast(strHost, nKept);
                                                    }
                                                    return true;
                                                }
                                            }
                                            if (bAbsolute || !strHost.empty())
                                            {
                                                strHost += '/';
                                            }
                                            return AppendName(strHost, name) || Refuse(ERROR_INVALID_NAME);
                                        });
    if (!bDone)
    {
        return {};
    }
    if (strHost.empty())
    {
        strHost = bAbsolute ? "/" : ".";
    }
    else if (strHost.size() > nKept && !start->rest.empty() && IsSeparator(start->rest.back()))
    {
        strHost += '/'; // keeps saying that this must be a folder
    }
    if (strHost.size() >= PATH_MAX)
    {
        Refuse(ERROR_FILENAME_EXCED_RANGE);
        return {};
    }
    if (last != LastComponent::AsWritten && !Exists(strHost) && errno == ENOENT)
    {
        FindInAnyCase(strHost, last);
    }
    return strHost;
}

std::string ToHost(LPCWSTR pszPath, LastComponent last)
{
    return ToHost(pszPath ? std::u16string_view(pszPath) : std::u16string_view(), last);
}

std::u16string FromHost(std::string_view path)
{
    std::u16string strResult;
    strResult.reserve(path.size() + 3);
    if (path.starts_with('/'))
    {
        std::string const & strRoot = GetDriveCRoot();
        bool const bDriveC = !strRoot.empty() && IsBelow(path, strRoot);
        strResult = bDriveC ? u"C:" : u"Z:";
        if (bDriveC)
        {
            path.remove_prefix(strRoot.size());
        }
        if (path.empty())
        {
            strResult += u'\\';
        }
    }
    AppendHost(strResult, path);
    return strResult;
}

std::u16string ToFullPath(std::u16string_view path)
{
    if (path.starts_with(u"\\\\?\\") || path.starts_with(u"\\\\.\\"))
    {
        return std::u16string(path);
    }
    std::optional<Start> const start = Analyse(path);
    if (!start)
    {
        return {};
    }
    if (path.find(u'\0') != path.npos)
    {
        Refuse(ERROR_INVALID_NAME);
        return {};
    }
    if (start->base == Start::Base::Server)
    {
        return std::u16string(path);
    }
    std::u16string strResult;
    switch (start->base)
    {
    case Start::Base::Relative:
        if (std::string const strCurrent = CurrentDirectory(); !strCurrent.empty())
        {
            strResult = FromHost(strCurrent);
        }
        else
        {
            Refuse(ERROR_PATH_NOT_FOUND); // the folder is gone
            return {};
        }
        if (strResult.ends_with(u'\\'))
        {
            strResult.pop_back();
        }
        break;
    case Start::Base::Drive:
        strResult = {StartsWithDrive(path) ? path[0] : start->nDrive, u':'};
        break;
    default:
        strResult = u"Z:";
        break;
    }
    ForEachComponent(start->rest,
                     [&](std::u16string_view name)
                     {
                         if (name == u"..")
                         {
                             if (std::size_t const n = strResult.rfind(u'\\'); n != strResult.npos)
                             {
                                 strResult.resize(n);
                             }
                         }
                         else if (name != u".")
                         {
                             strResult.append(1, u'\\').append(name);
                         }
                         return true;
                     });
    bool const bFolder = !start->rest.empty() && IsSeparator(start->rest.back());
    if (strResult.size() == 2 || bFolder)
    {
        strResult += u'\\';
    }
    if (start->base == Start::Base::Posix)
    {
        std::u16string strDriveC = u"Z:";
        AppendHost(strDriveC, GetDriveCRoot());
        if (strDriveC.size() > 2 && strResult.starts_with(strDriveC) &&
            (strResult.size() == strDriveC.size() || strResult[strDriveC.size()] == u'\\'))
        {
            strResult.replace(0, strDriveC.size(), u"C:");
        }
        if (strResult.size() == 2)
        {
            strResult += u'\\';
        }
    }
    return strResult;
}

void SetLastErrorForPath(int nErrno)
{
    SetLastError(nErrno == ENOENT    ? ERROR_FILE_NOT_FOUND
                 : nErrno == ENOTDIR ? ERROR_PATH_NOT_FOUND
                                     : ErrorFromErrno(nErrno));
}

} // namespace kvx::win32
