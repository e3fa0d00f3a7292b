#include "Commands.h"
#include "Endpoint.h"
#include "Output.h"

#include "kvx/threads/ThreadPool.h"

#include <CLI/App.hpp>

#include <cstdlib>
#include <memory>

namespace
{
struct CallOptions
{
    CallWords words;
    Format format = Format::Table;
    bool bOneWay = false;
    DWORD nTimeout = 0; // milliseconds, 0 for none
};

/// A call on a thread of its own.
struct TimedCall
{
    CMsgRequest request;
    CEvent done{FALSE, TRUE};

    static unsigned int Proc(void * param)
    {
        auto * const call = static_cast<TimedCall *>(param);
        call->request.Execute();
        call->done.SetEvent();
        return 0;
    }
};

/// Waits for the call, and breaks it off when its time is over. False if it could not be broken off (a look-up of a
/// host name can't): then its thread still uses it.
bool WaitForCall(TimedCall & call, DWORD timeout, Endpoint & endpoint, bool & bInTime)
{
    constexpr DWORD STEP = 20; // milliseconds
    constexpr int STEPS = 50;
    bInTime = call.done.Lock(timeout) != 0;
    for (int step = 0; !bInTime && step < STEPS && endpoint.Break(call.request.GetConnection()); ++step)
    {
        if (call.done.Lock(STEP))
        {
            return true;
        }
    }
    return bInTime;
}

int RunTimedCall(CallOptions const & options, Endpoint & endpoint, std::unique_ptr<TimedCall> call)
{
    call->request.SetConnection(endpoint.NewConnection());
    if (!CThreadPool::BeginThread(&TimedCall::Proc, call.get(), 0))
    {
        ReportError(GetLastError(), CWinError::GetLastErrorText());
        return 1;
    }
    bool bInTime = false;
    bool const bEnded = WaitForCall(*call, options.nTimeout, endpoint, bInTime);
    if (bInTime)
    {
        return PrintResponse(call->request.GetResponse(), options.format);
    }
    CMsgResponse late;
    late.SetError(ERROR_TIMEOUT, _T("No answer within %u ms"), options.nTimeout);
    int const status = PrintResponse(late, options.format);
    if (!bEnded)
    {
        std::_Exit(status);
    }
    return status;
}

int RunCall(CallOptions const & options)
{
    Endpoint endpoint;
    if (!endpoint.Open(options.words.strConnection))
    {
        return 1;
    }
    auto call = std::make_unique<TimedCall>();
    options.words.Fill(call->request);
    call->request.DiscardResults(options.bOneWay);
    if (options.nTimeout > 0)
    {
        return RunTimedCall(options, endpoint, std::move(call));
    }
    return PrintResponse(call->request.Execute(), options.format);
}
} // namespace

void AddCallCommand(CLI::App & app, Run & run)
{
    auto const options = std::make_shared<CallOptions>();
    CLI::App * const command = app.add_subcommand("call", "Send one request and show the response");
    options->words.AddTo(*command);
    command->add_flag("--oneway", options->bOneWay, "Send the request and read no response");
    AddFormatOption(*command, options->format);
    command->add_option("--timeout", options->nTimeout, "Give up with error 1460 after that many milliseconds")
        ->check(CLI::Range(1, 2'000'000'000))
        ->type_name("MS");
    command->footer("Examples:\n"
                    "  kvx call tcp:127.0.0.1:4100 host.info.get\n"
                    "  kvx call nt_pipe:kvx host.info.get\n"
                    "  kvx call tcp:127.0.0.1:4100 host.files.list path=/usr --format csv\n"
                    "  kvx call tcp:127.0.0.1:4100 host.count add=1 --oneway\n"
                    "  kvx call tcp:127.0.0.1:4100 host.sleep ms=5000 --timeout 1000\n"
                    "\n"
                    "JSON is, on failure too,\n"
                    "  {\"code\":0,\"text\":\"\",\"rowsets\":[{\"name\":\"\",\"columns\":[],\"rows\":[[]]}]}\n"
                    "Words behind -- are no options: kvx call tcp:HOST:PORT host.echo -- -x=1\n"
                    "\n" +
                    std::string(CONNECTION_HELP));
    command->callback([&run, options] { run = [options] { return RunCall(*options); }; });
}
