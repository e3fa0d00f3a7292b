#include "kvx/platform/win32/shell_folders.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/low_descriptors.h"
#include "kvx/platform/win32/paths.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <new>
#include <optional>
#include <string_view>
#include <vector>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvx::win32
{

namespace
{

/// Where the folder of a row begins.
enum class Root
{
    Virtual, ///< nowhere in the file system
    Host,    ///< `path` is the host's
    Home,
    Config, ///< XDG_CONFIG_HOME
    Data,   ///< XDG_DATA_HOME
    Cache,  ///< XDG_CACHE_HOME
    User,   ///< `path` is the name of a user directory, and its default below the home
    Drive,  ///< drive C:
    Profile ///< the user's part of drive C:, for what the host has no place of its own for
};

struct ShellFolder
{
    int nFolder;
    Root root;
    std::string_view path;
    std::string_view strUserDir = {};
};

constexpr ShellFolder SHELL_FOLDERS[] = {
    {0, Root::User, "Desktop", "XDG_DESKTOP_DIR"},
    {1, Root::Virtual, "internet"},
    {2, Root::Data, "applications"},
    {3, Root::Virtual, "controls"},
    {4, Root::Virtual, "printers"},
    {5, Root::User, "Documents", "XDG_DOCUMENTS_DIR"},
    {6, Root::Profile, "Favorites"},
    {7, Root::Config, "autostart"},
    {8, Root::Profile, "AppData/Roaming/Microsoft/Windows/Recent"},
    {9, Root::Profile, "AppData/Roaming/Microsoft/Windows/SendTo"},
    {10, Root::Virtual, "bitbucket"},
    {11, Root::Data, "applications"},
    {13, Root::User, "Music", "XDG_MUSIC_DIR"},
    {14, Root::User, "Videos", "XDG_VIDEOS_DIR"},
    {16, Root::User, "Desktop", "XDG_DESKTOP_DIR"},
    {17, Root::Virtual, "drives"},
    {18, Root::Virtual, "network"},
    {19, Root::Profile, "AppData/Roaming/Microsoft/Windows/Network Shortcuts"},
    {20, Root::Host, "/usr/share/fonts"},
    {21, Root::User, "Templates", "XDG_TEMPLATES_DIR"},
    {22, Root::Host, "/usr/share/applications"},
    {23, Root::Host, "/usr/share/applications"},
    {24, Root::Host, "/etc/xdg/autostart"},
    {25, Root::Drive, "Users/Public/Desktop"},
    {CSIDL_APPDATA, Root::Config, ""},
    {27, Root::Profile, "AppData/Roaming/Microsoft/Windows/Printer Shortcuts"},
    {CSIDL_LOCAL_APPDATA, Root::Data, ""},
    {29, Root::Config, "autostart"},
    {30, Root::Host, "/etc/xdg/autostart"},
    {31, Root::Drive, "Users/Public/Favorites"},
    {32, Root::Cache, ""},
    {33, Root::Profile, "AppData/Local/Microsoft/Windows/INetCookies"},
    {34, Root::Profile, "AppData/Local/Microsoft/Windows/History"},
    {CSIDL_COMMON_APPDATA, Root::Drive, "ProgramData"},
    {CSIDL_WINDOWS, Root::Drive, "Windows"},
    {CSIDL_SYSTEM, Root::Drive, "Windows/System32"},
    {CSIDL_PROGRAM_FILES, Root::Drive, "Program Files"},
    {39, Root::User, "Pictures", "XDG_PICTURES_DIR"},
    {CSIDL_PROFILE, Root::Home, ""},
    {CSIDL_SYSTEMX86, Root::Drive, "Windows/SysWOW64"},
    {CSIDL_PROGRAM_FILESX86, Root::Drive, "Program Files (x86)"},
    {CSIDL_PROGRAM_FILES_COMMON, Root::Drive, "Program Files/Common Files"},
    {CSIDL_PROGRAM_FILES_COMMONX86, Root::Drive, "Program Files (x86)/Common Files"},
    {45, Root::Drive, "ProgramData/Microsoft/Windows/Templates"},
    {46, Root::Drive, "Users/Public/Documents"},
    {47, Root::Drive, "ProgramData/Microsoft/Windows/Start Menu/Programs/Administrative Tools"},
    {48, Root::Profile, "AppData/Roaming/Microsoft/Windows/Start Menu/Programs/Administrative Tools"},
    {49, Root::Virtual, "connections"},
    {53, Root::Drive, "Users/Public/Music"},
    {54, Root::Drive, "Users/Public/Pictures"},
    {55, Root::Drive, "Users/Public/Videos"},
    {56, Root::Drive, "Windows/Resources"},
    {57, Root::Drive, "Windows/Resources/0409"},
    {58, Root::Drive, "ProgramData/OEM Links"},
    {59, Root::Profile, "AppData/Local/Microsoft/Windows/Burn/Burn"},
};

std::string XdgFolder(char const * pszVariable, std::string_view strDefault)
{
    char const * const pszFolder = std::getenv(pszVariable);
    return pszFolder && *pszFolder == '/' ? std::string(pszFolder) : GetHomeFolder().append("/").append(strDefault);
}

std::string UserName()
{
    std::vector<char> buffer(16384);
    passwd entry;
    passwd * pEntry = nullptr;
    LowDescriptorGuard const guard;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &pEntry) == 0 && pEntry && *pEntry->pw_name)
    {
        return pEntry->pw_name;
    }
    return std::to_string(getuid());
}

