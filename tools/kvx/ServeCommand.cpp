#include "CommandLine.h"
#include "Commands.h"
#include "DisplayText.h"
#include "Endpoint.h"
#include "FileNames.h"
#include "Output.h"
#include "SqlProvider.h"

#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgForwardProvider.h"
#include "kvx/platform/Terminal.h"
#include "kvx/transport/MsgPipeFactory.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <CLI/App.hpp>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace
{
constexpr DWORD LOOK = 500;      // milliseconds between two looks at listeners that nobody stops
constexpr DWORD START_LOOK = 20; // milliseconds, while one still begins

struct ServeOptions
{
    std::vector<std::string> listeners;
    std::vector<std::string> providers; // PATH=CONFIG
    std::vector<std::string> databases; // PATH=FILE
    SqlLimits sqlLimits;                // of each database
    std::string strLog;
    bool bVerbose = false;
    CMsgListener::Limits limits; // of each listener

    ServeOptions()
    {
        limits.nMaxMessageBytes = ULONGLONG{64} << 20;
        limits.nMaxClients = 1000;
        limits.nMaxBacklog = 10'000;
    }
};

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
    // A connection that was taken over for a subscription has its response already.
    bool const bOneWay = request->DiscardResults() && request->KeepAlive();
    CString const ending = bOneWay ? CString(_T(" (one-way)")) : CString();
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

/// The log on stderr. The library logs what others have sent.
class CErrorLog : public CLogSink
{
public:
    CErrorLog() : CLogSink(LOG_ALL) {}
    void Append(CLogEvent * event) override { WriteError(ToDisplay(event->m_strBuilt).strText + "\n"); }
};

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
        CLogManager::GetInstance()->RegisterSink(new CErrorLog, 1);
        CMsgListener::SetEventProc(&LogRequest, nullptr);
    }
    return true;
}

CMsgProvider * BehindForwarders(CMsgProvider * provider)
{
    while (auto const * const forwarder = dynamic_cast<CMsgForwardProvider *>(provider))
    {
        provider = forwarder->GetInner();
    }
    return provider;
}

class Service
{
public:
    Service() = default;
    Service(Service const &) = delete;
    /// Requests end before their listeners, and subscriptions before both. Those that wait for another service wait no
    /// longer.
    ~Service()
    {
        m_host.Stop();
        for (CSqlProvider * const database : m_databases)
        {
            database->StopProvider();
        }
        AwaitDatabases();
        for (CMsgProvider * const provider : m_mounted)
        {
            if (auto * const connector = dynamic_cast<CMsgConnectionProvider *>(BehindForwarders(provider)))
            {
                connector->StopProvider();
            }
        }
        for (Listener const & listener : m_listeners)
        {
            listener.pListener->StopListener();
        }
        CMsgListener::SetEventProc(nullptr, nullptr);
        CMsgDispatcher::GetInstance()->ShutDownNotificationQueue(1);
        for (CMsgProvider * const provider : m_mounted)
        {
            provider->StopProvider();
        }
    }

    bool Mount(std::string_view pathAndConfig);
    bool MountDatabase(std::string_view pathAndFile, SqlLimits const & limits);
    bool Listen(CString const & config, CMsgListener::Limits const & limits);
    /// Returns when the service is to end, with the exit status.
    int Run();

private:
    struct Listener
    {
        CString strConfig;
        CMsgListener * pListener; // the tree's
        bool bReady = false;

        CString GetReadyText() const;
        bool IsReady(DWORD timeout, DWORD & code);
    };

    HostProviders m_host;
    std::vector<Listener> m_listeners;
    std::vector<CMsgProvider *> m_mounted;   // the tree's
    std::vector<CSqlProvider *> m_databases; // the tree's

    void AwaitDatabases();
    bool Start();
    bool AwaitReady(DWORD timeout, bool & bAllReady);
    bool AreAlive();
};

/// What the engine does at a stretch can't be ended from outside. Files that it leaves at such a moment come to no
/// harm.
void Service::AwaitDatabases()
{
    static constexpr std::chrono::milliseconds GRACE(3000);
    if (!std::ranges::all_of(m_databases, [](CSqlProvider * database) { return database->AwaitEnd(GRACE); }))
    {
        ReportError(ERROR_TIMEOUT, _T("a statement doesn't end: it is left alone"));
        std::_Exit(1);
    }
}

