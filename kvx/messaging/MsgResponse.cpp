#include "kvx/messaging/MsgResponse.h"

#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/msgdata/MsgRowSet.h"
#include "kvx/transport/MsgStream.h"

namespace
{
// The one carrier of an error code on the wire: "rc:=", the code in decimal, ";", the text.
constexpr CString::View CODE_PREFIX = _T("rc:=");
} // namespace

CMsgResponse::CMsgResponse() : m_pRowSets(new CMsgMultipleRowSets) {}

CMsgResponse::CMsgResponse(CMsgResponse const & other)
    : CRefObject(other), m_nErrorCode(other.m_nErrorCode), m_strErrorText(other.m_strErrorText),
      m_pRowSets(new CMsgMultipleRowSets(*other.m_pRowSets))
{
}

CMsgResponse::~CMsgResponse() = default;

void CMsgResponse::Copy(CMsgResponse const & other)
{
    if (&other == this)
    {
        return;
    }
    kvx::RefPtr<CMsgMultipleRowSets> const rowSets(new CMsgMultipleRowSets(*other.m_pRowSets));
    m_nErrorCode = other.m_nErrorCode;
    m_strErrorText = other.m_strErrorText;
    m_pRowSets = rowSets;
}

void CMsgResponse::SetError(DWORD code, LPCTSTR format, FormatArgs const & args)
{
    m_nErrorCode = code;
    if (!format)
    {
        SyncErrorText();
        return;
    }
    bool const bText = kvx::FailingWithoutMemory(
        [&]
        {
            m_strErrorText = kvx::FormatOrText(format, args);
            return true;
        });
    if (!bText)
    {
        SetErrorWithoutText();
    }
}

/// There is no memory for the text of a failure: the code tells of it.
void CMsgResponse::SetErrorWithoutText()
{
    m_strErrorText.Empty();
    if (m_nErrorCode == 0)
    {
        m_nErrorCode = ERROR_NOT_ENOUGH_MEMORY;
    }
}

void CMsgResponse::SyncErrorText()
{
    constexpr DWORD MAXIMUM = 2048;
    m_strErrorText.Empty();
    bool const bText = m_nErrorCode == 0 || kvx::FailingWithoutMemory(
                                                [this]
                                                {
                                                    kvx::GetSystemText(m_nErrorCode, MAXIMUM, m_strErrorText);
                                                    return true;
                                                });
    if (!bText)
    {
        SetErrorWithoutText();
    }
}

DWORD CMsgResponse::SyncLastError()
{
    m_nErrorCode = GetLastError();
    SyncErrorText();
    return m_nErrorCode;
}

void CMsgResponse::ThrowException()
{
    // Doubled signs: the text is data, and what throws formats it once more.
    CString text = m_strErrorText;
    text.Replace(_T("%"), _T("%%"));
    MsgThrowException(m_nErrorCode, _T("%s"), text);
}

void CMsgResponse::Reset()
{
    m_nErrorCode = 0;
    m_strErrorText.Empty();
    ResetRowSets();
}

void CMsgResponse::ResetRowSets()
{
    if (m_pRowSets->GetRef() == 1)
    {
        m_pRowSets->RemoveAll();
        return;
    }
    m_pRowSets = new CMsgMultipleRowSets;
}

void CMsgResponse::AssignRowSet(CMsgRowSet * rowSet)
{
    kvx::RefPtr<CMsgRowSet> const keep(rowSet); // it may be one of those that go
    ResetRowSets();
    if (rowSet)
    {
        m_pRowSets->Append(rowSet);
    }
}

void CMsgResponse::AssignRowSets(CMsgMultipleRowSets * rowSets)
{
    if (rowSets == m_pRowSets.Get())
    {
        return;
    }
    ResetRowSets();
    if (rowSets)
    {
        m_pRowSets->Append(rowSets);
    }
}

int CMsgResponse::Read(CMsgStream & stream)
{
    CMsgStreamCompactor const compactor(stream, true); // the row sets hold their texts
    Reset();
    CString status;
    if (!stream.Read(status))
    {
        SyncLastError();
        return 0;
    }
    int const end = status.AsView().starts_with(CODE_PREFIX) ? status.Find(_T(';')) : -1;
    if (end >= 0)
    {
        int const first = static_cast<int>(CODE_PREFIX.size());
        m_nErrorCode = static_cast<DWORD>(CStringValue(status.Mid(first, end - first)).ToInteger());
        m_strErrorText = status.Mid(end + 1);
    }
    else
    {
        m_strErrorText = status;
    }
    if (!m_pRowSets->Read(stream))
    {
        SyncLastError();
        return 0;
    }
    return 1;
}

int CMsgResponse::Write(CMsgStream & stream)
{
    CMsgStreamCompactor const compactor(stream, true); // the row sets hold their texts
    CString status = m_strErrorText;
    if (m_nErrorCode != 0)
    {
        status.Format(_T("%s%d;%s"), CString(CODE_PREFIX), static_cast<int>(m_nErrorCode), m_strErrorText);
    }
    if (stream.Write(status) && m_pRowSets->Write(stream))
    {
        return 1;
    }
    SyncLastError();
    return 0;
}
