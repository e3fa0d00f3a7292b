#include "kvx/transport/MsgTCPFactory.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/transport/MsgTCPConnection.h"

#include <memory>

namespace
{
constexpr DWORD STOP_TIMEOUT = 10000; // milliseconds
}

CMsgConnection * CMsgTCPProvider::CreateConnection()
{
    return new CMsgTCPConnection(GetConnectInfo());
}

CMsgTCPListener::CMsgTCPListener(CConnectInfo * info) : CMsgListener(0, 0, STOP_TIMEOUT), CMsgTCPBase(info) {}

CMsgConnection * CMsgTCPListener::CreateConnection()
{
    return new CMsgTCPConnection(GetConnectInfo());
}

UINT CMsgTCPListener::GetListeningPort() const
{
    auto const * const connection = static_cast<CMsgTCPConnection const *>(GetListeningConnection());
    return connection ? connection->GetLocalPort() : 0;
}

CMsgProvider * CMsgTCPFactory::CreateProvider(LPCTSTR params)
{
    auto info = std::make_unique<CMsgTCPBase::CConnectInfo>(params);
    auto * const made = new CMsgTCPProvider(info.get());
    info.release();
    return made;
}

CMsgListener * CMsgTCPFactory::CreateListener(LPCTSTR params)
{
    auto info = std::make_unique<CMsgTCPBase::CConnectInfo>(params);
    auto * const made = new CMsgTCPListener(info.get());
    info.release();
    return made;
}

void CMsgTCPFactory::RegisterTypes(CMsgDispatcher & dispatcher)
{
    dispatcher.RegisterFactory(_T("tcp"), new CMsgTCPFactory);
}

void CMsgTCPFactory::RegisterTypes()
{
    RegisterTypes(*CMsgDispatcher::GetInstance());
}