bool Service::Mount(std::string_view pathAndConfig)
{
    auto const equals = pathAndConfig.find('=');
    CMsgProvider * const provider =
        MountProvider(kvx::FromUtf8(pathAndConfig.substr(0, equals)), kvx::FromUtf8(pathAndConfig.substr(equals + 1)));
    if (provider)
    {
        m_mounted.push_back(provider);
    }
    return provider != nullptr;
}

bool Service::MountDatabase(std::string_view pathAndFile, SqlLimits const & limits)
{
    auto const equals = pathAndFile.find('=');
    std::string const file(pathAndFile.substr(equals + 1));
    // Whole, so that no name has a meaning of its own to the engine.
    std::error_code ignored;
    auto provider = std::make_unique<CSqlProvider>(FromPath(std::filesystem::absolute(ToPath(file), ignored)), limits);
    auto failure = provider->Open();
    if (failure)
    {
        ReportError(failure->nCode,
                    _T("cannot open the database '") + kvx::FromUtf8(file) + _T("': ") + failure->strText);
        return false;
    }
    m_databases.push_back(provider.release());
    CString const path = kvx::FromUtf8(pathAndFile.substr(0, equals));
    return CMsgDispatcher::GetInstance()->RegisterProvider(path, m_databases.back(), 1) != 0;
}

bool Service::Listen(CString const & config, CMsgListener::Limits const & limits)
{
    CMsgListener * const listener = CMsgDispatcher::GetInstance()->RegisterListener(_T(""), config, 0);
    if (!listener)
    {
        ReportError(ERROR_INVALID_PARAMETER, _T("nothing can listen on '") + config + _T("'"));
        return false;
    }
    listener->SetLimits(limits);
    m_listeners.push_back({config, listener});
    return true;
}

/// What was given, with the port that a port 0 has come to.
CString Service::Listener::GetReadyText() const
{
    auto const * const tcp = dynamic_cast<CMsgTCPListener const *>(pListener);
    if (!tcp || tcp->GetPort() != 0)
    {
        return strConfig;
    }
    CString const event = strConfig.Left(strConfig.Find(';') + 1);
    CString text;
    text.Format(_T("%stcp:%S:%u"), event, tcp->GetServer(), tcp->GetListeningPort());
    return text;
}

/// False with a code that isn't 0 if it can't listen.
bool Service::Listener::IsReady(DWORD timeout, DWORD & code)
{
    code = 0;
    if (pListener->WaitUntilListening(timeout))
    {
        return true;
    }
    DWORD const lastError = GetLastError();
    code = lastError == ERROR_TIMEOUT ? 0 : lastError;
    return false;
}

bool Service::Start()
{
    // Not a pipe's own start, which waits up to a minute for what AwaitReady looks at.
    for (Listener const & listener : m_listeners)
    {
        if (!listener.pListener->CMsgListener::StartListener())
        {
            ReportSystemError(GetLastError());
            return false;
        }
    }
    return true;
}

/// Says which have become ready. A listener may have to wait for a start event while others serve. False, with an error
/// line, if one can't listen or nothing can be said.
bool Service::AwaitReady(DWORD timeout, bool & bAllReady)
{
    bAllReady = true;
    for (Listener & listener : m_listeners)
    {
        if (listener.bReady)
        {
            continue;
        }
        DWORD code = 0;
        listener.bReady = listener.IsReady(bAllReady ? timeout : 0, code);
        if (code != 0)
        {
            CString text;
            text.Format(_T("cannot listen on '%s': %s%s"), listener.strConfig, CWinError::GetText(code),
                        code == WSAEINVAL ? _T(" (is the host known?)") : _T(""));
            ReportError(code, text);
            return false;
        }
        if (listener.bReady)
        {
            StandardOutput out;
            out << "READY " << ToStdout(listener.GetReadyText()).strText << "\n";
            if (ReportWritten(out.Finish()) != 0) // a reader that has gone keeps nobody from being served
            {
                return false;
            }
        }
        bAllReady = bAllReady && listener.bReady;
    }
    return true;
}

