#pragma once

/// What comes back from a request: an error code, an error text, and rows.

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/RefCounter.h"

class CMsgMultipleRowSets;
class CMsgRowSet;
class CMsgStream;

/// Codes are Win32 error numbers; 0 with an empty text is success. A text with code 0 is a failure too: it is what a
/// remote error without a code comes to.
///
/// Responses are shared by reference count and replaced, never changed, while somebody else holds them (see
/// CMsgRequest). A response on the stack, with a count of 0, is fine too.
/// Threads: one at a time; the count alone may be used by several.
class KVX_API CMsgResponse : public CRefObject
{
public:
    CMsgResponse();
    /// The row sets are copied deep.
    CMsgResponse(CMsgResponse const & other);
    ~CMsgResponse() override;
    CMsgResponse & operator=(CMsgResponse const & other)
    {
        Copy(other);
        return *this;
    }
    void Copy(CMsgResponse const & other);

    int Succeeded() const { return m_nErrorCode == 0 && m_strErrorText.IsEmpty(); }
    int Failed() const { return !Succeeded(); }
    operator bool() const { return Succeeded() == 1; }
    DWORD GetErrorCode() const { return m_nErrorCode; }
    CString const & GetErrorText() const { return m_strErrorText; }

    /// A null format takes the system's text of the code. A format that can't be carried out stands for itself. Never
    /// throws: without memory for a text the code stands alone, 8 where it would be 0.
    template <class... T>
    void SetError(DWORD code, LPCTSTR format, T const &... values)
    {
        SetError(code, format, FormatArgs(FormatArgStore<sizeof...(T)>(values...)));
    }
    void SetError(DWORD code, LPCTSTR format, FormatArgs const & args);
    /// Code 0 without a text.
    void ClearError()
    {
        m_nErrorCode = 0;
        m_strErrorText.Empty();
    }
    /// Takes code and text from the thread's last error; the code.
    DWORD SyncLastError();
    void CopyErrorInfo(CMsgResponse const & other) { SetError(other.m_nErrorCode, _T("%s"), other.m_strErrorText); }
    /// Throws a CMsgException * with code and text.
    [[noreturn]] void ThrowException();
    void Reset();

    CMsgMultipleRowSets & GetRowSets() { return *m_pRowSets; }
    CMsgMultipleRowSets const & GetRowSets() const { return *m_pRowSets; }
    /// Replace the row sets; what is given is shared. Null leaves none.
    void AssignRowSet(CMsgRowSet * rowSet);
    void AssignRowSets(CMsgMultipleRowSets * rowSets);
    /// Leaves no row sets; those that somebody else holds stay as they are.
    void ResetRowSets();

    /// The wire form: see docs/wire-protocol.md. 0 on a failed stream, with the reason in the response.
    int Read(CMsgStream & stream);
    int Write(CMsgStream & stream);

protected:
    void SyncErrorText();

private:
    void SetErrorWithoutText();
    DWORD m_nErrorCode = 0;
    CString m_strErrorText;
    kvx::RefPtr<CMsgMultipleRowSets> m_pRowSets; // never null
};
