#include "kvx/platform/FolderTree.h"

#include "HeldFolder.h"
#include "LongPath.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace kvx
{
using windows::HeldFolder;
using windows::LONG_PREFIX;
namespace
{
std::wstring ToFolder(std::wstring_view folder)
{
    std::wstring path(folder);
    if (!path.ends_with(L'\\') && !path.ends_with(L'/'))
    {
        path += L'\\';
    }
    return path;
}

/// For the system. Only the path of the first folder has to be made a full one.
std::wstring ToSystem(std::wstring const & path)
{
    std::wstring const full = path.starts_with(LONG_PREFIX) ? std::wstring() : windows::GetFullPath(path);
    if (full.empty())
    {
        return path;
    }
    return full.starts_with(L"\\\\.\\") ? full : windows::AddLongPrefix(full);
}

bool IsDots(WIN32_FIND_DATAW const & data)
{
    std::wstring_view const name(data.cFileName);
    return name == L"." || name == L"..";
}

/// Calls `action` for what matches; the system's code, 0 for a search that came to its end.
template <class ACTION>
DWORD Search(std::wstring const & pattern, ACTION const & action)
{
    WIN32_FIND_DATAW data;
    HANDLE const search = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &data, FindExSearchNameMatch, nullptr,
                                           FIND_FIRST_EX_LARGE_FETCH);
    if (search == INVALID_HANDLE_VALUE)
    {
        DWORD const code = GetLastError();
        return code == ERROR_FILE_NOT_FOUND ? 0 : code;
    }
    do
    {
        if (!IsDots(data))
        {
            action(data);
        }
    } while (FindNextFileW(search, &data));
    DWORD const code = GetLastError();
    FindClose(search);
    return code == ERROR_NO_MORE_FILES ? 0 : code;
}

bool IsRealFolder(WIN32_FIND_DATAW const & data)
{
    return (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) &&
           !(data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT);
}

/// The folders of one folder that are still to be looked at, the next one last.
struct Level
{
    std::vector<std::wstring> folders;
    std::size_t length; ///< of the path of the folder that they are in
};

void ClearReadOnly(std::wstring const & path, DWORD attributes)
{
    if (attributes & FILE_ATTRIBUTE_READONLY)
    {
        SetFileAttributesW(path.c_str(), attributes & ~static_cast<DWORD>(FILE_ATTRIBUTE_READONLY));
    }
}
} // namespace

DWORD VisitFolderTree(std::wstring_view folder, LPCWSTR pattern, bool bRecursive,
                      std::function<void(FolderTreeEntry const &)> const & visit)
{
    // Which files match is the system's to say, so each folder is searched for them first. With a pattern that takes
    // all, one search does.
    bool const bAll = std::wstring_view(pattern) == L"*";
    std::wstring path = ToFolder(folder);
    std::wstring const root = ToSystem(path);
    std::size_t const rootLength = path.size();
    std::vector<Level> levels;
    DWORD error = 0;
    auto const enter = [&]
    {
        Level level{{}, path.size()};
        std::wstring const system = root + path.substr(rootLength);
        DWORD code = 0;
        if (!bAll)
        {
            code = Search(system + pattern,
                          [&](WIN32_FIND_DATAW const & data)
                          {
                              if (!IsRealFolder(data))
                              {
                                  visit({path, data.cFileName, false});
                              }
                          });
        }
        DWORD const all = Search(system + L"*",
                                 [&](WIN32_FIND_DATAW const & data)
                                 {
                                     if (IsRealFolder(data))
                                     {
                                         level.folders.push_back(data.cFileName);
                                     }
                                     else if (bAll)
                                     {
                                         visit({path, data.cFileName, false});
                                     }
                                 });
        std::ranges::reverse(level.folders);
        code = all ? all : code;
        error = code ? code : error;
        levels.push_back(std::move(level));
    };
    enter();
    while (!levels.empty())
    {
        Level & level = levels.back();
        path.resize(level.length);
        if (level.folders.empty())
        {
            levels.pop_back();
            continue;
        }
        std::wstring const name = std::move(level.folders.back());
        level.folders.pop_back();
        visit({path, name, true});
        if (bRecursive)
        {
            path += name + L'\\';
            enter();
        }
    }
    return error;
}

void EmptyFolderTree(std::wstring_view folder, bool bThroughLink)
{
    struct Held
    {
        HeldFolder folder;
        std::vector<std::wstring> folders; // in it, that are still to be emptied
        std::size_t length;                // of its path
    };
    std::wstring path = ToSystem(ToFolder(folder));
    std::vector<Held> levels;
    auto const enter = [&](HeldFolder::Links links)
    {
        // A separator at the end would lead through a link, and a drive's root needs it.
        bool const bRoot = path.size() < 2 || path[path.size() - 2] == L':';
        Held level{HeldFolder(bRoot ? path : path.substr(0, path.size() - 1), links), {}, path.size()};
        std::vector<std::pair<std::wstring, DWORD>> entries;
        if (level.folder.IsReal())
        {
            Search(path + L"*",
                   [&](WIN32_FIND_DATAW const & data) { entries.emplace_back(data.cFileName, data.dwFileAttributes); });
        }
        // While it was empty it could become a link, also when it is held.
        if (!level.folder.IsReal())
        {
            return;
        }
        for (auto const & [name, attributes] : entries)
        {
            std::wstring const entry = path + name;
            ClearReadOnly(entry, attributes);
            if (!(attributes & FILE_ATTRIBUTE_DIRECTORY))
            {
                DeleteFileW(entry.c_str());
            }
            else if (attributes & FILE_ATTRIBUTE_REPARSE_POINT)
            {
                RemoveDirectoryW(entry.c_str()); // the link alone
            }
            else
            {
                level.folders.push_back(name);
            }
        }
        levels.push_back(std::move(level));
    };
    enter(bThroughLink ? HeldFolder::Links::Follow : HeldFolder::Links::Open);
    while (!levels.empty())
    {
        Held & level = levels.back();
        path.resize(level.length);
        if (!level.folders.empty())
        {
            path += level.folders.back() + L'\\';
            level.folders.pop_back();
            std::size_t const depth = levels.size();
            enter(HeldFolder::Links::Open);
            if (levels.size() > depth)
            {
                continue;
            }
        }
        else
        {
            levels.pop_back(); // and is no longer held
        }
        if (!levels.empty())
        {
            RemoveDirectoryW(path.substr(0, path.size() - 1).c_str());
        }
    }
}
} // namespace kvx
