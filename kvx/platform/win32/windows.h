#pragma once

/// Message-only windows, and the messages to them. A window belongs to the thread that made it and goes with it; its
/// messages are handled on that thread, one at a time. It holds a text that every thread may read and set. The calls
/// give ERROR_INVALID_WINDOW_HANDLE for what is no window (any more).

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

using HMENU = struct HMENU__ *;
using WNDPROC = LRESULT (*)(HWND, UINT, WPARAM, LPARAM);

inline constexpr UINT WM_NULL = 0x0000;
inline constexpr UINT WM_DESTROY = 0x0002;
inline constexpr UINT WM_QUIT = 0x0012;
inline constexpr UINT WM_NCDESTROY = 0x0082;
inline constexpr UINT WM_USER = 0x0400;
inline constexpr UINT WM_APP = 0x8000;
inline constexpr int GWLP_WNDPROC = -4;
inline constexpr int GWLP_USERDATA = -21;

struct POINT
{
    LONG x;
    LONG y;
};

struct MSG
{
    HWND hwnd;
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    DWORD time; ///< of posting: GetTickCount
    POINT pt;   ///< 0, 0: there is no pointer here
};
using LPMSG = MSG *;

#define HWND_MESSAGE (reinterpret_cast<HWND>(static_cast<INT_PTR>(-3)))

/// Makes a window with the text `pszName` (null for none). There are no windows on a screen here: a parent
/// other than HWND_MESSAGE is ERROR_NOT_SUPPORTED. `pszClass` must be given (ERROR_CANNOT_FIND_WND_CLASS);
/// the other parameters have no effect.
KVX_API HWND CreateWindowExW(DWORD dwExStyle, LPCWSTR pszClass, LPCWSTR pszName, DWORD dwStyle, int x, int y,
                             int nWidth, int nHeight, HWND hParent, HMENU hMenu, HINSTANCE hInstance, LPVOID pParam);

/// The window gets WM_DESTROY and WM_NCDESTROY, and is none any more. ERROR_ACCESS_DENIED in any thread but the one
/// that made it.
KVX_API BOOL DestroyWindow(HWND hWnd);

KVX_API BOOL IsWindow(HWND hWnd);

/// A null text empties it.
KVX_API BOOL SetWindowTextW(HWND hWnd, LPCWSTR pszText);

/// Copies what fits with a closing zero, and returns the length without it; 0 for an empty text, or on error.
KVX_API int GetWindowTextW(HWND hWnd, LPWSTR pszBuffer, int nChars);
KVX_API int GetWindowTextLengthW(HWND hWnd);

/// What is kept with a window: its procedure (GWLP_WNDPROC, DefWindowProcW at first) and a value of the program's own
/// (GWLP_USERDATA). The old value; 0 with last error ERROR_INVALID_INDEX for any other index, so look at the last
/// error.
KVX_API LONG_PTR SetWindowLongPtrW(HWND hWnd, int nIndex, LONG_PTR value);
KVX_API LONG_PTR GetWindowLongPtrW(HWND hWnd, int nIndex);

/// Does nothing with any message, and gives 0.
KVX_API LRESULT DefWindowProcW(HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam);
KVX_API LRESULT CallWindowProcW(WNDPROC pProcedure, HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam);

/// A number from 0xC000 on, the same for the same text (without regard to case) in this process. 0 with last error
/// ERROR_INVALID_PARAMETER for an empty text, or ERROR_NOT_ENOUGH_MEMORY when all are taken.
KVX_API UINT RegisterWindowMessageW(LPCWSTR pszText);

/// Has the window's thread call its procedure, and gives the result. The other thread does so in GetMessageW,
/// PeekMessageW or SendMessageW: a thread that waits here handles what others send it meanwhile. 0 with last error
/// ERROR_INVALID_WINDOW_HANDLE if the window or its thread ends first.
KVX_API LRESULT SendMessageW(HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam);

/// Leaves a message for the window's thread; for the calling thread itself with a null window. FALSE with last error
/// ERROR_NOT_ENOUGH_QUOTA when 10,000 wait there.
KVX_API BOOL PostMessageW(HWND hWnd, UINT nMessage, WPARAM wParam, LPARAM lParam);
/// Ends the calling thread's loop once all that is posted has been handled.
KVX_API void PostQuitMessage(int nExitCode);

/// Waits for a posted message, and handles sent ones meanwhile. 0 for WM_QUIT, -1 with last error ERROR_NOT_SUPPORTED
/// for a filter (window or range other than null and 0).
KVX_API BOOL GetMessageW(MSG * pMessage, HWND hWnd, UINT nFirst, UINT nLast);

inline constexpr UINT PM_NOREMOVE = 0;
inline constexpr UINT PM_REMOVE = 1;

/// The same without waiting: FALSE if nothing is posted, TRUE also for WM_QUIT.
KVX_API BOOL PeekMessageW(MSG * pMessage, HWND hWnd, UINT nFirst, UINT nLast, UINT nRemove);

/// Calls the procedure of the message's window, if it is one of this thread's.
KVX_API LRESULT DispatchMessageW(MSG const * pMessage);
