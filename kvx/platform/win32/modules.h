#pragma once

/// Modules of the process. All calls may come from any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

/// The module handle of the executable for a null name; other names give null with ERROR_MOD_NOT_FOUND. The handle
/// is not to be closed.
KVX_API HMODULE GetModuleHandleW(LPCWSTR pszName);

/// Writes the Windows-shaped path of the executable (null or GetModuleHandleW's value; others give
/// ERROR_MOD_NOT_FOUND) and returns its length. A buffer too small gets the head of the path, with a closing zero:
/// the result is `nChars` then, and the last error ERROR_INSUFFICIENT_BUFFER. 0 on error.
KVX_API DWORD GetModuleFileNameW(HMODULE hModule, LPWSTR pszBuffer, DWORD nChars);
