#pragma once

#include "kvx/messaging/MsgProvider.h"

/// `host.info.get`: one row that tells of the machine, this process and the library. `uptime_s` is the machine's.
class CHostInfoProvider : public CMsgProvider
{
public:
    void RegisterProviderMap() override;

private:
    void OnGet(CMsgRequest & request);
};
