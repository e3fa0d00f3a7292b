#include "kvx/foundation/AppException.h"

#include <algorithm>

namespace kvx
{
CString FormatOrText(LPCTSTR format, FormatArgs const & args)
{
    if (!format)
    {
        return {};
    }
    try
    {
        return FormatText(std::basic_string_view<WCHAR>(format), args);
    }
    catch (CException * failure)
    {
        failure->Delete();
        return format;
    }
}

void GetSystemText(DWORD code, DWORD maximum, CString & text)
{
    WCHAR * const buffer = text.GetBuffer(static_cast<int>(maximum));
    DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, code, 0, buffer, maximum, nullptr);
    if (length > 1 && buffer[length - 2] == '\r')
    {
        length -= 2;
    }
    text.ReleaseBuffer(static_cast<int>(length));
    text.FreeExtra();
}
} // namespace kvx

CAppException::CAppException(DWORD code, CString const & format, FormatArgs const & args)
    : CException(TRUE), m_nErrorCode(code),
      m_strErrorText(format.IsEmpty() ? CWinError::GetText(code) : kvx::FormatOrText(format, args))
{
}

BOOL CAppException::GetErrorMessage(LPTSTR buffer, UINT maximum, UINT *) const
{
    if (m_strErrorText.IsEmpty())
    {
        return FALSE;
    }
    UINT const length = static_cast<UINT>(m_strErrorText.GetLength());
    std::copy_n(m_strErrorText.GetString(), std::min(length + 1, maximum), buffer);
    return TRUE;
}

namespace
{
CString FinishedText(DWORD code, LPCTSTR format, FormatArgs const & args)
{
    return format ? kvx::FormatOrText(format, args) : CWinError(code).GetText();
}
} // namespace

void ThrowAppException(DWORD code, LPCTSTR format, FormatArgs const & args)
{
    throw new CAppException(code, FinishedText(code, format, args));
}

void MsgThrowExceptionV(DWORD code, LPCTSTR format, FormatArgs const & args)
{
    throw new CMsgException(code, FinishedText(code, format, args));
}

void CWinError::FormatString(CString & text) const
{
    constexpr DWORD MAXIMUM = 256;
    kvx::GetSystemText(m_nCode, MAXIMUM, text);
}

CString CWinError::FormatString() const
{
    CString text;
    FormatString(text);
    return text;
}
