#include "kvx/foundation/Utilities.h"

#include "kvx/platform/FolderTree.h"

#include "kvx/foundation/AutoHandle.h"
#include "kvx/logging/LogManager.h"

namespace
{
/// Calls `action(path, data)` for each file that matches, until it gives false: then the result is 0, as it is for a
/// path that is too long. -1 if nothing matches, not even a folder.
template <class ACTION>
int ForEachMatch(LPCTSTR pattern, ACTION const & action)
{
    constexpr std::size_t LONGEST = 32000;
    CString fixed(pattern);
    CUtilities::CheckFixLongFilePathPrefix(fixed);
    if (fixed.IsEmpty())
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    CString::View const view = fixed;
    CString const directory(view.substr(0, view.find_last_of(_T("\\/:")) + 1)); // 0 behind npos
    WIN32_FIND_DATAW data;
    HANDLE const found = FindFirstFileW(fixed, &data);
    if (found == INVALID_HANDLE_VALUE)
    {
        return -1;
    }
    CAutoHandle const search(found, &FindClose);
    do
    {
        if (data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)
        {
            continue;
        }
        CString::View const name(data.cFileName);
        if (view.size() > LONGEST || directory.AsView().size() + name.size() > LONGEST)
        {
            SetLastError(ERROR_OUTOFMEMORY);
            return 0;
        }
        if (!action(directory + data.cFileName, data))
        {
            return 0;
        }
    } while (FindNextFileW(found, &data));
    return 1;
}

bool IsGivenDirectory(LPCTSTR directory)
{
    bool const bGiven = directory && *directory;
    SetLastError(bGiven ? static_cast<DWORD>(ERROR_SUCCESS) : static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    return bGiven;
}

/// The result of a call whose failure is told by the last error alone.
int Conclude(DWORD code)
{
    SetLastError(code);
    return code == 0;
}

int ListTree(LPCTSTR directory, CStringList & out, int recursive, bool bFolders)
{
    if (!IsGivenDirectory(directory))
    {
        return 0;
    }
    return Conclude(kvx::VisitFolderTree(directory, _T("*"), recursive != 0,
                                         [&](kvx::FolderTreeEntry const & entry)
                                         {
                                             if (entry.bFolder == bFolders)
                                             {
                                                 CString path(entry.folder);
                                                 path.Append(entry.name);
                                                 out.AddTail(path);
                                             }
                                         }));
}
} // namespace

int CUtilities::DeleteUnicodeFile(LPCTSTR pattern, int)
{
    int const result = ForEachMatch(pattern,
                                    [](CString const & path, WIN32_FIND_DATAW const & data)
                                    {
                                        if (data.dwFileAttributes & FILE_ATTRIBUTE_READONLY)
                                        {
                                            SetFileAttributesW(path, data.dwFileAttributes & ~FILE_ATTRIBUTE_READONLY);
                                        }
                                        bool const bDeleted = ::DeleteFileW(path);
                                        if (!bDeleted)
                                        {
                                            DWORD const code = GetLastError();
                                            LogError(_T("DeleteUnicodeFile:: Failed to delete file"));
                                            SetLastError(code);
                                        }
                                        return bDeleted;
                                    });
    return result > 0;
}

int CUtilities::FindUnicodeFile(LPCTSTR pattern, CStringList & out)
{
    return ForEachMatch(pattern,
                        [&](CString const & path, WIN32_FIND_DATAW const &)
                        {
                            out.AddTail(path);
                            return true;
                        }) != 0;
}

int CUtilities::ClearDirectory(LPCTSTR directory, int removeIt)
{
    if (!IsGivenDirectory(directory))
    {
        return 0;
    }
    CString::View folder(directory);
    while (folder.size() > 1 && (folder.back() == '\\' || folder.back() == '/') && folder[folder.size() - 2] != ':')
    {
        folder.remove_suffix(1); // but of a drive's root, without which another folder is meant
    }
    CString fixed(folder);
    CheckFixLongFilePathPrefix(fixed);
    kvx::EmptyFolderTree(directory, !removeIt); // a link that is to go itself is no way to what it leads to
    return Conclude(removeIt && !RemoveDirectoryW(fixed) ? GetLastError() : 0);
}

int CUtilities::GetFilesInDirectory(LPCTSTR directory, CStringList & out, int recursive)
{
    return ListTree(directory, out, recursive, false);
}

int CUtilities::GetSubDirectories(LPCTSTR directory, CStringList & out, int recursive)
{
    return ListTree(directory, out, recursive, true);
}

int CUtilities::GetDirectoryFileCount(LPCTSTR directory, LPCTSTR pattern, int recursive)
{
    int count = 0;
    if (IsGivenDirectory(directory))
    {
        SetLastError(kvx::VisitFolderTree(directory, pattern && *pattern ? pattern : _T("*"), recursive != 0,
                                          [&](kvx::FolderTreeEntry const & entry) { count += !entry.bFolder; }));
    }
    return count;
}
