#include "HostProviders.h"

#include "HostEventsProvider.h"
#include "HostFilesProvider.h"
#include "HostInfoProvider.h"
#include "HostTableProvider.h"
#include "HostTestProvider.h"

#include "kvx/messaging/MsgDispatcher.h"

HostProviders::HostProviders()
{
    for (CMsgProvider * const provider :
         std::initializer_list<CMsgProvider *>{new CHostInfoProvider, new CHostFilesProvider, new CHostTestProvider,
                                               new CHostTableProvider, new CHostEventsProvider})
    {
        m_providers.emplace_back(provider);
        CMsgDispatcher::GetInstance()->RegisterProvider(_T("host"), provider, 1);
    }
}

void HostProviders::Stop()
{
    for (auto const & provider : m_providers)
    {
        provider->StopProvider();
    }
}
