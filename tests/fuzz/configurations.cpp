// Makes providers and listeners from arbitrary configurations. Whether there is one to make is known from the grammar.
// Nothing connects, listens or loads a module.

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgConnectionProvider.h"
#include "kvx/transport/MsgListener.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace
{
using View = CString::View;

constexpr std::array<View, 5> LINKS = {u"9x_pipe", u"nt_pipe", u"local_pipe", u"local_apipe", u"tcp"};
constexpr int DEPTH_MAX = 100;

void Require(bool bTrue)
{
    if (!bTrue)
    {
        std::abort();
    }
}

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

enum class Kind
{
    None,
    Link,
    Other
};

/// What a configuration makes.
Kind GetKind(View config, int nDepth = 1)
{
    std::size_t const nColon = config.find(u':');
    if (nColon == View::npos || nDepth > DEPTH_MAX)
    {
        return Kind::None;
    }
    View const type = config.substr(0, nColon);
    View const params = config.substr(nColon + 1);
    if (type == u"forward")
    {
        return GetKind(params, nDepth + 1) == Kind::None ? Kind::None : Kind::Other;
    }
    if (type == u"relay")
    {
        return GetKind(params, nDepth + 1) == Kind::Link ? Kind::Link : Kind::None;
    }
    return std::ranges::find(LINKS, type) != LINKS.end() ? Kind::Link : Kind::None;
}

void TryProvider(CString const & config)
{
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    Kind const kind = GetKind(config.AsView());
    {
        kvx::RefPtr<CMsgProvider> const provider(dispatcher.CreateProvider(config));
        auto * const link = dynamic_cast<CMsgConnectionProvider *>(provider.Get());
        Require((kind == Kind::None) == !provider && (kind == Kind::Link) == (link != nullptr));
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
    Require(bRegistered == (kind != Kind::None));
    Require(!bRegistered || dispatcher.UnregisterProvider(_T("a.fuzzed"), config));
    dispatcher.DeleteTarget(_T("a"));
}

void TryListener(CString const & config)
{
    std::unique_ptr<CMsgListener> const listener(CMsgDispatcher::GetInstance()->CreateListener(config));
    Require(!listener || !listener->IsListening());
    View const text = config.AsView();
    if (text.find(u';') == View::npos)
    {
        std::size_t const nColon = std::min(text.find(u':'), text.size());
        bool const bKnown = nColon < text.size() && std::ranges::find(LINKS, text.substr(0, nColon)) != LINKS.end();
        Require(bKnown == (listener != nullptr));
    }
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
