#pragma once

#include "kvx/platform/mfc/Object.h"
#include "kvx/platform/mfc/Text.h"

// <windows.h> spells these as macros.
#undef GetWindowText
#undef SetWindowText

/// A window by its handle, which is not owned.
class KVX_API CWnd : public CObject
{
    DECLARE_DYNAMIC(CWnd)

public:
    CWnd() = default;
    explicit CWnd(HWND hWnd) : m_hWnd(hWnd) {}

    HWND GetSafeHwnd() const { return m_hWnd; }

    /// Empty if there is no window.
    void GetWindowText(CString & rString) const;
    /// Does nothing if there is no window.
    void SetWindowText(LPCTSTR lpszString);

    HWND m_hWnd = nullptr;
};
