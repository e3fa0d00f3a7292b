#pragma once

/// What a TCP provider, its listener and their connections share: one parsed endpoint.

#include "kvx/foundation/RefCounter.h"

#include <optional>

class KVX_API CMsgTCPBase
{
public:
    /// An endpoint, from the text `host:port@seconds.microseconds`. A missing port is 0. The time-out is for
    /// applications: connects and transfers block as long as the system lets them.
    class KVX_API CConnectInfo : public CRefObject
    {
    public:
        CConnectInfo() = default;
        explicit CConnectInfo(CString const & description);

        CStringA m_strServer;
        int m_nPort = 0;
        std::optional<winsock::TimeVal> m_timeout;
    };

    CMsgTCPBase() = default;
    /// Shares the endpoint.
    explicit CMsgTCPBase(CConnectInfo * info) : m_pInfo(info) {}
    virtual ~CMsgTCPBase() = default;

    CConnectInfo * GetConnectInfo() const { return m_pInfo.Get(); }
    CStringA const & GetServer() const { return m_pInfo->m_strServer; }
    int GetPort() const { return m_pInfo->m_nPort; }
    /// Null if the description gave none.
    winsock::TimeVal * GetTimeout() const { return m_pInfo->m_timeout ? &*m_pInfo->m_timeout : nullptr; }

private:
    kvx::RefPtr<CConnectInfo> m_pInfo;
};
