#include "Endpoint.h"

#include "Output.h"

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgRelayProvider.h"

#include <CLI/App.hpp>

#include <algorithm>

std::string CheckConnectionWord(std::string const & word)
{
    return word == "inproc" ? std::string() : kvx::ToUtf8(CheckConnection(kvx::FromUtf8(word)));
}

std::string CheckParamWord(std::string const & word)
{
    auto const equals = word.find('=');
    bool const bGood = equals != std::string::npos && equals > 0;
    return bGood ? std::string() : "'" + word + "' is no NAME=VALUE";
}

void FillParam(CMsgRequest & request, std::string_view word)
{
    auto const equals = word.find('=');
    request.SetValue(kvx::FromUtf8(word.substr(0, equals)), CStringValue(kvx::FromUtf8(word.substr(equals + 1))));
}

void CallWords::AddTo(CLI::App & command)
{
    command
        .add_option("CONNECTION", strConnection, "tcp:HOST:PORT, nt_pipe:NAME, ..., or inproc for this process itself")
        ->required()
        ->check(&CheckConnectionWord);
    command.add_option("COMMAND", strCommand, "Dotted path of the command, such as host.info.get")
        ->required()
        ->check([](std::string const & word)
                { return word.empty() ? std::string("a command is a dotted path") : std::string(); });
    command.add_option("NAME=VALUE", params, "Parameters of the request")->check(&CheckParamWord);
}

void CallWords::Fill(CMsgRequest & request) const
{
    request.SetCommand(kvx::FromUtf8(strCommand));
    for (std::string_view const word : params)
    {
        FillParam(request, word);
    }
}

namespace
{
using View = CString::View;

std::pair<View, View> SplitType(View config)
{
    auto const colon = config.find(WCHAR{':'});
    return colon == View::npos ? std::pair(View(), config)
                               : std::pair(config.substr(0, colon), config.substr(colon + 1));
}

CString CheckAddress(View address, CString const & config)
{
    constexpr int PORT_MAX = 65535;
    address = address.substr(0, address.find(WCHAR{'@'}));
    auto const split = address.find(WCHAR{':'});
    View const port = split == View::npos ? View() : address.substr(split + 1);
    bool const bDigits = std::ranges::all_of(port, [](WCHAR c) { return c >= '0' && c <= '9'; });
    CString text;
    if (!bDigits || port.size() > 9 || CStringValue(CString(port)).ToInteger() > PORT_MAX)
    {
        text.Format(_T("'%s' has no valid port: use 0 to %d"), config, PORT_MAX);
    }
    return text;
}

/// `rest` is what `config` says behind the prefixes that were checked already.
CString CheckRest(View rest, CString const & config)
{
    auto const [type, params] = SplitType(rest);
    CString const name(type);
    CString text;
    if (name.IsEmpty() || !CMsgDispatcher::GetInstance()->LookupFactory(name))
    {
        text.Format(_T("'%s' is no connection: use TYPE:NAME, such as tcp:HOST:PORT or nt_pipe:NAME"), config);
    }
    else if (name == _T("tcp"))
    {
        text = CheckAddress(params, config);
    }
    else if (name == _T("forward") || name == _T("relay"))
    {
        text = CheckRest(params, config);
        CString const inner(SplitType(params).first);
        if (text.IsEmpty() && name == _T("relay") && (inner == _T("inproc") || inner == _T("forward")))
        {
            text.Format(_T("'%s' relays to no connection"), config);
        }
    }
    else if (params.empty())
    {
        text.Format(_T("'%s' has no name"), config);
    }
    return text;
}

/// Keeps what was logged last as an error, during its life.
class FailureReason
{
public:
    FailureReason()
    {
        CLogManager::GetInstance()->RegisterSink(&m_awake, 1); // nothing is logged without a queued sink
        CLogManager::GetInstance()->RegisterSink(&m_errors, 0);
    }
    FailureReason(FailureReason const &) = delete;
    ~FailureReason()
    {
        CLogManager::GetInstance()->UnregisterSink(&m_errors);
        CLogManager::GetInstance()->UnregisterSink(&m_awake);
    }
    CString Get()
    {
        CSingleLock guard(&m_errors.m_lock, TRUE);
        return m_errors.m_strText;
    }

private:
    class CErrors : public CLogSink
    {
    public:
        CErrors() : CLogSink(LOG_ERROR) {}
        void Append(CLogEvent * event) override
        {
            CSingleLock guard(&m_lock, TRUE);
            m_strText = event->m_nType == LOG_ERROR ? event->m_strText : m_strText;
        }
        CCriticalSection m_lock;
        CString m_strText;
    };
    class CNoSink : public CLogSink
    {
    public:
        CNoSink() : CLogSink(0) {}
        void Append(CLogEvent *) override {}
    };

    CErrors m_errors;
    CNoSink m_awake;
};
} // namespace

CString CheckConnection(CString const & config)
{
    return CheckRest(config, config);
}

CString CheckListener(CString const & config)
{
    View const event = _T("event:");
    View rest = config;
    auto const end = rest.find(WCHAR{';'});
    bool const bEvent = end != View::npos && CString(rest.substr(0, event.size())).MakeLower().AsView() == event;
    CString text;
    if (bEvent && end == event.size())
    {
        text.Format(_T("'%s' names no event"), config);
        return text;
    }
    rest.remove_prefix(bEvent ? end + 1 : 0);
    text = CheckRest(rest, config);
    CString const type(SplitType(rest).first);
    if (text.IsEmpty() && (type == _T("inproc") || type == _T("forward") || type == _T("relay")))
    {
        text.Format(_T("nothing can listen on '%s'"), config);
    }
    return text;
}

CMsgProvider * MountProvider(CString const & path, CString const & config)
{
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    if (CMsgProvider * const provider = dispatcher.RegisterProvider(path, config, 1))
    {
        return provider;
    }
    // Once more with somebody who listens why: the log costs a thread, and most get on without.
    FailureReason reason;
    SetLastError(0);
    if (CMsgProvider * const provider = dispatcher.RegisterProvider(path, config, 1))
    {
        return provider;
    }
    DWORD const lastError = GetLastError();
    DWORD code = ERROR_INVALID_PARAMETER;
    CString why = reason.Get();
    if (why.IsEmpty() && lastError != 0)
    {
        code = lastError;
        why = CWinError::GetText(lastError);
    }
    CString text;
    text.Format(why.IsEmpty() ? _T("no provider for '%s'%s") : _T("no provider for '%s': %s"), config, why);
    ReportError(code, text);
    return nullptr;
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
    // On the root it gets every command, whole.
    CMsgProvider * const provider = MountProvider(_T(""), kvx::FromUtf8(connection));
    bool const bPinned = !dynamic_cast<CMsgRelayProvider *>(provider); // a relay doesn't care
    m_pProvider = bPinned ? dynamic_cast<CMsgConnectionProvider *>(provider) : nullptr;
    return provider != nullptr;
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

bool Endpoint::Break(CMsgConnection * connection)
{
    if (connection)
    {
        return connection->Disconnect() != 0;
    }
    if (m_host)
    {
        m_host->Stop();
    }
    return m_host != nullptr;
}
