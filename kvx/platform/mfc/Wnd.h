#pragma once

#include "kvx/platform/mfc/Object.h"
#include "kvx/platform/mfc/Text.h"

// <windows.h> spells these as macros.
#undef GetWindowText
#undef SetWindowText
#undef SendMessage
#undef DefWindowProc

/// A window by its handle: one that this object has made, whose messages it gets, or one that it only refers to.
/// Threads: a window's messages come on the thread that made it, which must run a message loop.
class KVX_API CWnd : public CObject
{
    DECLARE_DYNAMIC(CWnd)

public:
    CWnd() = default;
    /// Refers to a window, which is not owned.
    explicit CWnd(HWND hWnd) : m_hWnd(hWnd) {}
    CWnd(CWnd const &) = delete;
    CWnd & operator=(CWnd const &) = delete;
    /// Destroys a window that this object has made: only on that window's thread.
    ~CWnd() override;

    /// Null if there is no window. Any thread may ask while this object lives; the window may go at any moment.
    HWND GetSafeHwnd() const { return __atomic_load_n(&m_hWnd, __ATOMIC_RELAXED); }

    /// Makes a window whose messages come to WindowProc; FALSE with the last error. The system's own class "STATIC"
    /// will do for a message-only one (parent HWND_MESSAGE).
    BOOL CreateEx(DWORD dwExStyle, LPCTSTR lpszClassName, LPCTSTR lpszWindowName, DWORD dwStyle, int x, int y,
                  int nWidth, int nHeight, HWND hWndParent, HMENU nIDorHMenu, LPVOID lpParam = nullptr);
    /// Only on the window's thread. FALSE with the last error, also if there is no window.
    virtual BOOL DestroyWindow();

    LRESULT SendMessage(UINT message, WPARAM wParam = 0, LPARAM lParam = 0) const;

    /// Empty if there is no window.
    void GetWindowText(CString & rString) const;
    /// Does nothing if there is no window.
    void SetWindowText(LPCTSTR lpszString);

    HWND m_hWnd = nullptr;

protected:
    /// Each message of a window that this object has made.
    virtual LRESULT WindowProc(UINT message, WPARAM wParam, LPARAM lParam);
    /// What the window's class does with a message.
    virtual LRESULT DefWindowProc(UINT message, WPARAM wParam, LPARAM lParam);

private:
    WNDPROC m_pfnSuper = nullptr; // null unless this object has made the window

    static LRESULT CALLBACK AfxWndProc(HWND hWnd, UINT message, WPARAM wParam, LPARAM lParam);
};
