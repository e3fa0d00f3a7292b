#include "kvx/events/MsgObserver.h"

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgRequest.h"
#include "kvx/text/StringTokenizer.h"

CMsgObserver::CMsgObserver()
{
    m_strName.Format(_T("%X08"), this);
}

void CMsgObserver::Advise(CString const & path, CString const & events, CString const & connector)
{
    m_strPath = path;
    if (!connector.IsEmpty())
    {
        // A forwarder on a target without a parent takes the target's name off the command again.
        m_strPath = m_strName + _T(".") + path;
        if (!CMsgDispatcher::GetInstance()->RegisterProvider(m_strName, _T("forward:") + connector, 1))
        {
            MsgThrowException(ERROR_INVALID_PARAMETER, _T("%s"), _T("invalid oberver connection string: ") + connector);
        }
    }
    CStringTokenizer entries(events, _T(","));
    for (CString entry; entries.GetNextString(entry);)
    {
        CString event;
        CString name;
        CUtilities::SplitString(entry, event, name, _T("="), 0);
        m_events.CreateValue(event) = name.IsEmpty() ? event : name;
    }
}

void CMsgObserver::Unadvise()
{
    if (!m_strName.IsEmpty())
    {
        CMsgDispatcher::GetInstance()->DeleteTarget(m_strName);
        m_strName.Empty();
    }
}

/// Empty for an event that this observer doesn't want.
CString CMsgObserver::GetCommand(LPCTSTR event) const
{
    CString const name = m_events.GetValue(event);
    return name.IsEmpty() ? CString() : m_strPath + _T(".") + name;
}

int CMsgObserver::PostEvent(LPCTSTR event, CDictionary const & params, CMsgMultipleRowSets * rows) const
{
    CString const command = GetCommand(event);
    if (command.IsEmpty())
    {
        return 1;
    }
    CMsgRequest request;
    request.SetParams(params);
    return request.Notify(command, rows).Succeeded();
}

int CMsgObserver::SendEvent(LPCTSTR event, CDictionary const & params, CMsgMultipleRowSets * rows) const
{
    CString const command = GetCommand(event);
    if (command.IsEmpty())
    {
        return 1;
    }
    CMsgRequest request(CMsgRequest::FLAG_DISCARD_RESULTS);
    request.SetParams(params);
    return request.Execute(command, rows).Succeeded();
}
