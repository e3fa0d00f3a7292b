#include "CommandLine.h"
#include "Commands.h"
#include "DisplayText.h"
#include "Endpoint.h"
#include "Output.h"

#include "kvx/events/MsgSubscriber.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/platform/Terminal.h"
#include "kvx/threads/ThreadPool.h"

#include <CLI/App.hpp>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>

namespace
{
struct WatchOptions
{
    std::string strConnection;
    std::string strEvents;
    Format format = Format::Line;
    int nCount = 0; // 0 for no end
};

unsigned int RunFunction(void * function)
{
    std::unique_ptr<std::function<void()>> const owner(static_cast<std::function<void()> *>(function));
    (*owner)();
    return 0;
}

/// Runs what may block for longer than this program is to wait.
bool BeginAside(std::function<void()> work)
{
    auto owner = std::make_unique<std::function<void()>>(std::move(work));
    bool const bStarted = CThreadPool::BeginThread(&RunFunction, owner.get(), 0) != nullptr;
    if (bStarted)
    {
        owner.release(); // the thread's now
    }
    return bStarted;
}

/// A subscription, and what arrives on it. Nothing is destroyed while a thread is still in it: the program then ends
/// without that.
class Watch
{
public:
    explicit Watch(WatchOptions const & options)
        : m_options(options), m_strConnection(kvx::FromUtf8(options.strConnection))
    {
        // On the root it gets whatever there is no other target for, which is everything.
        CMsgDispatcher::GetInstance()->RegisterProvider(_T(""), &OnEvent, this);
        m_subscriber.SetReconnectProc(&OnLost, this);
    }
    Watch(Watch const &) = delete;

    int Run();

private:
    WatchOptions const & m_options;
    CString m_strConnection;
    CMsgRequest m_request;
    CEvent m_answered{FALSE, TRUE};
    CEvent m_enough{FALSE, TRUE};
    CEvent m_stop{FALSE, TRUE};
    CEvent m_ended{FALSE, TRUE};
    bool m_bSubscribed = false;
    int m_nShown = 0;
    Written m_written = Written::Whole;
    CMsgSubscriber m_subscriber; // the last: its thread uses the others

