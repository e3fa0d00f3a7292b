#pragma once

/// Files, folders and searches. Paths take every form of kvx/platform/win32/paths.h; what comes back is
/// Windows-shaped. Security attributes are accepted and not looked at: a new file or folder gets the
/// rights that the umask leaves. All calls may come from any thread, also several on one handle. A call at work
/// keeps the file open when another thread closes the handle.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

inline constexpr DWORD GENERIC_EXECUTE = 0x20000000;
inline constexpr DWORD GENERIC_ALL = 0x10000000;
inline constexpr DWORD FILE_READ_DATA = 0x0001;
inline constexpr DWORD FILE_WRITE_DATA = 0x0002;
inline constexpr DWORD FILE_APPEND_DATA = 0x0004;
inline constexpr DWORD FILE_READ_ATTRIBUTES = 0x0080;
inline constexpr DWORD FILE_WRITE_ATTRIBUTES = 0x0100;

inline constexpr DWORD FILE_SHARE_READ = 0x00000001;
inline constexpr DWORD FILE_SHARE_WRITE = 0x00000002;
inline constexpr DWORD FILE_SHARE_DELETE = 0x00000004;

inline constexpr DWORD CREATE_NEW = 1;
inline constexpr DWORD CREATE_ALWAYS = 2;
inline constexpr DWORD OPEN_EXISTING = 3;
inline constexpr DWORD OPEN_ALWAYS = 4;
inline constexpr DWORD TRUNCATE_EXISTING = 5;

inline constexpr DWORD FILE_ATTRIBUTE_READONLY = 0x00000001;
inline constexpr DWORD FILE_ATTRIBUTE_HIDDEN = 0x00000002;
inline constexpr DWORD FILE_ATTRIBUTE_SYSTEM = 0x00000004;
inline constexpr DWORD FILE_ATTRIBUTE_DIRECTORY = 0x00000010;
inline constexpr DWORD FILE_ATTRIBUTE_ARCHIVE = 0x00000020;
inline constexpr DWORD FILE_ATTRIBUTE_DEVICE = 0x00000040;
inline constexpr DWORD FILE_ATTRIBUTE_NORMAL = 0x00000080;
inline constexpr DWORD FILE_ATTRIBUTE_TEMPORARY = 0x00000100;
inline constexpr DWORD FILE_ATTRIBUTE_REPARSE_POINT = 0x00000400;
inline constexpr DWORD INVALID_FILE_ATTRIBUTES = 0xFFFFFFFF;

inline constexpr DWORD FILE_FLAG_OPEN_REPARSE_POINT = 0x00200000;
inline constexpr DWORD FILE_FLAG_BACKUP_SEMANTICS = 0x02000000;
inline constexpr DWORD FILE_FLAG_DELETE_ON_CLOSE = 0x04000000;
inline constexpr DWORD FILE_FLAG_SEQUENTIAL_SCAN = 0x08000000;
inline constexpr DWORD FILE_FLAG_RANDOM_ACCESS = 0x10000000;
inline constexpr DWORD FILE_FLAG_NO_BUFFERING = 0x20000000;
inline constexpr DWORD FILE_FLAG_OVERLAPPED = 0x40000000;
inline constexpr DWORD FILE_FLAG_WRITE_THROUGH = 0x80000000;

inline constexpr DWORD IO_REPARSE_TAG_SYMLINK = 0xA000000C;

inline constexpr DWORD FILE_BEGIN = 0;
inline constexpr DWORD FILE_CURRENT = 1;
inline constexpr DWORD FILE_END = 2;
inline constexpr DWORD INVALID_SET_FILE_POINTER = 0xFFFFFFFF;
inline constexpr DWORD INVALID_FILE_SIZE = 0xFFFFFFFF;

inline constexpr DWORD FILE_TYPE_UNKNOWN = 0;
inline constexpr DWORD FILE_TYPE_DISK = 1;
inline constexpr DWORD FILE_TYPE_CHAR = 2;
inline constexpr DWORD FILE_TYPE_PIPE = 3;

