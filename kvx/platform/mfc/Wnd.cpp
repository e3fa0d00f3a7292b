#include "kvx/platform/mfc/Wnd.h"

#include <algorithm>

IMPLEMENT_DYNAMIC(CWnd, CObject)

void CWnd::GetWindowText(CString & rString) const
{
    rString.Empty();
    if (!m_hWnd)
        return;
    auto const nLength = GetWindowTextLengthW(m_hWnd);
    if (nLength <= 0)
        return;
    auto * pBuffer = rString.GetBuffer(nLength + 1);
    // The text may have become another one since.
    rString.ReleaseBuffer(std::clamp(GetWindowTextW(m_hWnd, pBuffer, nLength + 1), 0, nLength));
}

void CWnd::SetWindowText(LPCTSTR lpszString)
{
    if (m_hWnd)
        SetWindowTextW(m_hWnd, lpszString ? lpszString : _T(""));
}