/// The value of a line such as XDG_MUSIC_DIR="$HOME/My Music": absolute or below the home, in double quotes, where a
/// backslash takes the next character as it is.
std::optional<std::string> ReadUserDir(std::string_view line, std::string_view name)
{
    auto const trimLeft = [](std::string_view & text)
    { text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size())); };
    trimLeft(line);
    if (!line.starts_with(name))
    {
        return std::nullopt;
    }
    line.remove_prefix(name.size());
    trimLeft(line);
    if (!line.starts_with('='))
    {
        return std::nullopt;
    }
    line.remove_prefix(1);
    trimLeft(line);
    if (!line.starts_with('"'))
    {
        return std::nullopt;
    }
    line.remove_prefix(1);
    std::string strPath;
    if (line.starts_with("$HOME") && line.size() > 5 && (line[5] == '/' || line[5] == '"'))
    {
        strPath = GetHomeFolder();
        line.remove_prefix(5);
    }
    else if (!line.starts_with('/'))
    {
        return std::nullopt;
    }
    for (std::size_t n = 0; n < line.size() && line[n] != '"'; ++n)
    {
        if (line[n] == '\\' && n + 1 < line.size())
        {
            ++n;
        }
        strPath += line[n];
    }
    while (strPath.size() > 1 && strPath.ends_with('/'))
    {
        strPath.pop_back();
    }
    return strPath;
}

/// As the user has set it, the last line counting; else the default.
std::string UserDir(ShellFolder const & row)
{
    constexpr std::size_t LONGEST_FILE = 1 << 16;
    std::string strFolder = GetHomeFolder().append("/").append(row.path);
    std::string strText;
    {
        LowDescriptorGuard const guard;
        std::ifstream file(XdgFolder("XDG_CONFIG_HOME", ".config") + "/user-dirs.dirs", std::ios::binary);
        strText.resize(LONGEST_FILE);
        file.read(strText.data(), LONGEST_FILE);
        strText.resize(static_cast<std::size_t>(file.gcount()));
    }
    for (std::string_view rest = strText; !rest.empty();)
    {
        std::size_t const nEnd = std::min(rest.find('\n'), rest.size());
        if (std::optional<std::string> set = ReadUserDir(rest.substr(0, nEnd), row.strUserDir))
        {
            strFolder = std::move(*set);
        }
        rest.remove_prefix(std::min(nEnd + 1, rest.size()));
    }
    return strFolder;
}

