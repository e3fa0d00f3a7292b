#pragma once

/// The drives: C: and Z:, both fixed. Any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

inline constexpr UINT DRIVE_NO_ROOT_DIR = 1;
inline constexpr UINT DRIVE_FIXED = 3;

/// The roots, each with a zero, and a zero behind the last. The length without the last zero, or the size needed with
/// it.
KVX_API DWORD GetLogicalDriveStringsW(DWORD nChars, LPWSTR pszBuffer);

/// DRIVE_FIXED, or DRIVE_NO_ROOT_DIR for any other root than the two. Null is the current drive.
KVX_API UINT GetDriveTypeW(LPCWSTR pszRoot);

/// The device of "C:" or "Z:", with two zeros behind it, whose number is in the result. 0 with ERROR_FILE_NOT_FOUND,
/// ERROR_INSUFFICIENT_BUFFER, or ERROR_NOT_SUPPORTED for null, which would list all devices.
KVX_API DWORD QueryDosDeviceW(LPCWSTR pszDevice, LPWSTR pszBuffer, DWORD nChars);
