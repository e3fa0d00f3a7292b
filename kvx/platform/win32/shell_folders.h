#pragma once

/// The folders that the system keeps for users and for itself. One table in the source maps each identifier to the
/// place where a user of the host expects such things: the XDG folders, the home, and for what is Windows' own the tree
/// of drive C:. docs/porting.md shows it. What lies on drive C: is made when it is asked for; the rest need not exist.
/// Any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

#include <string>

// The identifiers that are named in sources.
inline constexpr int CSIDL_APPDATA = 26;
inline constexpr int CSIDL_LOCAL_APPDATA = 28;
inline constexpr int CSIDL_COMMON_APPDATA = 35;
inline constexpr int CSIDL_WINDOWS = 36;
inline constexpr int CSIDL_SYSTEM = 37;
inline constexpr int CSIDL_PROGRAM_FILES = 38;
inline constexpr int CSIDL_PROFILE = 40;
inline constexpr int CSIDL_SYSTEMX86 = 41;
inline constexpr int CSIDL_PROGRAM_FILESX86 = 42;
inline constexpr int CSIDL_PROGRAM_FILES_COMMON = 43;
inline constexpr int CSIDL_PROGRAM_FILES_COMMONX86 = 44;

namespace kvx::win32
{

/// Without a backslash at its end; empty for an identifier without a folder.
KVX_API std::u16string GetShellFolder(int nFolder);

} // namespace kvx::win32

/// The path of a folder, in a buffer of MAX_PATH characters, without a backslash at its end. Window, token and flags
/// aren't looked at. E_FAIL for an identifier that stands for no folder of the file system, E_INVALIDARG for one that
/// doesn't exist or a null buffer, 0x800700CE for a path that is too long: the text is empty then.
KVX_API HRESULT SHGetFolderPathW(HWND hOwner, int nFolder, HANDLE hToken, DWORD dwFlags, LPWSTR pszPath);

/// C:\Windows, and C:\Windows\System32. The length without the zero, or the size needed with it.
KVX_API UINT GetWindowsDirectoryW(LPWSTR pszBuffer, UINT nChars);
KVX_API UINT GetSystemDirectoryW(LPWSTR pszBuffer, UINT nChars);
