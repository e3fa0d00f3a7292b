#include "kvx/platform/win32/path_names.h"

#include "kvx/platform/win32/environment.h"
#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/modules.h"
#include "kvx/platform/win32/paths.h"
#include "kvx/platform/win32/upcase.h"

#include <algorithm>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

using namespace kvx::win32;

namespace
{

using View = std::u16string_view;

DWORD GiveExisting(LPCWSTR pszPath, LPWSTR pszBuffer, DWORD nChars)
{
    if (GetFileAttributesW(pszPath) == INVALID_FILE_ATTRIBUTES)
    {
        return 0;
    }
    return CopyText(pszPath, nChars, pszBuffer);
}

bool IsFile(std::u16string const & strPath)
{
    DWORD const dwAttributes = GetFileAttributesW(strPath.c_str());
    return dwAttributes != INVALID_FILE_ATTRIBUTES && !(dwAttributes & FILE_ATTRIBUTE_DIRECTORY);
}

std::u16string ProgramFolder()
{
    std::u16string strPath(MAX_PATH_CHARS, u'\0');
    strPath.resize(GetModuleFileNameW(nullptr, strPath.data(), static_cast<DWORD>(strPath.size())));
    strPath.resize(strPath.rfind(u'\\') + 1);
    return strPath;
}

void SplitFolders(View folders, std::vector<std::u16string> & list)
{
    while (!folders.empty())
    {
        std::size_t const nEnd = std::min(folders.find(u';'), folders.size());
        if (nEnd > 0)
        {
            list.emplace_back(folders.substr(0, nEnd));
        }
        folders.remove_prefix(std::min(nEnd + 1, folders.size()));
    }
}

std::vector<std::u16string> SearchedFolders(LPCWSTR pszFolders)
{
    std::vector<std::u16string> list;
    if (pszFolders)
    {
        SplitFolders(pszFolders, list);
        return list;
    }
    list = {ProgramFolder(), ToFullPath(u"."), u"C:\\Windows\\System32", u"C:\\Windows\\System", u"C:\\Windows"};
    SplitFolders(GetVariable(u"PATH").value_or(u""), list);
    return list;
}

/// What a program's name with ".exe" stands for here: the name alone, of a file that may be executed.
bool IsProgram(std::u16string const & strPath)
{
    return IsFile(strPath) && access(ToHost(strPath).c_str(), X_OK) == 0;
}

/// Whether the name says itself where the file is.
bool IsPlaced(View name)
{
    auto const isSeparator = [](char16_t c) { return c == u'\\' || c == u'/'; };
    if (isSeparator(name[0]) || (name.size() > 1 && name[1] == u':'))
    {
        return true;
    }
    std::size_t const nDots = std::min(name.find_first_not_of(u'.'), name.size());
    return nDots >= 1 && nDots <= 2 && nDots < name.size() && isSeparator(name[nDots]);
}

/// At most `nRoom` characters.
std::u16string Compact(View path, std::size_t nRoom)
{
    constexpr View DOTS = u"...";
    if (path.size() <= nRoom)
    {
        return std::u16string(path);
    }
    std::size_t const nName = path.find_last_of(u"\\/", path.size() - 2);
    View const name = nName == path.npos ? View() : path.substr(nName);
    std::u16string strResult;
    if (!name.empty() && name.size() + DOTS.size() <= nRoom)
    {
        return strResult.append(path.substr(0, nRoom - DOTS.size() - name.size())).append(DOTS).append(name);
    }
    if (!name.empty())
    {
        strResult.append(DOTS).append(name.substr(0, 1));
    }
    View const title = name.empty() ? path : name.substr(1);
    std::size_t const nTaken = strResult.size() + DOTS.size();
    strResult.append(title.substr(0, nRoom > nTaken ? nRoom - nTaken : 0)).append(DOTS);
    strResult.resize(std::min(strResult.size(), nRoom));
    return strResult;
}

BOOL PutCompact(LPWSTR pszOut, View path, std::size_t nRoom)
{
    std::u16string const strResult = Compact(path, nRoom);
    *std::ranges::copy(strResult, pszOut).out = 0;
    return TRUE;
}

} // namespace

DWORD GetLongPathNameW(LPCWSTR pszPath, LPWSTR pszBuffer, DWORD nChars)
try
{
    return GiveExisting(pszPath, pszBuffer, nChars);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(0);
}

DWORD GetShortPathNameW(LPCWSTR pszPath, LPWSTR pszBuffer, DWORD nChars)
try
{
    return GiveExisting(pszPath, pszBuffer, nChars);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(0);
}

DWORD SearchPathW(LPCWSTR pszFolders, LPCWSTR pszName, LPCWSTR pszExtension, DWORD nChars, LPWSTR pszBuffer,
                  LPWSTR * ppszFilePart)
try
{
    if (ppszFilePart)
    {
        *ppszFilePart = nullptr;
    }
    if (!pszName || !*pszName)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    std::u16string strName(pszName);
    std::size_t const nTitle = strName.find_last_of(u"\\/") + 1; // 0 behind npos
    std::u16string strBare;
    if (pszExtension && strName.find(u'.', nTitle) == strName.npos)
    {
        if (IsSameName(pszExtension, u".exe"))
        {
            strBare = strName;
        }
        strName += pszExtension;
    }
    auto const give = [&](std::u16string const & strPath)
    {
        std::u16string const strFull = ToFullPath(strPath);
        DWORD const nResult = CopyText(strFull, nChars, pszBuffer);
        if (ppszFilePart && nResult == strFull.size())
        {
            *ppszFilePart = pszBuffer + strFull.rfind(u'\\') + 1;
        }
        return nResult;
    };
    if (IsPlaced(strName))
    {
        if (IsFile(strName))
        {
            return give(strName);
        }
        if (!strBare.empty() && IsProgram(strBare))
        {
            return give(strBare);
        }
    }
    else
    {
        for (std::u16string & strFolder : SearchedFolders(pszFolders))
        {
            if (!strFolder.ends_with(u'\\') && !strFolder.ends_with(u'/'))
            {
                strFolder += u'\\';
            }
            if (std::u16string const strPath = strFolder + strName; IsFile(strPath))
            {
                return give(strPath);
            }
            if (!strBare.empty() && IsProgram(strFolder += strBare))
            {
                return give(strFolder);
            }
        }
    }
    SetLastError(ERROR_FILE_NOT_FOUND);
    return 0;
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<DWORD>(0);
}

BOOL PathCompactPathExW(LPWSTR pszOut, LPCWSTR pszPath, UINT nMax, DWORD)
try
{
    if (!pszOut || !pszPath || nMax == 0)
    {
        return FALSE;
    }
    return PutCompact(pszOut, pszPath, nMax - 1);
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}

BOOL PathCompactPathW(HDC, LPWSTR pszPath, UINT nPixels)
try
{
    constexpr UINT PIXELS_OF_CHARACTER = 7;
    if (!pszPath)
    {
        return FALSE;
    }
    return PutCompact(pszPath, std::u16string(pszPath),
                      std::min<std::size_t>(nPixels / PIXELS_OF_CHARACTER, MAX_PATH - 1));
}
catch (std::bad_alloc const &)
{
    return kvx::win32::WithoutMemory<BOOL>(FALSE);
}
