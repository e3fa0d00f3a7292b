#include "kvx/transport/MsgTCPBase.h"

#include "kvx/foundation/StringValue.h"
#include "kvx/foundation/Utilities.h"

CMsgTCPBase::CConnectInfo::CConnectInfo(CString const & description)
{
    CString endpoint;
    CString timeout;
    CUtilities::SplitString(description, endpoint, timeout, _T("@"), 0);
    CString host;
    CString port;
    CUtilities::SplitString(endpoint, host, port, _T(":"), 0);
    m_strServer = CUtilities::StringToAnsi(host);
    m_nPort = CStringValue(port).ToInteger();
    CString seconds;
    CString microseconds;
    CUtilities::SplitString(timeout, seconds, microseconds, _T("."), 0);
    if (!seconds.IsEmpty() || !microseconds.IsEmpty())
    {
        m_timeout.emplace();
        m_timeout->tv_sec = CStringValue(seconds).ToInteger();
        m_timeout->tv_usec = CStringValue(microseconds).ToInteger();
    }
}
