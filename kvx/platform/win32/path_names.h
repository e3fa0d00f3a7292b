#pragma once

/// Other spellings of paths: long and short names, names shortened for display, and programs found along the search
/// path. Any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

/// No file here has a second, short name: both give an existing path as it stands. The length without the zero, or the
/// size needed with it; 0 with last error for a path that isn't there.
KVX_API DWORD GetLongPathNameW(LPCWSTR pszPath, LPWSTR pszBuffer, DWORD nChars);
KVX_API DWORD GetShortPathNameW(LPCWSTR pszPath, LPWSTR pszBuffer, DWORD nChars);

/// Looks for a file (no folder) in the folders of `pszFolders`, separated by semicolons; null is the program's folder,
/// the current one, C:\Windows\System32, C:\Windows\System, C:\Windows, and those of PATH. A name with a drive or a
/// leading separator or dot is looked for where it says. The extension is added to a name that has none; with
/// ".exe" a file without it is found too, behind the other in each folder, if it may be executed. The length without
/// the zero, or the size needed with it; 0 with ERROR_FILE_NOT_FOUND, or ERROR_INVALID_PARAMETER for no name.
KVX_API DWORD SearchPathW(LPCWSTR pszFolders, LPCWSTR pszName, LPCWSTR pszExtension, DWORD nChars, LPWSTR pszBuffer,
                          LPWSTR * ppszFilePart);

/// Shortens a path to `nMax` characters with the zero: its middle becomes "...", and if that isn't enough its name is
/// cut. FALSE for null or a room of 0.
KVX_API BOOL PathCompactPathExW(LPWSTR pszOut, LPCWSTR pszPath, UINT nMax, DWORD dwFlags);

/// There are no device contexts here: a character counts 7 pixels. The path is changed in place, in a buffer of
/// MAX_PATH.
KVX_API BOOL PathCompactPathW(HDC hContext, LPWSTR pszPath, UINT nPixels);