struct WIN32_FIND_DATAW
{
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD dwReserved0; ///< IO_REPARSE_TAG_SYMLINK for a symbolic link
    DWORD dwReserved1;
    WCHAR cFileName[MAX_PATH];
    WCHAR cAlternateFileName[14];
};
using WIN32_FIND_DATA = WIN32_FIND_DATAW;
using LPWIN32_FIND_DATAW = WIN32_FIND_DATAW *;
using LPWIN32_FIND_DATA = WIN32_FIND_DATAW *;

struct WIN32_FILE_ATTRIBUTE_DATA
{
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
};

struct BY_HANDLE_FILE_INFORMATION
{
    DWORD dwFileAttributes;
    FILETIME ftCreationTime;
    FILETIME ftLastAccessTime;
    FILETIME ftLastWriteTime;
    DWORD dwVolumeSerialNumber;
    DWORD nFileSizeHigh;
    DWORD nFileSizeLow;
    DWORD nNumberOfLinks;
    DWORD nFileIndexHigh;
    DWORD nFileIndexLow;
};

enum _FINDEX_SEARCH_OPS
{
    FindExSearchNameMatch,
    FindExSearchLimitToDirectories,
    FindExSearchLimitToDevices,
    FindExSearchMaxSearchOp
};
using FINDEX_SEARCH_OPS = _FINDEX_SEARCH_OPS;

enum GET_FILEEX_INFO_LEVELS
{
    GetFileExInfoStandard,
    GetFileExMaxInfoLevel
};

/// Opens or creates a file. Share modes hold among the openings of this process: ERROR_SHARING_VIOLATION. A file
/// without any write permission counts as read-only: ERROR_ACCESS_DENIED for write access, as for a folder
/// without FILE_FLAG_BACKUP_SEMANTICS. CREATE_ALWAYS and OPEN_ALWAYS leave last error ERROR_ALREADY_EXISTS when
/// the file was there, else 0. The path of a named pipe opens a client's end: see pipes.h. Of the attributes only
/// read-only has an effect; of the flags write-through, delete-on-close, backup semantics and (with access 0)
/// open-reparse-point. FILE_FLAG_OVERLAPPED files complete at once. The handle is closed with CloseHandle and not
/// inherited by child processes.
KVX_API HANDLE CreateFileW(LPCWSTR pszPath, DWORD dwAccess, DWORD dwShare, LPSECURITY_ATTRIBUTES pSecurity,
                           DWORD dwDisposition, DWORD dwFlags, HANDLE hTemplate);

/// Reads until the count is met or the file ends; from a terminal, pipe or device what one read gives. The
/// end of the file is success with 0 bytes. With `pOverlapped` (whose hEvent must be null, else
/// ERROR_NOT_SUPPORTED) it reads at that offset, and the end of the file is ERROR_HANDLE_EOF.
KVX_API BOOL ReadFile(HANDLE hFile, LPVOID pBuffer, DWORD nBytes, LPDWORD pnRead, LPOVERLAPPED pOverlapped);

/// Writes all bytes, at the offset of `pOverlapped` if there is one. A pipe without a reader gives
/// an error and no signal.
KVX_API BOOL WriteFile(HANDLE hFile, LPCVOID pBuffer, DWORD nBytes, LPDWORD pnWritten, LPOVERLAPPED pOverlapped);

KVX_API BOOL FlushFileBuffers(HANDLE hFile);
KVX_API BOOL SetFilePointerEx(HANDLE hFile, LARGE_INTEGER nDistance, LARGE_INTEGER * pnNewPointer, DWORD dwMethod);
KVX_API DWORD SetFilePointer(HANDLE hFile, LONG nDistance, LONG * pnDistanceHigh, DWORD dwMethod);
KVX_API BOOL SetEndOfFile(HANDLE hFile);
KVX_API BOOL GetFileSizeEx(HANDLE hFile, LARGE_INTEGER * pnSize);
KVX_API DWORD GetFileSize(HANDLE hFile, LPDWORD pnSizeHigh);
/// FILE_TYPE_CHAR for a terminal or character device, FILE_TYPE_PIPE for pipes and sockets.
KVX_API DWORD GetFileType(HANDLE hFile);
/// Creation is the host's birth time where it keeps one, else the earlier of the change and write times.
KVX_API BOOL GetFileTime(HANDLE hFile, FILETIME * pCreation, FILETIME * pLastAccess, FILETIME * pLastWrite);
/// Sets the times that aren't null, but for the creation, which no host lets be set: it is passed over. The handle
/// wants write access, or FILE_WRITE_ATTRIBUTES.
KVX_API BOOL SetFileTime(HANDLE hFile, FILETIME const * pCreation, FILETIME const * pLastAccess,
                         FILETIME const * pLastWrite);
