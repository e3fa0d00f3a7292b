#include "kvx/platform/mfc/Wnd.h"

#include <algorithm>

IMPLEMENT_DYNAMIC(CWnd, CObject)

CWnd::~CWnd()
{
    if (m_pfnSuper && m_hWnd)
    {
        ::DestroyWindow(m_hWnd);
    }
}

BOOL CWnd::CreateEx(DWORD dwExStyle, LPCTSTR lpszClassName, LPCTSTR lpszWindowName, DWORD dwStyle, int x, int y,
                    int nWidth, int nHeight, HWND hWndParent, HMENU nIDorHMenu, LPVOID lpParam)
{
    __atomic_store_n(&m_hWnd,
                     CreateWindowExW(dwExStyle, lpszClassName, lpszWindowName, dwStyle, x, y, nWidth, nHeight,
                                     hWndParent, nIDorHMenu, GetModuleHandleW(nullptr), lpParam),
                     __ATOMIC_RELAXED);
    if (!m_hWnd)
    {
        return FALSE;
    }
    SetWindowLongPtrW(m_hWnd, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    m_pfnSuper =
        reinterpret_cast<WNDPROC>(SetWindowLongPtrW(m_hWnd, GWLP_WNDPROC, reinterpret_cast<LONG_PTR>(&AfxWndProc)));
    return TRUE;
}

BOOL CWnd::DestroyWindow()
{
    return ::DestroyWindow(m_hWnd);
}

LRESULT CWnd::SendMessage(UINT message, WPARAM wParam, LPARAM lParam) const
{
    return SendMessageW(m_hWnd, message, wParam, lParam);
}

LRESULT CWnd::WindowProc(UINT message, WPARAM wParam, LPARAM lParam)
{
    return DefWindowProc(message, wParam, lParam);
}

LRESULT CWnd::DefWindowProc(UINT message, WPARAM wParam, LPARAM lParam)
{
    return CallWindowProcW(m_pfnSuper ? m_pfnSuper : &DefWindowProcW, m_hWnd, message, wParam, lParam);
}

LRESULT CALLBACK CWnd::AfxWndProc(HWND hWnd, UINT message, WPARAM wParam, LPARAM lParam)
{
    auto * const pWnd = reinterpret_cast<CWnd *>(GetWindowLongPtrW(hWnd, GWLP_USERDATA));
    if (!pWnd)
    {
        return DefWindowProcW(hWnd, message, wParam, lParam);
    }
    LRESULT const result = pWnd->WindowProc(message, wParam, lParam);
    if (message == WM_NCDESTROY)
    {
        // The last message that a window gets.
        SetWindowLongPtrW(hWnd, GWLP_USERDATA, 0);
        pWnd->m_pfnSuper = nullptr;
        __atomic_store_n(&pWnd->m_hWnd, nullptr, __ATOMIC_RELAXED);
    }
    return result;
}

void CWnd::GetWindowText(CString & rString) const
{
    rString.Empty();
    if (!m_hWnd)
    {
        return;
    }
    auto const nLength = GetWindowTextLengthW(m_hWnd);
    if (nLength <= 0)
    {
        return;
    }
    auto * pBuffer = rString.GetBuffer(nLength + 1);
    // The text may have become another one since.
    rString.ReleaseBuffer(std::clamp(GetWindowTextW(m_hWnd, pBuffer, nLength + 1), 0, nLength));
}

void CWnd::SetWindowText(LPCTSTR lpszString)
{
    if (m_hWnd)
    {
        SetWindowTextW(m_hWnd, lpszString ? lpszString : _T(""));
    }
}
