#include "kvx/transport/MsgRelayProvider.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/transport/MsgConnection.h"

CMsgConnection * CMsgRelayProvider::CreateConnection()
{
    return m_inner->CreateConnection();
}

void CMsgRelayProvider::Service(CMsgRequest & request)
{
    Exchange(AllocateConnection(), request);
}

CMsgProvider * CMsgRelayFactory::CreateProvider(LPCTSTR params)
{
    CMsgProvider * const inner = CMsgDispatcher::GetInstance()->CreateProvider(params);
    auto * const provider = dynamic_cast<CMsgConnectionProvider *>(inner);
    if (!provider || static_cast<int>(inner->GetProperty(_T("connection_provider"))) == 0)
    {
        CMsgProvider::DeleteWithModule(inner);
        return nullptr;
    }
    return new CMsgRelayProvider(provider);
}
