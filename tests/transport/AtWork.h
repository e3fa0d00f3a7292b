#pragma once

#include "tests/support/Patience.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

/// Puts everything to work: a service with a client in its own process, a two-way and a one-way request that never end.
/// The process is to leave with status 7, and these words on stderr.
inline void PutToWork()
{
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    dispatcher.RegisterProvider(
        _T("svc.echo"), [](CMsgRequest &, void *) {}, nullptr);
    dispatcher.RegisterProvider(
        _T("svc.slow"), [](CMsgRequest &, void *) { Sleep(INFINITE); }, nullptr);
    auto * const listener =
        static_cast<CMsgTCPListener *>(dispatcher.RegisterListener(_T(""), _T("tcp:127.0.0.1:0"), 1));
    listener->WaitUntilListening(PATIENCE);
    CString config;
    config.Format(_T("forward:relay:tcp:127.0.0.1:%u"), listener->GetListeningPort());
    dispatcher.RegisterProvider(_T("far"), config, 1);
    CMsgRequest request;
    int const served = request.Execute(_T("far.svc.echo")).Succeeded();
    request.Send(_T("far.svc.slow"));
    request.Notify(_T("svc.slow"));
    std::fputs(served ? "the output" : "no answer", stderr);
}

inline unsigned int Leave(void *)
{
    std::exit(7);
}
