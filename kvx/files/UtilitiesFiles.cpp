#include "kvx/foundation/Utilities.h"

#include "kvx/foundation/AppException.h"
#include "kvx/logging/LogManager.h"

#include <utility>

namespace
{
constinit CUtilities::FileExistsProc g_pFileExists = nullptr;
constinit CUtilities::DeleteFileProc g_pDeleteFile = nullptr;

CString ToSystemPath(LPCTSTR path)
{
    CString fixed(path);
    CUtilities::CheckFixLongFilePathPrefix(fixed);
    return fixed;
}

bool MakeFolder(CString const & path)
{
    if (::CreateDirectoryW(ToSystemPath(path), nullptr))
    {
        return true;
    }
    DWORD const code = GetLastError();
    if (code != ERROR_ALREADY_EXISTS)
    {
        LogError(_T("CUtilities::CreateDirectory - ::CreateDirectory(%s, NULL) failed [%u|%s]"), path, code,
                 CWinError::GetText(code));
        SetLastError(code);
    }
    return false;
}
} // namespace

CUtilities::FileExistsProc CUtilities::SetFileExistsProc(FileExistsProc proc)
{
    return std::exchange(g_pFileExists, proc);
}

CUtilities::DeleteFileProc CUtilities::SetDeleteFileProc(DeleteFileProc proc)
{
    return std::exchange(g_pDeleteFile, proc);
}

int CUtilities::FileExists(LPCTSTR path)
{
    int result = 0;
    if (g_pFileExists && g_pFileExists(path, result) == 0)
    {
        return result;
    }
    WIN32_FIND_DATAW data;
    HANDLE const search = FindFirstFileW(ToSystemPath(path), &data);
    if (search == INVALID_HANDLE_VALUE)
    {
        return 0;
    }
    FindClose(search);
    return 1;
}

int CUtilities::DirectoryExists(LPCTSTR path)
{
    DWORD const attributes = GetFileAttributesW(ToSystemPath(path));
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

int CUtilities::CreateDirectoryW(LPCTSTR path)
{
    CString whole(path);
    if (whole.IsEmpty())
    {
        return 1;
    }
    whole.TrimRight(_T("\\/"));
    if (FileExists(whole))
    {
        return 1;
    }
    CString::View const view = whole;
    // What stands before the first name can't be made.
    std::size_t at = view.starts_with(_T("\\\\?\\")) ? 4 : 0;
    at = view.find_first_not_of(_T("\\/"), at);
    while (at != view.npos && (at = view.find_first_of(_T("\\/"), at)) != view.npos)
    {
        if (view[at - 1] != ':')
        {
            MakeFolder(CString(view.substr(0, at)));
        }
        at = view.find_first_not_of(_T("\\/"), at);
    }
    return MakeFolder(whole);
}

int CUtilities::EnsureWritableFile(LPCTSTR path)
{
    CString const fixed = ToSystemPath(path);
    DWORD const attributes = GetFileAttributesW(fixed);
    if (attributes == INVALID_FILE_ATTRIBUTES)
    {
        return 0;
    }
    if (!(attributes & FILE_ATTRIBUTE_READONLY))
    {
        return 1;
    }
    WIN32_FIND_DATAW data;
    HANDLE const link = attributes & FILE_ATTRIBUTE_REPARSE_POINT ? FindFirstFileW(fixed, &data) : INVALID_HANDLE_VALUE;
    if (link != INVALID_HANDLE_VALUE)
    {
        FindClose(link);
        if (!(data.dwFileAttributes & FILE_ATTRIBUTE_READONLY))
        {
            return 1; // what is read-only is another file
        }
    }
    return SetFileAttributesW(fixed, attributes & ~FILE_ATTRIBUTE_READONLY);
}

int CUtilities::DeleteFileW(LPCTSTR path, int force)
{
    int result = 0;
    if (g_pDeleteFile && g_pDeleteFile(path, force, result) == 0)
    {
        return result;
    }
    if (force && !EnsureWritableFile(path))
    {
        return 0;
    }
    return ::DeleteFileW(ToSystemPath(path));
}

int CUtilities::TestFileOpen(LPCTSTR path)
{
    HANDLE const file =
        CreateFileW(ToSystemPath(path), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
    {
        return 0;
    }
    CloseHandle(file);
    return 1;
}