std::string JoinHost(std::string strFolder, std::string_view path)
{
    while (strFolder.size() > 1 && strFolder.ends_with('/'))
    {
        strFolder.pop_back();
    }
    if (!path.empty())
    {
        strFolder.append("/").append(path);
    }
    return strFolder;
}

/// A folder of drive C:, made if it is missing, in the case in which its parts are there.
std::string DriveFolder(std::string const & strPath)
{
    std::string strFolder = GetDriveCRoot();
    for (std::string_view rest = strPath; !rest.empty();)
    {
        std::size_t const nEnd = std::min(rest.find('/'), rest.size());
        strFolder.append("/").append(rest.substr(0, nEnd));
        struct stat info;
        if (stat(strFolder.c_str(), &info) != 0 && !FindInAnyCase(strFolder))
        {
            mkdir(strFolder.c_str(), 0777);
        }
        rest.remove_prefix(std::min(nEnd + 1, rest.size()));
    }
    return strFolder;
}

std::string HostFolder(ShellFolder const & row)
{
    switch (row.root)
    {
    case Root::Virtual:
        return {};
    case Root::Host:
        return std::string(row.path);
    case Root::Home:
        return JoinHost(GetHomeFolder(), row.path);
    case Root::Config:
        return JoinHost(XdgFolder("XDG_CONFIG_HOME", ".config"), row.path);
    case Root::Data:
        return JoinHost(XdgFolder("XDG_DATA_HOME", ".local/share"), row.path);
    case Root::Cache:
        return JoinHost(XdgFolder("XDG_CACHE_HOME", ".cache"), row.path);
    case Root::User:
        return UserDir(row);
    case Root::Drive:
        return DriveFolder(std::string(row.path));
    case Root::Profile:
        return DriveFolder(JoinHost("Users/" + UserName(), row.path));
    }
    return {};
}

ShellFolder const * FindRow(int nFolder)
{
    auto const it = std::ranges::find(SHELL_FOLDERS, nFolder, &ShellFolder::nFolder);
    return it == std::ranges::end(SHELL_FOLDERS) ? nullptr : it;
}

UINT GiveFolder(int nFolder, LPWSTR pszBuffer, UINT nChars)
{
    return CopyText(GetShellFolder(nFolder), nChars, pszBuffer);
}

} // namespace

std::u16string GetShellFolder(int nFolder)
{
    ShellFolder const * const pRow = FindRow(nFolder);
    std::string const strHost = pRow ? HostFolder(*pRow) : std::string();
    return strHost.empty() ? std::u16string() : FromHost(strHost);
}

} // namespace kvx::win32

using namespace kvx::win32;

HRESULT SHGetFolderPathW(HWND, int nFolder, HANDLE, DWORD, LPWSTR pszPath)
{
    constexpr auto TOO_LONG = static_cast<HRESULT>(0x80070000u | static_cast<DWORD>(ERROR_FILENAME_EXCED_RANGE));
    if (!pszPath)
    {
        return E_INVALIDARG;
    }
    *pszPath = 0;
    if (!FindRow(nFolder))
    {
        return E_INVALIDARG;
    }
    std::u16string const strPath = GetShellFolder(nFolder);
    if (strPath.empty())
    {
        return E_FAIL;
    }
    if (strPath.size() >= MAX_PATH)
    {
        return TOO_LONG;
    }
    CopyText(strPath, MAX_PATH, pszPath);
    return S_OK;
}

UINT GetWindowsDirectoryW(LPWSTR pszBuffer, UINT nChars)
try
{
    return GiveFolder(CSIDL_WINDOWS, pszBuffer, nChars);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<UINT>(0);
}

UINT GetSystemDirectoryW(LPWSTR pszBuffer, UINT nChars)
try
{
    return GiveFolder(CSIDL_SYSTEM, pszBuffer, nChars);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<UINT>(0);
}
