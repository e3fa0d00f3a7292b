#include "kvx/foundation/Utilities.h"

#include "kvx/files/FilePath.h"

#include "kvx/logging/LogManager.h"

namespace
{
constexpr LPCTSTR LONG_PREFIX = _T("\\\\?\\");
constexpr int LONG_PREFIX_LENGTH = 4;
constexpr int LONGEST_BUILT_PATH = 32766;

/// The text that a call of the system gives into a buffer of `room` characters; empty if it doesn't fit.
template <class CALL>
CString GetSystemText(DWORD room, CALL call)
{
    CString text;
    DWORD const length = call(text.GetBuffer(static_cast<int>(room)), room);
    text.ReleaseBuffer(length < room ? static_cast<int>(length) : 0);
    if (length >= room)
    {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
    }
    return text;
}

bool IsToStay(CString const & name, int force)
{
    return !force && CUtilities::IsAbsolutePath(name);
}

CString JoinPath(CString folder, CString const & name)
{
    if (folder.IsEmpty())
    {
        return folder;
    }
    CUtilities::AppendBackslash(folder);
    return folder + name;
}
} // namespace

int CUtilities::CheckFixLongFilePathPrefix(CString & path)
{
    if (path.GetLength() < MAX_PATH || path.Left(LONG_PREFIX_LENGTH) == LONG_PREFIX)
    {
        return 0;
    }
    path = LONG_PREFIX + path;
    return 1;
}

int CUtilities::StripLongFilePathPrefix(CString & path)
{
    if (path.GetLength() <= LONG_PREFIX_LENGTH || path.Left(LONG_PREFIX_LENGTH) != LONG_PREFIX)
    {
        return 0;
    }
    path = path.Mid(LONG_PREFIX_LENGTH);
    return 1;
}

int CUtilities::IsAbsolutePath(LPCTSTR path)
{
    return path && (CString::View(path).starts_with(LONG_PREFIX) || !CFilePath::ParseDrive(path).IsEmpty());
}

void CUtilities::AppendBackslash(CString & path)
{
    if (path.IsEmpty() || path[path.GetLength() - 1] != '\\')
    {
        path += _T('\\');
    }
}

void CUtilities::AppendBackslash(LPTSTR path)
{
    std::size_t const length = path ? CString::View(path).size() : 0;
    if (path && (length == 0 || path[length - 1] != '\\'))
    {
        path[length] = '\\';
        path[length + 1] = 0;
    }
}

CString CUtilities::GetCurrentDirectoryW()
{
    return GetSystemText(MAX_PATH, [](LPTSTR buffer, DWORD room) { return ::GetCurrentDirectoryW(room, buffer); });
}

CString CUtilities::GetWindowsDirectoryW()
{
    return GetSystemText(MAX_PATH, [](LPTSTR buffer, DWORD room) { return ::GetWindowsDirectoryW(buffer, room); });
}

CString CUtilities::GetTempDirectory()
{
    return GetSystemText(MAX_PATH, [](LPTSTR buffer, DWORD room) { return ::GetTempPathW(room, buffer); });
}

CString CUtilities::GetModuleFileNameW(HINSTANCE module)
{
    return GetSystemText(MAX_PATH,
                         [&](LPTSTR buffer, DWORD room) { return ::GetModuleFileNameW(module, buffer, room); });
}

CString CUtilities::GetLocalDirectory(HINSTANCE module)
{
    return CFilePath::ParseLocation(GetModuleFileNameW(module));
}

CString CUtilities::BuildAbsolutePath(CString const & base, CString const & relative)
{
    constexpr CString::View UP = _T("..\\");
    if (IsAbsolutePath(relative))
    {
        return relative;
    }
    CString::View folder = base;
    CString::View rest = relative;
    auto const trim = [&] { folder = folder.substr(0, folder.find_last_not_of('\\') + 1); };
    trim();
    for (; rest.starts_with(UP); rest.remove_prefix(UP.size()))
    {
        std::size_t const separator = folder.rfind('\\');
        if (separator == folder.npos)
        {
            return {};
        }
        folder = folder.substr(0, separator);
        trim();
    }
    if (folder.empty() || folder.size() + 1 + rest.size() > LONGEST_BUILT_PATH)
    {
        return {};
    }
    CString path(folder);
    path += _T('\\');
    path.Append(rest);
    return path;
}

CString CUtilities::BuildCurrentPath(CString const & name, int force)
{
    return IsToStay(name, force) ? CString() : JoinPath(GetCurrentDirectoryW(), name);
}

CString CUtilities::BuildTempPath(CString const & name, int force)
{
    return IsToStay(name, force) ? CString() : JoinPath(GetTempDirectory(), name);
}

CString CUtilities::BuildSystemPath(CString const & name, int force)
{
    constexpr DWORD ROOM = 1024;
    auto const system = [](LPTSTR buffer, DWORD room) { return ::GetSystemDirectoryW(buffer, room); };
    return IsToStay(name, force) ? CString() : JoinPath(GetSystemText(ROOM, system), name);
}

CString CUtilities::BuildWindowsPath(CString const & name, int force)
{
    return IsToStay(name, force) ? CString() : JoinPath(GetWindowsDirectoryW(), name);
}

CString CUtilities::BuildLocalPath(CString const & name, int force, HINSTANCE module)
{
    return IsToStay(name, force) ? CString() : JoinPath(GetLocalDirectory(module), name);
}

CString CUtilities::BuildLibraryPath(CString const & name, int force)
{
    return IsToStay(name, force)
               ? CString()
               : GetSystemText(MAX_PATH, [&](LPTSTR buffer, DWORD room)
                               { return ::SearchPathW(nullptr, name, nullptr, room, buffer, nullptr); });
}

CString CUtilities::BuildCommonAppDataPath(CString const & name, int, int createDirectory)
{
    constexpr int COMMON_APPDATA = 35;
    CString const folder = GetSpecialDirectory(COMMON_APPDATA, 0);
    CString const path = folder.IsEmpty() ? folder : BuildAbsolutePath(folder, name);
    if (path.IsEmpty())
    {
        LogError(_T("CUtilities::BuildCommonAppDataPath - BuildAbsolutePath(%s, %s) failed"), folder, name);
    }
    else if (createDirectory)
    {
        CreateDirectoryW(CFilePath::ParseLocation(path));
    }
    return path;
}

CString CUtilities::BuildUserPathFromSID(CString const & relative, LPCTSTR sid, LPCTSTR valueName)
{
    CString const folder = GetSpecialDirectory(valueName, sid, 1);
    return folder.IsEmpty() ? folder : folder + relative;
}

CString CUtilities::BuildTempFileName(CString const & prefix, UINT unique, CString const & directory)
{
    WCHAR buffer[MAX_PATH + 1] = {};
    CString const folder = directory.IsEmpty() ? GetTempDirectory() : directory;
    return GetTempFileNameW(folder, prefix, unique, buffer) ? CString(buffer) : CString();
}
