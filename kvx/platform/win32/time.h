#pragma once

/// Clocks and calendars. A file time counts 100 ns since the start of the year 1601, in UTC.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

#include <ctime>

namespace kvx::win32
{
/// The host's form of a file time, which may lie before 1970.
KVX_API timespec ToHostTime(FILETIME const & time) noexcept;
} // namespace kvx::win32

KVX_API void GetSystemTime(SYSTEMTIME * pTime) noexcept;
/// The local time of the process's time zone (TZ). A change of the zone while the process runs is noticed within a
/// quarter of an hour; one that the zone itself makes, at once.
KVX_API void GetLocalTime(SYSTEMTIME * pTime) noexcept;
KVX_API void GetSystemTimeAsFileTime(FILETIME * pTime) noexcept;

/// FALSE with last error ERROR_INVALID_PARAMETER if a field is out of range (years are 1601 to 30827); the day of week
/// is ignored.
KVX_API BOOL SystemTimeToFileTime(SYSTEMTIME const * pTime, FILETIME * pFileTime) noexcept;
/// FALSE with last error ERROR_INVALID_PARAMETER if the highest bit is set.
KVX_API BOOL FileTimeToSystemTime(FILETIME const * pFileTime, SYSTEMTIME * pTime) noexcept;

/// Both use the difference between local time and UTC that holds now, not that of the given time.
KVX_API BOOL FileTimeToLocalFileTime(FILETIME const * pFileTime, FILETIME * pLocalTime) noexcept;
KVX_API BOOL LocalFileTimeToFileTime(FILETIME const * pLocalTime, FILETIME * pFileTime) noexcept;

/// A date and time of MS-DOS, in steps of two seconds (what is odd is rounded up to): days from bit 0, months from bit
/// 5, years since 1980 from bit 9; pairs of seconds from bit 0, minutes from bit 5, hours from bit 11. FALSE with last
/// error ERROR_INVALID_PARAMETER outside the years 1980 to 2107, or for what is no date.
KVX_API BOOL FileTimeToDosDateTime(FILETIME const * pFileTime, LPWORD pDate, LPWORD pTime) noexcept;
KVX_API BOOL DosDateTimeToFileTime(WORD nDate, WORD nTime, FILETIME * pFileTime) noexcept;

/// Milliseconds since the system started, the time it slept included; the short form wraps after 49.7 days.
KVX_API ULONGLONG GetTickCount64() noexcept;
KVX_API DWORD GetTickCount() noexcept;

/// A steady clock of QueryPerformanceFrequency counts a second; always TRUE.
KVX_API BOOL QueryPerformanceCounter(LARGE_INTEGER * pCount) noexcept;
KVX_API BOOL QueryPerformanceFrequency(LARGE_INTEGER * pFrequency) noexcept;
