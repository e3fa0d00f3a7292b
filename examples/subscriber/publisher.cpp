// Publishes each line that is typed, until the input ends:  example_publisher nt_pipe:news

#include "kvx/events/MsgPublisher.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgMap.h"
#include "kvx/platform/Terminal.h"
#include "kvx/transport/MsgListener.h"

#include <cstdio>
#include <iostream>

class CNews : public CMsgPublisher
{
public:
    void RegisterProviderMap() override
    {
        CMsgPublisher::RegisterProviderMap();
        AddProvider(_T("subscribe"), new _MsgMapEntry<CNews>(this, &CNews::OnSubscribe));
    }

private:
    // From here on the client's connection is the publisher's, and carries requests to the client.
    void OnSubscribe(CMsgRequest & request)
    {
        RegisterSubscription(request, _T("news.line,news.end"));
        std::puts("Somebody listens.");
        std::fflush(stdout);
    }
};

int main(int argc, char ** argv)
{
    auto const args = kvx::GetProgramArguments(argc, argv);
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    auto * const news = new CNews;
    dispatcher.RegisterProvider(_T("news"), news, 1); // owns it now

    CMsgListener * const listener =
        args.size() == 1 ? dispatcher.RegisterListener(_T(""), kvx::FromUtf8(args[0]), 1) : nullptr;
    if (!listener || !listener->WaitUntilListening(INFINITE))
    {
        std::fputs("Tell me where to listen, for example nt_pipe:news\n", stderr);
        return 1;
    }
    std::puts("Ready.");
    std::fflush(stdout);

    // Publishing is sending a request by its whole command: whoever can reach "news" can do it, also over the pipe.
    for (std::string line; std::getline(std::cin, line);)
    {
        CMsgRequest request;
        request[_T("text")] = kvx::FromUtf8(line);
        request.Send(_T("news.line"));
    }
    CMsgRequest().Send(_T("news.end"));
    listener->StopListener();
    return 0;
}
