// Prints what the announcer fires, until it ends:  example_watcher nt_pipe:announcer

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/platform/Terminal.h"
#include "kvx/transport/MsgListener.h"

#include <cstdio>

static void OnLine(CMsgRequest & event, void *)
{
    std::puts(kvx::ToUtf8(event[_T("text")]).c_str());
    std::fflush(stdout);
}

static void OnEnd(CMsgRequest &, void * ended)
{
    static_cast<CEvent *>(ended)->SetEvent();
}

int main(int argc, char ** argv)
{
    auto const args = kvx::GetProgramArguments(argc, argv);
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    CEvent ended(FALSE, TRUE);
    dispatcher.RegisterProvider(_T("watcher.line"), &OnLine, nullptr);
    dispatcher.RegisterProvider(_T("watcher.over"), &OnEnd, &ended);

    // Events come as requests, so this end listens too, and says where.
    CString connector;
    connector.Format(_T("nt_pipe:example-watcher-%u"), GetCurrentProcessId());
    CMsgListener * const listener = dispatcher.RegisterListener(_T(""), connector, 1);
    if (args.size() != 1 || !dispatcher.RegisterProvider(_T("announcer"), kvx::FromUtf8(args[0]), 1) ||
        !listener->WaitUntilListening(INFINITE))
    {
        std::fputs("Tell me where the announcer listens, for example nt_pipe:announcer\n", stderr);
        return 1;
    }

    CMsgRequest request;
    request[_T("connector")] = connector;
    request[_T("path")] = _T("watcher");
    request[_T("events")] = _T("line,end=over"); // "line" as "watcher.line", "end" as "watcher.over"
    CMsgResponse const & response = request.Execute(_T("announcer.watch"));
    if (response.Succeeded())
    {
        std::puts("Listening.");
        std::fflush(stdout);
        ended.Lock(INFINITE);
    }
    else
    {
        std::fprintf(stderr, "%s\n", kvx::ToUtf8(response.GetErrorText()).c_str());
    }
    listener->StopListener();
    return response.Succeeded() ? 0 : 1;
}
