#pragma once

/// Conversions between UTF-16 and the code pages. The pages 65001 (UTF-8), 1252, 28591 (Latin-1) and 20127
/// (ASCII) are converted here; any other number goes to iconv as "CP<number>". All calls may come from
/// any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

#include <string>
#include <string_view>

inline constexpr UINT CP_ACP = 0;
inline constexpr UINT CP_THREAD_ACP = 3;
inline constexpr UINT CP_UTF8 = 65001;

inline constexpr DWORD MB_PRECOMPOSED = 0x00000001;
inline constexpr DWORD MB_ERR_INVALID_CHARS = 0x00000008;
inline constexpr DWORD WC_ERR_INVALID_CHARS = 0x00000080;
inline constexpr DWORD WC_NO_BEST_FIT_CHARS = 0x00000400;

/// Code page bytes to UTF-16. `nSource` counts bytes; -1 takes a NUL-terminated text, whose terminator is
/// converted and counted too. `nTarget` counts units; 0 asks for the size needed and writes nothing.
/// Bytes that mean nothing in the page become U+FFFD, or with MB_ERR_INVALID_CHARS end the call.
/// Returns the units written or needed, 0 on error: ERROR_INVALID_PARAMETER (null or empty source, unknown
/// page), ERROR_INSUFFICIENT_BUFFER (what fits has been written), ERROR_NO_UNICODE_TRANSLATION,
/// ERROR_INVALID_FLAGS.
KVX_API int MultiByteToWideChar(UINT nCodePage, DWORD dwFlags, LPCSTR pszSource, int nSource, LPWSTR pszTarget,
                                int nTarget);

/// UTF-16 to code page bytes, with the counts and errors of MultiByteToWideChar. A unit the page lacks
/// becomes `pszDefault` (one byte is taken; null stands for "?") and sets `*pbUsedDefault`; there is no
/// "best fit". For UTF-8 both pointers must be null, and a lone surrogate becomes U+FFFD or,
/// with WC_ERR_INVALID_CHARS, ends the call.
KVX_API int WideCharToMultiByte(UINT nCodePage, DWORD dwFlags, LPCWSTR pszSource, int nSource, LPSTR pszTarget,
                                int nTarget, LPCSTR pszDefault, LPBOOL pbUsedDefault);

/// The number of the ANSI code page: what SetAnsiCodePage has set, else the environment variable
/// KVX_ANSI_CODE_PAGE (read once), else 1252.
KVX_API UINT GetACP();

namespace kvx::win32
{

/// Sets what CP_ACP means from now on in this process. Returns FALSE with ERROR_INVALID_PARAMETER for a page
/// that isn't known here; 0 goes back to the start value.
KVX_API BOOL SetAnsiCodePage(UINT nCodePage);

/// Plain conversions for texts on their way to and from the host. Whatever is malformed becomes U+FFFD.
KVX_API std::string ToUtf8(std::u16string_view source);
KVX_API std::u16string FromUtf8(std::string_view source);

} // namespace kvx::win32