KVX_API BOOL GetFileInformationByHandle(HANDLE hFile, BY_HANDLE_FILE_INFORMATION * pInfo);

/// Attributes of what the path leads to; FILE_ATTRIBUTE_REPARSE_POINT is added when it is a symbolic
/// link, and stands alone for one that leads nowhere. INVALID_FILE_ATTRIBUTES on failure.
KVX_API DWORD GetFileAttributesW(LPCWSTR pszPath);
KVX_API BOOL GetFileAttributesExW(LPCWSTR pszPath, GET_FILEEX_INFO_LEVELS level, LPVOID pData);
/// Sets or clears the read-only attribute (all write permissions, or the owner's); the others are passed over.
KVX_API BOOL SetFileAttributesW(LPCWSTR pszPath, DWORD dwAttributes);

/// ERROR_ACCESS_DENIED for a folder or a read-only file, ERROR_SHARING_VIOLATION for one that is open here
/// without FILE_SHARE_DELETE. A symbolic link is deleted itself.
KVX_API BOOL DeleteFileW(LPCWSTR pszPath);
/// Never replaces: ERROR_ALREADY_EXISTS. A file may move to another file system, a folder not
/// (ERROR_NOT_SAME_DEVICE).
KVX_API BOOL MoveFileW(LPCWSTR pszFrom, LPCWSTR pszTo);
/// Copies a plain file with its write time, and its permissions if the copy is new. A new copy that fails is removed.
KVX_API BOOL CopyFileW(LPCWSTR pszFrom, LPCWSTR pszTo, BOOL bFailIfExists);
KVX_API BOOL CreateDirectoryW(LPCWSTR pszPath, LPSECURITY_ATTRIBUTES pSecurity);
/// A symbolic link to a folder is removed itself.
KVX_API BOOL RemoveDirectoryW(LPCWSTR pszPath);

/// Starts a search. "*" and "?" in the last component match without regard to case: "?" also the end of a name or
/// its extension, "*.*" everything, "*." names without an extension. Without them it looks for that one name.
/// "." and ".." come first, but not in a drive's root; the rest is in the host's order. Symbolic links are told,
/// not followed (FILE_ATTRIBUTE_REPARSE_POINT without DIRECTORY); fifos, sockets and device nodes have
/// FILE_ATTRIBUTE_DEVICE. INVALID_HANDLE_VALUE with ERROR_FILE_NOT_FOUND (no match), ERROR_PATH_NOT_FOUND,
/// ERROR_ACCESS_DENIED or ERROR_DIRECTORY (searching in what isn't a folder).
KVX_API HANDLE FindFirstFileW(LPCWSTR pszPattern, LPWIN32_FIND_DATAW pData);
/// FALSE with ERROR_NO_MORE_FILES at the end.
KVX_API BOOL FindNextFileW(HANDLE hFind, LPWIN32_FIND_DATAW pData);
KVX_API BOOL FindClose(HANDLE hFind);

/// These return the length without the zero, or the size needed with it when the buffer is too small; 0 on error.
KVX_API DWORD GetFullPathNameW(LPCWSTR pszPath, DWORD nChars, LPWSTR pszBuffer, LPWSTR * ppszFilePart);
KVX_API DWORD GetCurrentDirectoryW(DWORD nChars, LPWSTR pszBuffer);
/// TMPDIR, else /tmp, with a closing backslash.
KVX_API DWORD GetTempPathW(DWORD nChars, LPWSTR pszBuffer);

KVX_API BOOL SetCurrentDirectoryW(LPCWSTR pszPath);
/// Makes "<path>\<up to 3 characters of prefix><hex number>.TMP" in a buffer of MAX_PATH characters. With number 0
/// it picks one and creates the file. Returns the number, 0 on failure.
KVX_API UINT GetTempFileNameW(LPCWSTR pszPath, LPCWSTR pszPrefix, UINT nUnique, LPWSTR pszBuffer);
