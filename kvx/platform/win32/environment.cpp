#include "kvx/platform/win32/environment.h"

#include "kvx/platform/win32/codepages.h"
#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/shell_folders.h"
#include "kvx/platform/win32/upcase.h"

#include <algorithm>
#include <cstdlib>
#include <new>

#include <unistd.h>

namespace kvx::win32
{

namespace
{

/// What is there although the host doesn't set it: the folder with an identifier, or the text.
struct DefaultVariable
{
    std::u16string_view name;
    int nFolder;
    std::u16string_view text;
};
constexpr int NO_FOLDER = -1;
constexpr DefaultVariable DEFAULT_VARIABLES[] = {
    {u"SystemDrive", NO_FOLDER, u"C:"},
    {u"SystemRoot", CSIDL_WINDOWS, u""},
    {u"windir", CSIDL_WINDOWS, u""},
    {u"ProgramFiles", CSIDL_PROGRAM_FILES, u""},
    {u"ProgramFiles(x86)", CSIDL_PROGRAM_FILESX86, u""},
    {u"ProgramW6432", CSIDL_PROGRAM_FILES, u""},
    {u"CommonProgramFiles", CSIDL_PROGRAM_FILES_COMMON, u""},
    {u"CommonProgramFiles(x86)", CSIDL_PROGRAM_FILES_COMMONX86, u""},
    {u"CommonProgramW6432", CSIDL_PROGRAM_FILES_COMMON, u""},
    {u"ProgramData", CSIDL_COMMON_APPDATA, u""},
    {u"ALLUSERSPROFILE", CSIDL_COMMON_APPDATA, u""},
    {u"PUBLIC", NO_FOLDER, u"C:\\Users\\Public"},
    {u"USERPROFILE", CSIDL_PROFILE, u""},
    {u"APPDATA", CSIDL_APPDATA, u""},
    {u"LOCALAPPDATA", CSIDL_LOCAL_APPDATA, u""},
};

char const * FindValue(std::u16string_view name)
{
    std::string const strName = ToUtf8(name);
    if (name.empty() || name.find(u'=') != name.npos || strName.find('\0') != strName.npos)
    {
        return nullptr;
    }
    if (char const * const pszValue = std::getenv(strName.c_str()))
    {
        return pszValue;
    }
    for (char ** pp = environ; pp && *pp; ++pp)
    {
        std::string_view const entry(*pp);
        std::size_t const nEnd = entry.find('=');
        if (nEnd != entry.npos && IsSameName(FromUtf8(entry.substr(0, nEnd)), name))
        {
            return *pp + nEnd + 1;
        }
    }
    return nullptr;
}

/// The host's list of folders, with a colon between them, as Windows writes it.
std::u16string ToFolderList(std::string_view folders)
{
    std::u16string strList;
    while (!folders.empty())
    {
        std::size_t const nEnd = std::min(folders.find(':'), folders.size());
        if (nEnd > 0)
        {
            if (!strList.empty())
            {
                strList += u';';
            }
            strList += FromHost(folders.substr(0, nEnd));
        }
        folders.remove_prefix(std::min(nEnd + 1, folders.size()));
    }
    return strList;
}

std::u16string TempFolder()
{
    std::u16string strPath(MAX_PATH_CHARS, u'\0');
    strPath.resize(GetTempPathW(static_cast<DWORD>(strPath.size()), strPath.data()));
    while (strPath.size() > 3 && strPath.ends_with(u'\\'))
    {
        strPath.pop_back();
    }
    return strPath;
}

} // namespace

std::optional<std::u16string> GetVariable(std::u16string_view name)
{
    if (char const * const pszValue = FindValue(name))
    {
        return IsSameName(name, u"PATH") ? ToFolderList(pszValue) : FromUtf8(pszValue);
    }
    for (DefaultVariable const & variable : DEFAULT_VARIABLES)
    {
        if (IsSameName(name, variable.name))
        {
            return variable.nFolder == NO_FOLDER ? std::u16string(variable.text) : GetShellFolder(variable.nFolder);
        }
    }
    if (IsSameName(name, u"TEMP") || IsSameName(name, u"TMP"))
    {
        return TempFolder();
    }
    return std::nullopt;
}

std::u16string ExpandVariables(std::u16string_view text)
{
    std::u16string strResult;
    for (;;)
    {
        std::size_t const nStart = std::min(text.find(u'%'), text.size());
        strResult += text.substr(0, nStart);
        text.remove_prefix(nStart);
        std::size_t const nEnd = text.find(u'%', 1);
        if (nEnd == text.npos)
        {
            return strResult.append(text);
        }
        std::optional<std::u16string> const value = GetVariable(text.substr(1, nEnd - 1));
        strResult += value ? *value : text.substr(0, nEnd);
        text.remove_prefix(value ? nEnd + 1 : nEnd);
    }
}

} // namespace kvx::win32

using namespace kvx::win32;

DWORD GetEnvironmentVariableW(LPCWSTR pszName, LPWSTR pszBuffer, DWORD nChars)
try
{
    std::optional<std::u16string> const value = GetVariable(pszName ? pszName : u"");
    SetLastError(value ? static_cast<DWORD>(NO_ERROR) : static_cast<DWORD>(ERROR_ENVVAR_NOT_FOUND));
    if (value && value->empty() && pszBuffer && nChars > 0)
    {
        *pszBuffer = 0;
    }
    return value ? CopyText(*value, nChars, pszBuffer) : 0;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(0);
}

DWORD ExpandEnvironmentStringsW(LPCWSTR pszText, LPWSTR pszBuffer, DWORD nChars)
try
{
    if (!pszText)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::u16string const strText = ExpandVariables(pszText);
    if (pszBuffer && nChars > 0)
    {
        bool const bFits = strText.size() < nChars;
        std::ranges::copy(bFits ? strText : std::u16string(), pszBuffer);
        pszBuffer[bFits ? strText.size() : 0] = 0;
    }
    return static_cast<DWORD>(strText.size() + 1);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(0);
}
