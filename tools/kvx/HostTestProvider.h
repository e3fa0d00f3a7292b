#pragma once

#include "kvx/messaging/MsgProvider.h"

#include <atomic>

/// Commands that exercise a connection.
///
/// `host.echo` answers a row set `echo` with one row, a column for each parameter, and behind it the row sets that the
/// request carried. `host.fail` answers with the error that `code` and `text` say. `host.sleep` answers after `ms`
/// milliseconds. `host.count` adds `add` to a counter of 64 bits, and answers its value in the column `count`.
class CHostTestProvider : public CMsgProvider
{
public:
    void RegisterProviderMap() override;
    /// Sleepers answer at once with error 995, also those to come.
    int StopProvider() override;

private:
    CEvent m_stop{FALSE, TRUE};
    std::atomic<LONGLONG> m_nCount{0};

    void OnEcho(CMsgRequest & request);
    void OnFail(CMsgRequest & request);
    void OnSleep(CMsgRequest & request);
    void OnCount(CMsgRequest & request);
};
