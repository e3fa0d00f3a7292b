#include "kvx/messaging/MsgRequest.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/msgdata/MsgRowSet.h"
#include "kvx/transport/MsgStream.h"

namespace
{
/// What a request answers that has no memory for another response while somebody holds its own. It is held once here,
/// so that the next use of the request replaces it.
CMsgResponse * WithoutMemory()
{
    static CMsgResponse * const s_response = []
    {
        auto * const response = new CMsgResponse;
        response->AddRef();
        response->SetError(ERROR_NOT_ENOUGH_MEMORY, nullptr);
        return response;
    }();
    return s_response;
}
} // namespace

CMsgRequest::CMsgRequest(DWORD flags) : m_nFlags(flags), m_pResponse(new CMsgResponse)
{
    WithoutMemory(); // while there is some
}

CMsgRequest::CMsgRequest(CMsgRequest const & other)
    : CRefObject(other), CValueAccessor(other), m_strCommand(other.m_strCommand), m_nFlags(other.m_nFlags),
      m_bHandled(other.m_bHandled), m_bFromOutside(other.m_bFromOutside),
      m_pResponse(new CMsgResponse(*other.m_pResponse))
{
    CMsgRequest::MergeValues(other);
    if (other.m_pExParams)
    {
        m_pExParams = new CMsgMultipleRowSets(*other.m_pExParams);
    }
}

CMsgRequest::~CMsgRequest() = default;

CMsgResponse & CMsgRequest::Execute()
{
    PrepareRequest();
    return ExecuteRequest();
}

CMsgResponse & CMsgRequest::Execute(CString const & command)
{
    if (!command.IsEmpty())
    {
        m_strCommand = command;
    }
    return Execute();
}

CMsgResponse & CMsgRequest::Execute(CString const & command, CMsgMultipleRowSets * exParams)
{
    if (exParams)
    {
        SetExParams(exParams);
    }
    return Execute(command);
}

CMsgResponse & CMsgRequest::Send()
{
    DiscardResults(1);
    return Execute();
}

CMsgResponse & CMsgRequest::Send(CString const & command)
{
    DiscardResults(1);
    return Execute(command);
}

CMsgResponse & CMsgRequest::Send(CString const & command, CMsgMultipleRowSets * exParams)
{
    DiscardResults(1);
    return Execute(command, exParams);
}

CMsgResponse & CMsgRequest::Notify()
{
    PrepareRequest();
    DiscardResults(1);
    return NotifyRequest();
}

CMsgResponse & CMsgRequest::Notify(CString const & command)
{
    if (!command.IsEmpty())
    {
        m_strCommand = command;
    }
    return Notify();
}

CMsgResponse & CMsgRequest::Notify(CString const & command, CMsgMultipleRowSets * exParams)
{
    SetExParams(exParams);
    return Notify(command);
}

CMsgResponse & CMsgRequest::ExecuteRequest()
{
    return Answer(
        [this]
        {
            m_bHandled = 0; // a request may be used again
            CMsgDispatcher::GetInstance()->Service(*this);
            if (!m_bHandled && m_pResponse->GetErrorCode() == 0)
            {
                m_pResponse->SetError(ERROR_NOT_SUPPORTED, _T("Unsupported command: %s"), m_strCommand);
            }
        });
}

CMsgResponse & CMsgRequest::NotifyRequest()
{
    return Answer(
        [this]
        {
            m_pResponse->AssignRowSets(m_pExParams.Get());
            CMsgDispatcher::GetInstance()->Notify(*this);
        });
}

