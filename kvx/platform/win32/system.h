#pragma once

/// The machine.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

inline constexpr DWORD MAX_COMPUTERNAME_LENGTH = 15;
inline constexpr WORD PROCESSOR_ARCHITECTURE_INTEL = 0;
inline constexpr WORD PROCESSOR_ARCHITECTURE_AMD64 = 9;

struct SYSTEM_INFO
{
    WORD wProcessorArchitecture;
    WORD wReserved;
    DWORD dwPageSize;
    DWORD_PTR dwActiveProcessorMask; ///< of the first 64 processors
    DWORD dwNumberOfProcessors;      ///< that are online
    DWORD dwAllocationGranularity;
};

KVX_API void GetSystemInfo(SYSTEM_INFO * pInfo) noexcept;

/// The host's name up to its first dot, with a closing zero. *pSize is the room in characters, and afterwards the
/// length without the zero. FALSE with last error ERROR_BUFFER_OVERFLOW when the room is too small: *pSize is then the
/// room needed. A host name may be longer than MAX_COMPUTERNAME_LENGTH.
KVX_API BOOL GetComputerNameW(LPWSTR pBuffer, DWORD * pSize) noexcept;