/// A client that dies at the wrong moment ends a listener on anonymous pipes: such a one begins again.
bool Service::AreAlive()
{
    for (Listener const & listener : m_listeners)
    {
        if (!listener.bReady || listener.pListener->IsListening())
        {
            continue;
        }
        DWORD code = ERROR_OPERATION_ABORTED;
        if (dynamic_cast<CMsgPipeListener *>(listener.pListener))
        {
            LogWarning(_T("The listener '%s' has ended and begins again"), listener.strConfig);
            listener.pListener->StopListener();
            if (listener.pListener->CMsgListener::StartListener() && listener.pListener->WaitUntilListening(LOOK))
            {
                continue;
            }
            code = GetLastError();
        }
        ReportError(code, _T("the listener '") + listener.strConfig + _T("' has ended: it can accept no more clients"));
        return false;
    }
    return true;
}

int Service::Run()
{
    if (!Start())
    {
        return 1;
    }
    for (bool bAllReady = false; !kvx::WaitForEndSignal(bAllReady ? LOOK : 0);)
    {
        if ((!bAllReady && !AwaitReady(START_LOOK, bAllReady)) || !AreAlive())
        {
            return 1;
        }
    }
    LogInfo(_T("Asked to end"));
    return 0;
}

int RunServe(ServeOptions options)
{
    if (options.limits.nMaxBacklog == 0)
    {
        options.limits.nMaxBacklogBytes = 0;
    }
    if (!OpenLog(options))
    {
        return 1;
    }
    if (!kvx::CatchEndSignals())
    {
        return ReportSystemError(GetLastError());
    }
    Service service;
    bool const bGood = std::ranges::all_of(options.providers, [&](auto const & text) { return service.Mount(text); }) &&
                       std::ranges::all_of(options.databases, [&](auto const & text)
                                           { return service.MountDatabase(text, options.sqlLimits); }) &&
                       std::ranges::all_of(options.listeners, [&](auto const & text)
                                           { return service.Listen(kvx::FromUtf8(text), options.limits); });
    return bGood ? service.Run() : 1;
}

bool BeginsWithPath(std::string const & word)
{
    auto const equals = word.find('=');
    std::string const path = word.substr(0, equals);
    bool const bPath = !path.empty() && path.front() != '.' && path.back() != '.' && path.find("..") == path.npos;
    return bPath && equals != word.npos && equals + 1 < word.size();
}

std::string CheckMount(std::string const & word)
{
    return BeginsWithPath(word) ? kvx::ToUtf8(CheckConnection(kvx::FromUtf8(word.substr(word.find('=') + 1))))
                                : "'" + word + "' is no PATH=CONNECTION";
}

std::string CheckDatabase(std::string const & word)
{
    return BeginsWithPath(word) ? std::string() : "'" + word + "' is no PATH=FILE";
}

/// A second one would take the place of the first.
void CheckPaths(ServeOptions const & options)
{
    std::vector<CString> known{_T("host")};
    for (std::string const & word : options.databases)
    {
        CString const path = kvx::FromUtf8(std::string_view(word).substr(0, word.find('=')));
        if (std::ranges::any_of(known, [&](CString const & other) { return path.CompareNoCase(other) == 0; }))
        {
            throw CLI::ValidationError("--sql", "the path '" + kvx::ToUtf8(path) + "' is taken");
        }
        known.push_back(path);
    }
}
} // namespace

