#pragma once

/// Paths between the two worlds. Accepted are
///   /usr/include          a POSIX path, taken as it stands (backslashes separate here too)
///   Z:\usr\include        the host's root
///   C:\Windows            the folder that stands for drive C (GetDriveCRoot)
///   \Windows              the root of the current directory's drive
///   name, ..\name         relative to the current directory; also behind Z: or C: when that is its drive
///   \\?\ before any       is passed over
/// In all but the first form "." and ".." are worked out on the text, and ".." stops at the drive's root. A
/// component that doesn't exist is looked up without regard to case.
/// A file name may be any bytes: a byte that is no UTF-8 reads as the lone surrogate U+DC00 + byte, a
/// backslash inside a name as U+F05C, and both find the file again.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

#include <cerrno>
#include <string>
#include <string_view>

namespace kvx::win32
{

/// What a path may have here, with its zero.
inline constexpr std::size_t MAX_PATH_CHARS = 32768;

enum class LastComponent
{
    AnyCase,  ///< an existing file is found whatever its case
    Exact,    ///< taken as given, for a file that is to get this very name
    AsWritten ///< as is the whole path, for CallOnPath or FindInAnyCase
};

/// The host's path. Empty with last error on failure: ERROR_PATH_NOT_FOUND (null, empty, or a drive other than
/// C and Z), ERROR_INVALID_NAME (a zero, half a surrogate pair, a device name), ERROR_BAD_NETPATH (a server),
/// ERROR_FILENAME_EXCED_RANGE (32767 characters, or 4095 bytes on the host). Any thread.
KVX_API std::string ToHost(std::u16string_view path, LastComponent last = LastComponent::AnyCase);
KVX_API std::string ToHost(LPCWSTR pszPath, LastComponent last = LastComponent::AnyCase);

/// The Windows shape of an absolute host path, with C: for what is below GetDriveCRoot and Z: for the
/// rest. A relative path only has its separators turned. The text is not normalised.
KVX_API std::u16string FromHost(std::string_view path);

/// The absolute form of a path, worked out on the text; drives that don't exist here are kept. Empty with last
/// error for what ToHost refuses on sight.
KVX_API std::u16string ToFullPath(std::u16string_view path);

/// Where the name begins: behind a path's last separator or drive.
std::size_t NamePosition(std::u16string_view path);

/// HOME if that is absolute, else what the system knows of the user.
KVX_API std::string GetHomeFolder();

/// What the calls do that give a text into a buffer: the length without the zero, or the size needed with it when the
/// buffer is null or too small, which then isn't touched. 0 for no text, with nothing written.
KVX_API DWORD CopyText(std::u16string_view text, DWORD nChars, LPWSTR pszBuffer);

/// The host's folder for what this user keeps, without a closing slash: kvx in XDG_DATA_HOME, else in ~/.local/share.
/// It is made if it isn't there; empty with last error if it can't be.
KVX_API std::string GetDataFolder();

/// The host's folder for drive C, without a closing slash: KVX_DRIVE_C (if absolute), else drive_c in
/// GetDataFolder. It is read and the folder made at the first call.
KVX_API std::string const & GetDriveCRoot();

/// Replaces the components of a host path that don't exist by those that differ in case only. True if that leads to
/// something that the path as it was written doesn't name. Else errno is ENOENT when at most the last component is
/// missing, ENOTDIR when the way there is; the way is still put into its case.
KVX_API bool FindInAnyCase(std::string & strHost, LastComponent last = LastComponent::AnyCase);

/// Whether nothing has this name in any case, if that is known without asking for the name; else the path may be put
/// into its case.
KVX_API bool IsKnownMissing(std::string & strHost);

/// Runs a system call on a path as it is written; if there is no such file, on one that differs in case only. Sets
/// errno as FindInAnyCase does when there is none of either kind.
template <typename Call>
auto CallOnPath(std::string & strHost, Call call)
{
    decltype(call(strHost.c_str())) nResult = -1;
    if (IsKnownMissing(strHost))
    {
        errno = ENOENT;
        return nResult;
    }
    nResult = call(strHost.c_str());
    if (nResult < 0 && errno == ENOENT && FindInAnyCase(strHost))
    {
        nResult = call(strHost.c_str());
    }
    return nResult;
}

/// Sets the last error for a call on a path that failed with `nErrno`, as CallOnPath has it: ENOENT is
/// ERROR_FILE_NOT_FOUND, ENOTDIR is ERROR_PATH_NOT_FOUND.
KVX_API void SetLastErrorForPath(int nErrno);

} // namespace kvx::win32
