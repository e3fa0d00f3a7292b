#include "kvx/platform/FolderTree.h"

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

namespace kvx
{
namespace
{
constexpr std::wstring_view LONG_PREFIX = L"\\\\?\\";

std::wstring ToFolder(std::wstring_view folder)
{
    std::wstring path(folder);
    if (!path.ends_with(L'\\') && !path.ends_with(L'/'))
    {
        path += L'\\';
    }
    return path;
}

/// What lies deep needs the prefix, which takes full paths without slashes alone.
std::wstring ToSystem(std::wstring const & path)
{
    if (path.size() < MAX_PATH - 12 || path.starts_with(LONG_PREFIX))
    {
        return path;
    }
    std::wstring full(32768, L'\0');
    DWORD const length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    if (length == 0 || length >= full.size())
    {
        return path;
    }
    full.resize(length);
    return full.starts_with(L"\\\\") ? L"\\\\?\\UNC" + full.substr(1) : std::wstring(LONG_PREFIX) + full;
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
    HANDLE const search = FindFirstFileExW(ToSystem(pattern).c_str(), FindExInfoBasic, &data, FindExSearchNameMatch,
                                           nullptr, FIND_FIRST_EX_LARGE_FETCH);
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
/// Keeps a folder what and where it is as long as it lives.
class HeldFolder
{
public:
    explicit HeldFolder(std::wstring const & path)
        : m_handle(CreateFileW(path.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                               OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr))
    {
    }
    HeldFolder(HeldFolder const &) = delete;
    HeldFolder & operator=(HeldFolder const &) = delete;
    ~HeldFolder()
    {
        if (m_handle != INVALID_HANDLE_VALUE)
        {
            CloseHandle(m_handle);
        }
    }

    /// Neither a link nor anything that couldn't be opened.
    bool IsReal() const
    {
        BY_HANDLE_FILE_INFORMATION info;
        return m_handle != INVALID_HANDLE_VALUE && GetFileInformationByHandle(m_handle, &info) &&
               !(info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT);
    }

private:
    HANDLE m_handle;
};
} // namespace

DWORD VisitFolderTree(std::wstring_view folder, LPCWSTR pattern, bool bRecursive,
                      std::function<void(FolderTreeEntry const &)> const & visit)
{
    // Which files match is the system's to say, so each folder is searched for them first. With a pattern that takes
    // all, one search does.
    bool const bAll = std::wstring_view(pattern) == L"*";
    std::wstring path = ToFolder(folder);
    std::vector<Level> levels;
    DWORD error = 0;
    auto const enter = [&]
    {
        Level level{{}, path.size()};
        DWORD code = 0;
        if (!bAll)
        {
            code = Search(path + pattern,
                          [&](WIN32_FIND_DATAW const & data)
                          {
                              if (!IsRealFolder(data))
                              {
                                  visit({path, data.cFileName, false});
                              }
                          });
        }
        DWORD const all = Search(path + L"*",
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
    std::wstring path = ToFolder(folder);
    std::optional<HeldFolder> held;
    if (!bThroughLink)
    {
        // A separator at the end would lead through the link, and a drive's root needs it.
        bool const bRoot = path.size() < 2 || path[path.size() - 2] == L':';
        held.emplace(ToSystem(bRoot ? path : path.substr(0, path.find_last_not_of(L"\\/") + 1)));
        if (!held->IsReal())
        {
            return;
        }
    }
    std::vector<Level> levels;
    auto const enter = [&]
    {
        Level level{{}, path.size()};
        Search(path + L"*",
               [&](WIN32_FIND_DATAW const & data)
               {
                   std::wstring const entry = ToSystem(path + data.cFileName);
                   ClearReadOnly(entry, data.dwFileAttributes);
                   if (IsRealFolder(data))
                   {
                       level.folders.push_back(data.cFileName);
                   }
                   else if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
                   {
                       RemoveDirectoryW(entry.c_str()); // the link alone
                   }
                   else
                   {
                       DeleteFileW(entry.c_str());
                   }
               });
        levels.push_back(std::move(level));
    };
    enter();
    while (!levels.empty())
    {
        Level & level = levels.back();
        path.resize(level.length);
        if (!level.folders.empty())
        {
            path += level.folders.back() + L'\\';
            level.folders.pop_back();
            enter();
            continue;
        }
        levels.pop_back();
        if (!levels.empty())
        {
            RemoveDirectoryW(ToSystem(path.substr(0, path.size() - 1)).c_str());
        }
    }
}
} // namespace kvx