void AddServeCommand(CLI::App & app, Run & run)
{
    auto const options = std::make_shared<ServeOptions>();
    CLI::App * const command = app.add_subcommand("serve", "Serve the commands below 'host' until SIGINT or SIGTERM");
    command->add_option("LISTENER", options->listeners, "Where clients connect: one or more, see below")
        ->required()
        ->check([](std::string const & word) { return kvx::ToUtf8(CheckListener(kvx::FromUtf8(word))); });
    command
        ->add_option("--provider", options->providers,
                     "Have commands below PATH served by CONNECTION; may be given again")
        ->type_name("PATH=CONNECTION")
        ->allow_extra_args(false)
        ->check(&CheckMount);
    command
        ->add_option(
            "--sql", options->databases,
            "Run the SQL of PATH.exec_sql on this SQLite file, which is made if it is missing; may be given again")
        ->type_name("PATH=FILE")
        ->allow_extra_args(false)
        ->check(&CheckDatabase);
    command->add_flag("--sql-readonly", options->sqlLimits.bReadOnly, "Have nothing changed in these files");
    AddSize(*command, "--max-message", options->limits.nMaxMessageBytes,
            "End the session of a client that sends a longer message; 0 for no limit");
    auto const addCount = [&](char const * name, DWORD & target, char const * help)
    {
        command->add_option(name, target, help)
            ->check(CLI::Range(0, 2'000'000'000))
            ->type_name("N")
            ->capture_default_str();
    };
    addCount("--max-clients", options->limits.nMaxClients,
             "Disconnect those that come while a listener has so many; 0 for no limit");
    addCount("--max-backlog", options->limits.nMaxBacklog,
             "Read no further while so many one-way requests wait, or 8M of them; 0 for no limit");
    addCount("--sql-timeout", options->sqlLimits.nTimeout,
             "End statements that take so many milliseconds; 0 for no limit");
    addCount("--sql-max-rows", options->sqlLimits.nMaxRows, "Refuse results that have more rows; 0 for no limit");
    AddSize(*command, "--sql-max-bytes", options->sqlLimits.nMaxBytes,
            "Refuse results that have more bytes; 0 for no limit");
    AddSize(*command, "--sql-max-value", options->sqlLimits.nMaxValueBytes, "Refuse longer values; 0 for no limit");
    AddSize(*command, "--sql-max-memory", options->sqlLimits.nMaxMemory,
            "Refuse what has the engine take more memory, all of it together; 0 for no limit");
    command->add_option("--log", options->strLog, "Append the log to this file");
    command->add_flag("--verbose", options->bVerbose, "Log each request, and show the log on stderr");
    command->footer("Prints 'READY LISTENER' for each listener once it accepts clients.\n"
                    "\n"
                    "Listeners:\n"
                    "  tcp:HOST:PORT            port 0 takes a free one\n"
                    "  nt_pipe:NAME             a named pipe of this machine, also local_pipe:NAME\n"
                    "  local_apipe:NAME         such a pipe with texts of one byte a character\n"
                    "  9x_pipe:NAME             anonymous pipes, found through the registry\n"
                    "  event:EVENT;LISTENER     begins when that event, if there is one, is set\n"
                    "\n"
                    "Commands:\n"
                    "  host.info.get            the machine, this process and the library\n"
                    "  host.files.list          what is in a folder: path= [pattern=] [limit=]\n"
                    "  host.table.get           a table of short texts: rows= columns=\n"
                    "  host.echo                the parameters, and the row sets of the request\n"
                    "  host.count               adds to a counter, and answers it: [add=]\n"
                    "  host.sleep               answers after that time: ms=\n"
                    "  host.fail                answers with that error: code= [text=]\n"
                    "  host.subscribe           events= host.tick each second, host.log for each line of the log: see "
                    "kvx watch\n"
                    "\n"
                    "  PATH.exec_sql            runs one statement: sql= [:name= p1=] [nulls=] [blobs=] [script=1] "
                    "[null=]: see kvx sql\n"
                    "\n"
                    "Examples:\n"
                    "  kvx serve tcp:127.0.0.1:4100 nt_pipe:kvx\n"
                    "  kvx serve nt_pipe:data --sql people=people.sqlite\n"
                    "  kvx serve tcp:0.0.0.0:0 --log kvx.log --verbose\n"
                    "  kvx serve nt_pipe:hop --provider far=forward:relay:tcp:127.0.0.1:4100\n"
                    "  kvx call nt_pipe:hop far.host.info.get\n"
                    "\n" +
                    std::string(CONNECTION_HELP) +
                    "\n"
                    "A mounted connection gets commands whole; forward: takes the first word of PATH off.");
    command->callback(
        [&run, options]
        {
            CheckPaths(*options);
            run = [options] { return RunServe(*options); };
        });
}