/// Fills a response without an error by the work. Never throws.
template <class WORK>
CMsgResponse & CMsgRequest::Answer(WORK const & work)
{
    bool const bDone = kvx::FailingWithoutMemory(
        [&]
        {
            CheckResponseReferences();
            m_pResponse->ClearError();
            work();
            return true;
        });
    if (!bDone && m_pResponse->GetRef() > 1)
    {
        m_pResponse = WithoutMemory();
    }
    else if (!bDone)
    {
        m_pResponse->SetError(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
    return *m_pResponse;
}

/// Somebody who still holds the last response keeps it: this request takes a new one.
void CMsgRequest::CheckResponseReferences()
{
    if (m_pResponse->GetRef() > 1)
    {
        m_pResponse = new CMsgResponse;
    }
}

void CMsgRequest::ResetParams()
{
    m_params.RemoveAll();
    SetExParams(nullptr);
}

int CMsgRequest::HasValue(CString const & name) const
{
    return m_params.PLookup(name) != nullptr;
}

CStringValue & CMsgRequest::CreateValue(CString const & name)
{
    return m_params[name];
}

int CMsgRequest::RemoveValue(CString const & name)
{
    return m_params.RemoveKey(name);
}

void CMsgRequest::GetNextValue(POSITION & pos, CString & name, CString & value) const
{
    CStringValue stored;
    m_params.GetNextAssoc(pos, name, stored);
    value = std::move(stored);
}

int CMsgRequest::RenameValue(CString const & oldName, CString const & newName)
{
    auto const * const pair = m_params.PLookup(oldName);
    if (!pair)
    {
        return 0;
    }
    CStringValue const value = pair->value;
    m_params.RemoveKey(oldName);
    m_params.SetAt(newName, value);
    return 1;
}

CMsgMultipleRowSets * CMsgRequest::GetExParams() const
{
    return m_pExParams ? m_pExParams.Get() : &m_pResponse->GetRowSets();
}

void CMsgRequest::SetExParams(CMsgMultipleRowSets * rowSets)
{
    m_pExParams = rowSets;
}

void CMsgRequest::SetResponse(CMsgResponse const & response)
{
    if (&response == m_pResponse.Get())
    {
        return;
    }
    if (m_pResponse->GetRef() == 1)
    {
        m_pResponse->Copy(response);
        return;
    }
    m_pResponse = new CMsgResponse(response);
}

void CMsgRequest::SetResponse(CMsgMultipleRowSets * rowSets)
{
    CheckResponseReferences();
    m_pResponse->AssignRowSets(rowSets);
}

void CMsgRequest::SetResponseValues(CValueAccessor const & values)
{
    CheckResponseReferences();
    kvx::RefPtr<CMsgRowSet> const rowSet(new CMsgRowSet(nullptr));
    POSITION row = rowSet->GetFirstRowPosition();
    rowSet->SetRow(row, values);
    m_pResponse->AssignRowSet(rowSet.Get());
}

void CMsgRequest::GetResponseValues(CValueAccessor & target) const
{
    CMsgMultipleRowSets const & rowSets = m_pResponse->GetRowSets();
    POSITION pos = rowSets.GetFirstPosition();
    CMsgRowSet * const rowSet = rowSets.GetAt(pos);
    POSITION row = rowSet->GetFirstRowPosition();
    rowSet->GetRow(row, target);
}

void CMsgRequest::Reset()
{
    ResetParams();
    m_nFlags = 0;
    m_bHandled = 0;
    m_pConnection = nullptr;
    CheckResponseReferences();
    m_pResponse->Reset();
}

CString CMsgRequest::GetLogText() const
{
    CString text = _T("Command: ") + m_strCommand;
    CString name;
    CString value;
    for (POSITION pos = GetStartParamPosition(); pos;)
    {
        GetNextParam(pos, name, value);
        text.AppendFormat(_T("\n    %s: %s"), name, value);
    }
    return text;
}

int CMsgRequest::Read(CMsgStream & stream)
{
    CMsgStreamCompactor const compactor(stream, true); // the row sets hold their texts
    ResetParams();
    m_nFlags = 0;
    m_bHandled = 0;
    CheckResponseReferences();
    m_pResponse->Reset();
    if (!stream.Read(m_nFlags) || !stream.Read(m_strCommand) || !ReadParams(stream))
    {
        return 0;
    }
    // The trailer has the form of a response; its row sets are the request's.
    if (!m_pResponse->Read(stream))
    {
        return 0;
    }
    if (!m_pResponse->GetRowSets().IsEmpty())
    {
        SetExParams(&m_pResponse->GetRowSets());
        m_pResponse->Reset();
    }
    return 1;
}

int CMsgRequest::ReadParams(CMsgStream & stream)
{
    DWORD count = 0;
    if (!stream.Read(count))
    {
        return 0;
    }
    kvx::MessageTexts texts;
    CString name;
    CString value;
    for (; count > 0; --count)
    {
        if (!stream.Read(name, texts) || !stream.Read(value, texts))
        {
            return 0;
        }
        m_params[name] = std::move(value);
    }
    return 1;
}

int CMsgRequest::Write(CMsgStream & stream)
{
    CMsgStreamCompactor const compactor(stream, true); // the row sets hold their texts
    int bDone = stream.Write(m_nFlags) && stream.Write(m_strCommand) && WriteParams(stream) && stream.Write(CString());
    if (bDone)
    {
        bDone = m_pExParams ? m_pExParams->Write(stream) : stream.Write(DWORD{0});
    }
    return bDone;
}

int CMsgRequest::WriteParams(CMsgStream & stream)
{
    if (!stream.Write(static_cast<DWORD>(m_params.GetCount())))
    {
        return 0;
    }
    for (auto const * pair = m_params.PGetFirstAssoc(); pair; pair = m_params.PGetNextAssoc(pair))
    {
        if (!stream.Write(pair->key) || !stream.Write(pair->value))
        {
            return 0;
        }
    }
    return 1;
}
