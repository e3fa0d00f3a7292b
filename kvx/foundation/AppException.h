#pragma once

/// The library's exceptions, and the texts of system error codes.
///
/// Exceptions are heap objects thrown by pointer, and end with Delete(). They are thrown only where no result can
/// reach the caller, and never leave a thread.

#include "kvx/platform/mfc/Afx.h"

namespace kvx
{
/// The formatted text; a format that can't be carried out stands for itself: reporting an error must not fail because
/// of its text.
KVX_API CString FormatOrText(LPCTSTR format, FormatArgs const & args);

/// The system's text of an error code, without its line end; empty if there is none of at most `maximum` characters.
KVX_API void GetSystemText(DWORD code, DWORD maximum, CString & text);
} // namespace kvx

/// An error code and a text.
class KVX_API CAppException : public CException
{
public:
    explicit CAppException(int autoDelete = 1) : CException(autoDelete), m_nErrorCode(0) {}
    /// An empty format gives the system's text of the code; of the last error for code 0.
    template <class... T>
    CAppException(DWORD code, CString const & format, T const &... values)
        : CAppException(code, format, FormatArgs(FormatArgStore<sizeof...(T)>(values...)))
    {
    }
    CAppException(DWORD code, CString const & format, FormatArgs const & args);
    /// Takes the auto-delete flag alone. Exceptions travel by pointer.
    CAppException(CAppException const & other) : CException(other), m_nErrorCode(0) {}

    DWORD GetErrorCode() const { return m_nErrorCode; }
    void SetErrorCode(DWORD code) { m_nErrorCode = code; }
    CString const & GetErrorText() const { return m_strErrorText; }
    void SetErrorText(CString const & text) { m_strErrorText = text; }

    /// Copies the text, at most `maximum` characters; a text of that length or more is not terminated. FALSE, with
    /// nothing written, for an empty text.
    BOOL GetErrorMessage(LPTSTR buffer, UINT maximum, UINT * helpContext = nullptr) const override;

private:
    DWORD m_nErrorCode;
    CString m_strErrorText;
};

/// A failed response, thrown by CMsgResponse::ThrowException.
class KVX_API CMsgException : public CAppException
{
public:
    CMsgException(DWORD code, LPCTSTR format) : CAppException(code, CString(format)) {}
};

/// Throws a CAppException *. A null format gives the system's text of the code. The finished text is formatted once
/// more, so a per-cent sign in an argument has to be doubled to survive.
[[noreturn]] KVX_API void ThrowAppException(DWORD code, LPCTSTR format, FormatArgs const & args);
/// The same with a CMsgException *.
[[noreturn]] KVX_API void MsgThrowExceptionV(DWORD code, LPCTSTR format, FormatArgs const & args);

template <class... T>
[[noreturn]] void ThrowAppException(DWORD code, LPCTSTR format, T const &... values)
{
    ThrowAppException(code, format, FormatArgs(FormatArgStore<sizeof...(T)>(values...)));
}

template <class... T>
[[noreturn]] void MsgThrowException(DWORD code, LPCTSTR format, T const &... values)
{
    MsgThrowExceptionV(code, format, FormatArgs(FormatArgStore<sizeof...(T)>(values...)));
}

/// The system's text of an error code, without its line end; empty for a code that the system doesn't know.
class KVX_API CWinError
{
public:
    /// 0 takes the thread's last error now.
    explicit CWinError(DWORD code = 0) : m_nCode(code ? code : GetLastError()) {}
    virtual ~CWinError() = default;

    DWORD GetCode() const { return m_nCode; }
    void FormatString(CString & text) const;
    CString FormatString() const;
    CString GetText() const { return FormatString(); }

    static CString GetLastErrorText() { return CWinError(0).GetText(); }
    static CString GetText(DWORD code) { return CWinError(code).GetText(); }

private:
    DWORD m_nCode;
};
