#include "Commands.h"
#include "Endpoint.h"
#include "Output.h"
#include "PendingCall.h"

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

int RunTimedCall(CallOptions const & options, Endpoint & endpoint)
{
    auto const call = PendingCall::Start(endpoint, endpoint.NewConnection(),
                                         [&](CMsgRequest & request)
                                         {
                                             options.words.Fill(request);
                                             request.DiscardResults(options.bOneWay);
                                         });
    if (!call)
    {
        return 1;
    }
    auto const end = call->Wait(options.nTimeout);
    if (end == PendingCall::End::Answered)
    {
        return PrintResponse(call->GetResponse(), options.format);
    }
    CMsgResponse late;
    late.SetError(ERROR_TIMEOUT, _T("No answer within %u ms"), options.nTimeout);
    int const status = PrintResponse(late, options.format);
    if (end == PendingCall::End::Stuck)
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
    if (options.nTimeout > 0)
    {
        return RunTimedCall(options, endpoint);
    }
    CMsgRequest request;
    options.words.Fill(request);
    request.DiscardResults(options.bOneWay);
    return PrintResponse(request.Execute(), options.format);
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
