#pragma once

/// A cursor on the rows of one response, with its code and text.

#include "kvx/messaging/MsgResponse.h"
#include "kvx/msgdata/MsgCursor.h"

/// Shares the response by one reference; a response with a count of 0, on the stack or embedded, is copied instead.
/// Changing the rows of a response that others hold takes a new one first, without its error.
class KVX_API CMsgResults : public CMsgCursor, public CAutoDelete
{
public:
    CMsgResults();
    CMsgResults(CMsgRequest & request);
    CMsgResults(CMsgResults const & other);
    CMsgResults(CMsgResponse * response);
    CMsgResults(CMsgResponse const & response);
    ~CMsgResults() override;

    CMsgResults & operator=(CMsgResults const & other);
    CMsgResults & operator=(CMsgResponse const & response);
    CMsgResults & operator=(CMsgResponse * response);

    /// Leaves no current row and row set.
    void SetResponse(CMsgResponse * response);
    CMsgResponse & GetResponse() { return *m_pResponse; }
    CMsgResponse const & GetResponse() const { return *m_pResponse; }

    void AssignRowSet(CMsgRowSet * rowSet) override;
    void AssignRowSets(CMsgMultipleRowSets * rowSets) override;
    CMsgMultipleRowSets * GetRowSets() const override { return &m_pResponse->GetRowSets(); }

    int Succeeded() const { return m_pResponse->Succeeded(); }
    int Failed() const { return Succeeded() <= 0; }
    DWORD GetErrorCode() const { return m_pResponse->GetErrorCode(); }
    CString const & GetErrorText() const { return m_pResponse->GetErrorText(); }
    DWORD SyncLastError() { return m_pResponse->SyncLastError(); }
    template <class... T>
    void SetError(DWORD code, LPCTSTR format, T const &... values)
    {
        m_pResponse->SetError(code, format, values...);
    }
    void CopyErrorInfo(CMsgResults const & other) { m_pResponse->CopyErrorInfo(other.GetResponse()); }
    [[noreturn]] void ThrowException() { m_pResponse->ThrowException(); }

private:
    CMsgResponse * m_pResponse; // never null; one reference

    void CheckResponseReferences();
};
