#pragma once

/// The variables of the environment. A name is looked for as it is written, then without regard to case. What Windows
/// itself would set, and a POSIX host doesn't, has a value here all the same: SystemDrive, SystemRoot, windir,
/// ProgramFiles, ProgramFiles(x86), ProgramW6432, the CommonProgram... of these, ProgramData, ALLUSERSPROFILE, PUBLIC,
/// USERPROFILE, APPDATA, LOCALAPPDATA, TEMP and TMP. PATH comes as Windows has it, with semicolons. Values that aren't
/// UTF-8 have U+FFFD in places. Any thread, as long as none changes the environment.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

#include <optional>
#include <string>
#include <string_view>

namespace kvx::win32
{

/// Nothing for a variable that isn't there.
KVX_API std::optional<std::u16string> GetVariable(std::u16string_view name);

/// The text with each %NAME% replaced; a name that isn't there stays, and its second sign may begin another.
KVX_API std::u16string ExpandVariables(std::u16string_view text);

} // namespace kvx::win32

/// The length without the zero, or the size needed with it; 0 with ERROR_ENVVAR_NOT_FOUND. An empty value gives 0 with
/// last error 0.
KVX_API DWORD GetEnvironmentVariableW(LPCWSTR pszName, LPWSTR pszBuffer, DWORD nChars);

/// The size with the zero, also when it doesn't fit and nothing but an empty text is written.
KVX_API DWORD ExpandEnvironmentStringsW(LPCWSTR pszText, LPWSTR pszBuffer, DWORD nChars);
