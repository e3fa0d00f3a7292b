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
KVX_API void GetNativeSystemInfo(SYSTEM_INFO * pInfo) noexcept;

inline constexpr DWORD VER_PLATFORM_WIN32_NT = 2;

struct OSVERSIONINFOW
{
    DWORD dwOSVersionInfoSize; ///< bytes: to be set by the caller
    DWORD dwMajorVersion;
    DWORD dwMinorVersion;
    DWORD dwBuildNumber;
    DWORD dwPlatformId;
    WCHAR szCSDVersion[128];
};

/// The interface that this layer offers: the family of NT in the version 10.0, build 0, which no system in the field
/// has. The text is the host's own name and release, as in "Linux 6.1.0-13-amd64". FALSE with last error
/// ERROR_INSUFFICIENT_BUFFER for another size.
KVX_API BOOL GetVersionExW(OSVERSIONINFOW * pInfo) noexcept;

/// Whether the process (GetCurrentProcess(), or a handle of OpenProcess) is one of 32 bits on a system of 64. FALSE
/// with last error ERROR_INVALID_HANDLE, or the system's reason.
KVX_API BOOL IsWow64Process(HANDLE hProcess, BOOL * pbWow64);

inline constexpr DWORD PAGE_NOACCESS = 0x01;
inline constexpr DWORD PAGE_READONLY = 0x02;
inline constexpr DWORD PAGE_READWRITE = 0x04;
inline constexpr DWORD PAGE_EXECUTE = 0x10;
inline constexpr DWORD PAGE_EXECUTE_READ = 0x20;
inline constexpr DWORD PAGE_EXECUTE_READWRITE = 0x40;
inline constexpr DWORD MEM_COMMIT = 0x1000;
inline constexpr DWORD MEM_FREE = 0x10000;
inline constexpr DWORD MEM_PRIVATE = 0x20000;
inline constexpr DWORD MEM_MAPPED = 0x40000;

struct MEMORY_BASIC_INFORMATION
{
    PVOID BaseAddress;       ///< of the page
    PVOID AllocationBase;    ///< of the mapping, of a module where its handle points; null for a free region
    DWORD AllocationProtect; ///< as Protect: the first protection isn't known
    SIZE_T RegionSize;       ///< bytes of the same kind from BaseAddress on
    DWORD State;
    DWORD Protect; ///< PAGE_NOACCESS for a free region
    DWORD Type;    ///< MEM_MAPPED for what has a file, modules included
};

/// What lies at an address. The number of bytes written: 0 with last error ERROR_BAD_LENGTH for a buffer too small, or
/// ERROR_INVALID_PARAMETER for an address beyond the process's. Reads the system's list of mappings: not cheap.
KVX_API SIZE_T VirtualQuery(LPCVOID pAddress, MEMORY_BASIC_INFORMATION * pInfo, SIZE_T nSize);

/// The host's name up to its first dot, with a closing zero. *pSize is the room in characters, and afterwards the
/// length without the zero. FALSE with last error ERROR_BUFFER_OVERFLOW when the room is too small: *pSize is then the
/// room needed. A host name may be longer than MAX_COMPUTERNAME_LENGTH.
KVX_API BOOL GetComputerNameW(LPWSTR pBuffer, DWORD * pSize) noexcept;