    bool Subscribe();
    static bool WaitOrEnd(CEvent & event);
    static void OnEvent(CMsgRequest & event, void * watch);
    void Show(CMsgRequest const & event);
    static void OnLost(CMsgSubscriber * subscriber, void * watch);
    void Reconnect();
    void Say(char const * what) const;
};

/// False when the user wants to end.
bool Watch::WaitOrEnd(CEvent & event)
{
    constexpr DWORD LOOK = 100; // milliseconds
    while (!event.Lock(LOOK))
    {
        if (kvx::WaitForEndSignal(0))
        {
            return false;
        }
    }
    return true;
}

int Watch::Run()
{
    bool const bStarted = BeginAside(
        [this]
        {
            m_request[_T("events")] = kvx::FromUtf8(m_options.strEvents);
            m_request.SetCommand(_T("host.subscribe"));
            m_bSubscribed = m_subscriber.Connect(m_request, m_strConnection, 0) != 0;
            m_answered.SetEvent();
        });
    if (!bStarted)
    {
        ReportSystemError(GetLastError());
        return 1;
    }
    if (!WaitOrEnd(m_answered))
    {
        std::_Exit(0); // it may connect for long
    }
    if (!m_bSubscribed)
    {
        CMsgResponse const & response = m_request.GetResponse();
        bool const bTold = response.Failed();
        ReportError(bTold ? response.GetErrorCode() : DWORD{ERROR_NOT_SUPPORTED},
                    bTold ? response.GetErrorText() : _T("'") + m_strConnection + _T("' carries no subscriptions"));
        return 1;
    }
    WaitOrEnd(m_enough);
    m_stop.SetEvent();
    BeginAside(
        [this]
        {
            m_subscriber.Disconnect();
            m_ended.SetEvent();
        });
    constexpr DWORD PATIENCE = 2000; // milliseconds
    bool const bEnded = m_ended.Lock(PATIENCE) != 0;
    int const status = ReportWritten(m_written);
    if (!bEnded)
    {
        std::_Exit(status); // it may look a host up
    }
    return status;
}

void Watch::OnEvent(CMsgRequest & event, void * watch)
{
    event.SetHandled(1);
    static_cast<Watch *>(watch)->Show(event);
}

/// On the subscriber's thread, one at a time.
void Watch::Show(CMsgRequest const & event)
{
    if (m_written != Written::Whole || (m_options.nCount > 0 && m_nShown == m_options.nCount))
    {
        return;
    }
    m_written = PrintEvent(event, m_options.format);
    if (++m_nShown == m_options.nCount || m_written != Written::Whole)
    {
        m_enough.SetEvent();
    }
}

void Watch::OnLost(CMsgSubscriber *, void * watch)
{
    static_cast<Watch *>(watch)->Reconnect();
}

void Watch::Reconnect()
{
    constexpr DWORD PAUSE = 100; // milliseconds
    if (m_stop.Lock(0) || m_enough.Lock(0))
    {
        m_stop.Lock(INFINITE); // the subscriber is about to be told
        return;
    }
    Say("lost: trying to connect again");
    while (!m_stop.Lock(PAUSE))
    {
        CMsgRequest request;
        request.SetCommand(m_subscriber.GetCommand());
        request.SetParams(m_subscriber.GetParameters());
        if (m_subscriber.Reconnect(request))
        {
            Say("back");
            return;
        }
    }
}

void Watch::Say(char const * what) const
{
    WriteError(ToDisplay(m_strConnection).strText + " " + what + "\n");
}

int RunWatch(WatchOptions const & options)
{
    if (!kvx::CatchEndSignals())
    {
        ReportSystemError(GetLastError());
        return 1;
    }
    Watch watch(options);
    return watch.Run();
}
} // namespace

void AddWatchCommand(CLI::App & app, Run & run)
{
    auto const options = std::make_shared<WatchOptions>();
    CLI::App * const command = app.add_subcommand("watch", "Subscribe to events of a service and show what arrives");
    command->add_option("CONNECTION", options->strConnection, "tcp:HOST:PORT, nt_pipe:NAME, 9x_pipe:NAME, ...")
        ->required()
        ->check([](std::string const & word) { return kvx::ToUtf8(CheckConnection(kvx::FromUtf8(word))); });
    command->add_option("EVENTS", options->strEvents, "Names with commas between them: host.tick,host.log")->required();
    AddChoice<Format>(*command, "--format", options->format, "How an event is shown",
                      {{"line", Format::Line}, {"json", Format::Json}});
    command->add_option("--count", options->nCount, "End after that many events")
        ->check(CLI::Range(1, 2'000'000'000))
        ->type_name("N");
    command->footer(
        "Ends with status 0 after --count events, on SIGINT or SIGTERM, or when the reader of stdout goes away; with 1 "
        "if it can't subscribe. When the service goes away it waits until that is back, and says both on stderr.\n"
        "\n"
        "A line is the event's name and its parameters, NAME=VALUE, sorted by name. JSON is\n"
        "  {\"event\":\"\",\"params\":{\"NAME\":\"VALUE\"},\"rowsets\":[]}\n"
        "one event a line, with row sets as kvx call has them.\n"
        "\n"
        "Events of kvx serve:\n"
        "  host.tick   each second: number, time\n"
        "  host.log    a line of its log: type (I, W, E, V), time, text\n"
        "\n"
        "Examples:\n"
        "  kvx watch tcp:127.0.0.1:4100 host.tick --count 3\n"
        "  kvx watch nt_pipe:kvx host.tick,host.log --format json");
    command->callback([&run, options] { run = [options] { return RunWatch(*options); }; });
}
