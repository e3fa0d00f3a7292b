#pragma once

/// What `kvx serve` offers at `host`.

#include "kvx/foundation/RefCounter.h"
#include "kvx/messaging/MsgProvider.h"

#include <vector>

/// Registers the providers of `host` with this process's tree, which keeps them.
class HostProviders
{
public:
    HostProviders();

    /// Ends requests that wait (`host.sleep`) and subscriptions, now and from now on. Any thread.
    void Stop();

private:
    std::vector<kvx::RefPtr<CMsgProvider>> m_providers;
};
