// Makes providers and listeners from arbitrary configurations: what is made can be used, registered and taken away.
// Nothing connects, listens or loads a module.

#include "Require.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgConnectionProvider.h"
#include "kvx/transport/MsgListener.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <cstdint>
#include <memory>
#include <string_view>

namespace
{
using View = CString::View;

/// Modules have other names than any that this machine has.
CString WithoutModules(CString config)
{
    if (config.Find(_T("inproc:")) >= 0)
    {
        config.Replace(_T('/'), _T('_'));
        config.Replace(_T('\\'), _T('_'));
        config.Replace(_T("inproc:"), _T("inproc:/no-such-folder/"));
    }
    return config;
}

void TryProvider(CString const & config)
{
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    bool bMade = false;
    {
        kvx::RefPtr<CMsgProvider> const provider(dispatcher.CreateProvider(config));
        auto * const link = dynamic_cast<CMsgConnectionProvider *>(provider.Get());
        bMade = provider.Get() != nullptr;
        Require(bMade || !link);
        if (link)
        {
            CMsgConnection * const connection = link->AllocateConnection();
            Require(connection && !connection->IsConnected());
            link->ReleaseConnection(connection);
        }
        if (auto const * const tcp = dynamic_cast<CMsgTCPProvider *>(link))
        {
            CStringA const & server = tcp->GetServer();
            Require(server.Find(':') < 0 && server.Find('@') < 0 && config.GetLength() * 3 >= server.GetLength());
        }
    }
    bool const bRegistered = dispatcher.RegisterProvider(_T("a.fuzzed"), config, 0) != nullptr;
    Require(bRegistered == bMade);
    Require(!bRegistered || dispatcher.UnregisterProvider(_T("a.fuzzed"), config));
    dispatcher.DeleteTarget(_T("a"));
}

void TryListener(CString const & config)
{
    std::unique_ptr<CMsgListener> const listener(CMsgDispatcher::GetInstance()->CreateListener(config));
    Require(!listener || !listener->IsListening());
}
} // namespace

// Text in UTF-8.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    CString const text = kvx::FromUtf8(std::string_view(reinterpret_cast<char const *>(data), size));
    CString const config = WithoutModules(text.GetString()); // up to a closing zero, as every caller's
    TryProvider(config);
    TryListener(config);
    return 0;
}
