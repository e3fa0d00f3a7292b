#pragma once

/// Base types, constants and structures of the Win32 subset, as they are on a 64-bit host:
/// DWORD and LONG are 32 bits wide, WCHAR is a UTF-16 unit, a HANDLE is a number and no address.

#include <cstddef>
#include <cstdint>

using BOOL = int;
using BYTE = unsigned char;
using CHAR = char;
using WORD = std::uint16_t;
using LPWORD = WORD *;
using SHORT = std::int16_t;
using USHORT = std::uint16_t;
using INT = int;
using UINT = unsigned int;
using LONG = std::int32_t;
using ULONG = std::uint32_t;
using DWORD = std::uint32_t;
using HRESULT = LONG;
using LONGLONG = long long;
using ULONGLONG = unsigned long long;
using LONG64 = long long;
using DWORD64 = unsigned long long;
using INT_PTR = std::intptr_t;
using UINT_PTR = std::uintptr_t;
using LONG_PTR = std::intptr_t;
using ULONG_PTR = std::uintptr_t;
using DWORD_PTR = std::uintptr_t;
using SIZE_T = std::size_t;
using LPARAM = LONG_PTR;
using WPARAM = UINT_PTR;
using LRESULT = LONG_PTR;
using WCHAR = char16_t;
using TCHAR = WCHAR;
using LPSTR = char *;
using LPCSTR = char const *;
using LPWSTR = WCHAR *;
using LPCWSTR = WCHAR const *;
using LPTSTR = WCHAR *;
using LPCTSTR = WCHAR const *;
using PVOID = void *;
using LPVOID = void *;
using LPCVOID = void const *;
using LPBOOL = BOOL *;
using LPDWORD = DWORD *;
using HANDLE = void *;
using HLOCAL = void *;
using HINSTANCE = struct HINSTANCE__ *;
using HMODULE = HINSTANCE;
using HWND = struct HWND__ *;
using HDC = struct HDC__ *;
using FARPROC = INT_PTR (*)();

#define WINAPI
#define CALLBACK
#ifndef __stdcall
#define __stdcall
#endif

#define KVX_WIDE_(text) u##text
#define _T(text) KVX_WIDE_(text)

#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif

#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<INT_PTR>(-1)))

inline constexpr DWORD INFINITE = 0xFFFFFFFF;
inline constexpr int MAX_PATH = 260;

inline constexpr HRESULT S_OK = 0;
inline constexpr HRESULT E_FAIL = static_cast<HRESULT>(0x80004005);
inline constexpr HRESULT E_INVALIDARG = static_cast<HRESULT>(0x80070057);

inline constexpr DWORD DELETE = 0x00010000;
inline constexpr DWORD SYNCHRONIZE = 0x00100000;
inline constexpr DWORD GENERIC_READ = 0x80000000;
inline constexpr DWORD GENERIC_WRITE = 0x40000000;

union ULARGE_INTEGER
{
    struct
    {
        DWORD LowPart;
        DWORD HighPart;
    } u;
    ULONGLONG QuadPart;
};

struct FILETIME
{
    DWORD dwLowDateTime;
    DWORD dwHighDateTime;
};

struct SYSTEMTIME
{
    WORD wYear;
    WORD wMonth;
    WORD wDayOfWeek;
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
};
using LPSYSTEMTIME = SYSTEMTIME *;

union LARGE_INTEGER
{
    struct
    {
        DWORD LowPart;
        LONG HighPart;
    };
    LONGLONG QuadPart;
};

struct SECURITY_ATTRIBUTES
{
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
};
using LPSECURITY_ATTRIBUTES = SECURITY_ATTRIBUTES *;

struct OVERLAPPED
{
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    DWORD Offset;
    DWORD OffsetHigh;
    HANDLE hEvent;
};
using LPOVERLAPPED = OVERLAPPED *;

static_assert(sizeof(DWORD) == 4 && sizeof(LONG) == 4 && sizeof(WCHAR) == 2 && sizeof(HANDLE) == sizeof(void *));
