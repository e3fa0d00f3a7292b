// Prints the news until they end, and stays subscribed when the publisher starts anew:  example_subscriber nt_pipe:news

#include "kvx/events/MsgSubscriber.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/platform/Terminal.h"

#include <cstdio>

static void OnLine(CMsgRequest & request, void *)
{
    std::puts(kvx::ToUtf8(request[_T("text")]).c_str());
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
    dispatcher.RegisterProvider(_T("news.line"), &OnLine, nullptr);
    dispatcher.RegisterProvider(_T("news.end"), &OnEnd, &ended);

    CMsgRequest request;
    request.SetCommand(_T("news.subscribe"));
    CMsgSubscriber subscriber;
    if (args.size() != 1 || !subscriber.Connect(request, kvx::FromUtf8(args[0]), 0))
    {
        std::fprintf(stderr, "Can't subscribe. %s\n", kvx::ToUtf8(request.GetResponse().GetErrorText()).c_str());
        return 1;
    }
    std::puts("Listening.");
    std::fflush(stdout);
    ended.Lock(INFINITE);
    subscriber.Disconnect(); // its thread is done with what stands on this stack
    return 0;
}
