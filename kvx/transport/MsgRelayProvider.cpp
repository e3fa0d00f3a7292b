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
    std::unique_ptr<CMsgProvider, void (*)(CMsgProvider *)> inner(CMsgDispatcher::GetInstance()->CreateProvider(params),
                                                                  &CMsgProvider::DeleteWithModule);
    auto * const provider = dynamic_cast<CMsgConnectionProvider *>(inner.get());
    if (!provider || static_cast<int>(inner->GetProperty(_T("connection_provider"))) == 0)
    {
        return nullptr;
    }
    auto * const relay = new CMsgRelayProvider(provider);
    inner.release();
    return relay;
}
