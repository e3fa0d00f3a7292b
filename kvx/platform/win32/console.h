#pragma once

/// The standard handles, console output and debug output. All calls may come from any thread.

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

inline constexpr DWORD STD_INPUT_HANDLE = static_cast<DWORD>(-10);
inline constexpr DWORD STD_OUTPUT_HANDLE = static_cast<DWORD>(-11);
inline constexpr DWORD STD_ERROR_HANDLE = static_cast<DWORD>(-12);

/// The handle of the process's descriptor 0, 1 or 2, the same at each call; ReadFile and WriteFile take it.
/// Closing it leaves the descriptor open, and the next call gives another handle. Null if the process has no
/// such descriptor; INVALID_HANDLE_VALUE with ERROR_INVALID_HANDLE for another number.
KVX_API HANDLE GetStdHandle(DWORD nStdHandle);

/// There is no console to be had here but the one that the process was started with: TRUE if the standard
/// output is open, else FALSE with ERROR_ACCESS_DENIED.
KVX_API BOOL AllocConsole();

/// Writes the text as UTF-8. The handle may be of anything that is open for writing, a pipe or file too.
/// `*pnWritten` counts UTF-16 units. `pReserved` must be null.
KVX_API BOOL WriteConsoleW(HANDLE hConsole, LPCVOID pText, DWORD nChars, LPDWORD pnWritten, LPVOID pReserved);

/// TRUE with the mode bits "processed" and "wrap" or "line" and "echo" for a terminal, else FALSE with
/// ERROR_INVALID_HANDLE.
KVX_API BOOL GetConsoleMode(HANDLE hConsole, LPDWORD pdwMode);

/// Goes to the hook if one is set, else as UTF-8 in one piece to the standard error if the environment
/// variable KVX_DEBUG_OUTPUT is there and not empty (looked up once). Leaves the last error as it was.
KVX_API void OutputDebugStringW(LPCWSTR pszText);

namespace kvx::win32
{

/// Where debug output goes instead of the standard error; null takes the hook away. A call that has begun in
/// another thread may still reach the old hook. Returns the hook before.
using DebugOutputHook = void (*)(LPCWSTR pszText);
KVX_API DebugOutputHook SetDebugOutputHook(DebugOutputHook pHook);

} // namespace kvx::win32
