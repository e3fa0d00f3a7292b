#include "Commands.h"
#include "DisplayText.h"
#include "Endpoint.h"
#include "Output.h"

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/platform/Terminal.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <CLI/App.hpp>

#include <cstdio>
#include <memory>

namespace
{
constexpr DWORD LOOK = 500; // milliseconds between two looks at a listener that nobody stops

struct ServeOptions
{
    std::string strListener;
    std::string strLog;
    bool bVerbose = false;
};

int Fail(DWORD code, CString const & text)
{
    ReportError(code, text);
    return 1;
}

/// One line for each request: its command, its parameters and how it ended.
void LogRequest(CMsgListenerEvent * event, void *)
{
    constexpr std::size_t VALUE_SHOWN = 200;
    CMsgRequest * const request = event->m_pRequest;
    if (event->m_nType != CMsgListenerEvent::AFTER_DISPATCH || !request)
    {
        return;
    }
    std::string line = ToDisplay(request->GetCommand()).strText;
    CString name;
    CString value;
    for (POSITION pos = request->GetStartParamPosition(); pos;)
    {
        request->GetNextParam(pos, name, value);
        line += ' ' + ToDisplay(name).strText + '=' + ToDisplay(value.AsView().substr(0, VALUE_SHOWN)).strText;
        line += value.AsView().size() > VALUE_SHOWN ? "..." : "";
    }
    CMsgResponse const & response = request->GetResponse();
    CString const ending = request->DiscardResults() ? CString(_T(" (one-way)")) : CString();
    if (response.Succeeded())
    {
        LogInfo(_T("%s%s"), kvx::FromUtf8(line), ending);
    }
    else
    {
        LogWarning(_T("%s%s: error %u: %s"), kvx::FromUtf8(line), ending, response.GetErrorCode(),
                   kvx::FromUtf8(ToDisplay(response.GetErrorText()).strText));
    }
}

bool OpenLog(ServeOptions const & options)
{
    if (!options.strLog.empty())
    {
        CString const path = kvx::FromUtf8(options.strLog);
        // The sink itself tells nobody when its file can't be opened.
        CFile file;
        CFileException problem;
        if (!file.Open(path, CFile::modeCreate | CFile::modeNoTruncate | CFile::modeWrite | CFile::shareDenyNone,
                       &problem))
        {
            CString text;
            auto const code = static_cast<DWORD>(problem.m_lOsError);
            text.Format(_T("cannot write the log '%s': %s"), path, CWinError::GetText(code));
            ReportError(code, text);
            return false;
        }
        CLogManager::GetInstance()->RegisterSink(new CFileLog(path, 0, LOG_ALL), 1);
    }
    if (options.bVerbose)
    {
        CLogManager::GetInstance()->RegisterSink(new CConsoleLog(GetStdHandle(STD_ERROR_HANDLE)), 1);
        CMsgListener::SetEventProc(&LogRequest, nullptr);
    }
    return true;
}

/// The configuration that clients connect with: of port 0 nobody would know what it came to.
CString GetReadyText(CMsgListener * listener, CString const & config)
{
    auto const * const tcp = dynamic_cast<CMsgTCPListener *>(listener);
    if (!tcp || tcp->GetPort() != 0)
    {
        return config;
    }
    CString text;
    text.Format(_T("tcp:%S:%u"), tcp->GetServer(), tcp->GetListeningPort());
    return text;
}

bool HasEnded(CMsgListener * listener)
{
    auto const * const tcp = dynamic_cast<CMsgTCPListener *>(listener);
    return tcp && tcp->GetListeningPort() == 0;
}

/// Returns when the service is to end.
int Serve(CMsgListener * listener, CString const & config)
{
    // The listening may have to wait for a start event.
    while (!listener->WaitUntilListening(LOOK))
    {
        DWORD const code = GetLastError();
        if (code != ERROR_TIMEOUT)
        {
            CString text;
            text.Format(_T("cannot listen on '%s': %s%s"), config, CWinError::GetText(code),
                        code == WSAEINVAL ? _T(" (is the host known?)") : _T(""));
            return Fail(code, text);
        }
        if (kvx::WaitForEndSignal(0))
        {
            return 0;
        }
    }
    std::printf("READY %s\n", kvx::ToUtf8(GetReadyText(listener, config)).c_str());
    std::fflush(stdout);
    while (!kvx::WaitForEndSignal(LOOK))
    {
        if (HasEnded(listener))
        {
            return Fail(ERROR_OPERATION_ABORTED, _T("the listener has ended: it can accept no more clients"));
        }
    }
    LogInfo(_T("Asked to end"));
    return 0;
}

int RunServe(ServeOptions const & options)
{
    CString const config = kvx::FromUtf8(options.strListener);
    if (CString const problem = CheckConfiguration(config); !problem.IsEmpty())
    {
        return Fail(ERROR_INVALID_PARAMETER, problem);
    }
    if (!OpenLog(options))
    {
        return 1;
    }
    if (!kvx::CatchEndSignals())
    {
        return Fail(GetLastError(), CWinError::GetLastErrorText());
    }
    HostProviders host;
    CMsgDispatcher * const dispatcher = CMsgDispatcher::GetInstance();
    CMsgListener * const listener = dispatcher->RegisterListener(_T(""), config, 1);
    if (!listener)
    {
        return Fail(ERROR_INVALID_PARAMETER, _T("no listener for '") + config + _T("'"));
    }
    int const status = Serve(listener, config);
    host.Stop(); // sleepers would hold up their sessions
    listener->StopListener();
    CMsgListener::SetEventProc(nullptr, nullptr);
    dispatcher->ShutDownNotificationQueue(1);
    return status;
}
} // namespace

void AddServeCommand(CLI::App & app, Run & run)
{
    auto const options = std::make_shared<ServeOptions>();
    CLI::App * const command = app.add_subcommand("serve", "Serve the commands below 'host' until SIGINT or SIGTERM");
    command->add_option("LISTENER", options->strListener, "tcp:HOST:PORT; port 0 takes a free one")->required();
    command->add_option("--log", options->strLog, "Append the log to this file");
    command->add_flag("--verbose", options->bVerbose, "Log each request, and show the log on stderr");
    command->footer("Prints 'READY LISTENER' once it accepts clients.\n"
                    "\n"
                    "Commands:\n"
                    "  host.info.get                          the machine, this process and the library\n"
                    "  host.files.list path= [pattern=] [limit=]\n"
                    "                                         what is in a folder\n"
                    "  host.table.get rows= columns=          a table of short texts\n"
                    "  host.echo [NAME=VALUE ...]             the parameters, and the row sets of the request\n"
                    "  host.count [add=]                      adds to a counter, and answers it\n"
                    "  host.sleep ms=                         answers after that time\n"
                    "  host.fail code= [text=]                answers with that error\n"
                    "\n"
                    "Examples:\n"
                    "  kvx serve tcp:127.0.0.1:4100\n"
                    "  kvx serve tcp:0.0.0.0:0 --log kvx.log --verbose");
    command->callback([&run, options] { run = [options] { return RunServe(*options); }; });
}
