#pragma once

/// Message-only windows. A window belongs to the thread that made it and holds a text that every thread may
/// read and set. The calls give ERROR_INVALID_WINDOW_HANDLE for what is no window (any more).

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

using HMENU = struct HMENU__ *;

#define HWND_MESSAGE (reinterpret_cast<HWND>(static_cast<INT_PTR>(-3)))

/// Makes a window with the text `pszName` (null for none). There are no windows on a screen here: a parent
/// other than HWND_MESSAGE is ERROR_NOT_SUPPORTED. `pszClass` must be given (ERROR_CANNOT_FIND_WND_CLASS);
/// the other parameters have no effect.
KVX_API HWND CreateWindowExW(DWORD dwExStyle, LPCWSTR pszClass, LPCWSTR pszName, DWORD dwStyle, int x, int y,
                             int nWidth, int nHeight, HWND hParent, HMENU hMenu, HINSTANCE hInstance, LPVOID pParam);

/// ERROR_ACCESS_DENIED in any thread but the one that made the window.
KVX_API BOOL DestroyWindow(HWND hWnd);

KVX_API BOOL IsWindow(HWND hWnd);

/// A null text empties it.
KVX_API BOOL SetWindowTextW(HWND hWnd, LPCWSTR pszText);

/// Copies what fits with a closing zero, and returns the length without it; 0 for an empty text, or on error.
KVX_API int GetWindowTextW(HWND hWnd, LPWSTR pszBuffer, int nChars);
KVX_API int GetWindowTextLengthW(HWND hWnd);
