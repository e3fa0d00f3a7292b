#include "Endpoint.h"

#include "Output.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgConnectionProvider.h"

#include <CLI/App.hpp>

#include <algorithm>

void CallWords::AddTo(CLI::App & command)
{
    command.add_option("CONNECTION", strConnection, "tcp:HOST:PORT, or inproc for this process itself")->required();
    command.add_option("COMMAND", strCommand, "Dotted path of the command, such as host.info.get")
        ->required()
        ->check([](std::string const & word)
                { return word.empty() ? std::string("a command is a dotted path") : std::string(); });
    command.add_option("NAME=VALUE", params, "Parameters of the request")
        ->check(
            [](std::string const & word)
            {
                auto const equals = word.find('=');
                bool const bGood = equals != std::string::npos && equals > 0;
                return bGood ? std::string() : "'" + word + "' is no NAME=VALUE";
            });
}

void CallWords::Fill(CMsgRequest & request) const
{
    request.SetCommand(kvx::FromUtf8(strCommand));
    for (std::string_view const word : params)
    {
        auto const equals = word.find('=');
        request.SetValue(kvx::FromUtf8(word.substr(0, equals)), CStringValue(kvx::FromUtf8(word.substr(equals + 1))));
    }
}

CString CheckConfiguration(CString const & config)
{
    constexpr CString::View EVENT = _T("event:");
    constexpr int PORT_MAX = 65535;
    CString::View rest = config;
    if (auto const end = rest.find(WCHAR{';'}); rest.starts_with(EVENT) && end != CString::View::npos)
    {
        rest.remove_prefix(end + 1);
    }
    auto const colon = rest.find(WCHAR{':'});
    CString const type(rest.substr(0, colon));
    CString text;
    if (colon == CString::View::npos || !CMsgDispatcher::GetInstance()->LookupFactory(type))
    {
        text.Format(_T("'%s' is no connection: use tcp:HOST:PORT"), config);
        return text;
    }
    if (type == _T("tcp"))
    {
        CString::View address = rest.substr(colon + 1);
        address = address.substr(0, address.find(WCHAR{'@'}));
        auto const split = address.find(WCHAR{':'});
        CString::View const port = split == CString::View::npos ? CString::View() : address.substr(split + 1);
        bool const bDigits = std::ranges::all_of(port, [](WCHAR c) { return c >= '0' && c <= '9'; });
        if (!bDigits || port.size() > 9 || CStringValue(CString(port)).ToInteger() > PORT_MAX)
        {
            text.Format(_T("'%s' has no valid port: use 0 to %d"), config, PORT_MAX);
        }
    }
    return text;
}

Endpoint::~Endpoint()
{
    if (m_host)
    {
        m_host->Stop();
    }
}

bool Endpoint::Open(std::string_view connection)
{
    if (connection == "inproc")
    {
        m_host = std::make_unique<HostProviders>();
        return true;
    }
    CString const config = kvx::FromUtf8(connection);
    CString problem = CheckConfiguration(config);
    if (problem.IsEmpty())
    {
        // On the root it gets every command, whole.
        CMsgProvider * const provider = CMsgDispatcher::GetInstance()->RegisterProvider(_T(""), config, 1);
        m_pProvider = dynamic_cast<CMsgConnectionProvider *>(provider);
        if (provider)
        {
            return true;
        }
        problem.Format(_T("no provider for '%s'"), config);
    }
    ReportError(ERROR_INVALID_PARAMETER, problem);
    return false;
}

CMsgConnection * Endpoint::NewConnection()
{
    return m_pProvider ? m_pProvider->AllocateConnection() : nullptr;
}

void Endpoint::Connect(CMsgConnection * connection)
{
    if (!connection)
    {
        return;
    }
    bool const bLinked = connection->Connect() != 0;
    if (bLinked && connection->AuthenticateClient(1))
    {
        connection->EnableCompact();
    }
    else if (!bLinked || !connection->AuthenticateClient(0))
    {
        connection->Disconnect();
    }
}

void Endpoint::Break(CMsgConnection * connection)
{
    if (connection)
    {
        connection->Disconnect();
    }
    else if (m_host)
    {
        m_host->Stop();
    }
}
