// Fires each line that is typed as an event, until the input ends:  example_announcer nt_pipe:announcer

#include "kvx/events/MsgObservableProvider.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgMap.h"
#include "kvx/platform/Terminal.h"
#include "kvx/transport/MsgListener.h"

#include <cstdio>
#include <iostream>

class CAnnouncer : public CMsgObservableProvider
{
public:
    void RegisterProviderMap() override
    {
        CMsgObservableProvider::RegisterProviderMap();
        AddProvider(_T("watch"), new _MsgMapEntry<CAnnouncer>(this, &CAnnouncer::OnWatch));
    }

    void Announce(LPCTSTR event, std::string const & text)
    {
        CDictionary params;
        params[_T("text")] = kvx::FromUtf8(text);
        CSingleLock guard(*this, TRUE); // no observer comes meanwhile
        SendObserverEvent(event, &params, nullptr);
    }

private:
    // "observer.advise" is for callers in this process. Whom it calls back at another's wish is the application's
    // decision: this one takes anybody.
    void OnWatch(CMsgRequest & request)
    {
        Advise(request[_T("path")], request[_T("events")], request[_T("connector")]);
    }
};

int main(int argc, char ** argv)
{
    auto const args = kvx::GetProgramArguments(argc, argv);
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    auto * const announcer = new CAnnouncer;
    dispatcher.RegisterProvider(_T("announcer"), announcer, 1); // owns it now

    CMsgListener * const listener =
        args.size() == 1 ? dispatcher.RegisterListener(_T(""), kvx::FromUtf8(args[0]), 1) : nullptr;
    if (!listener || !listener->WaitUntilListening(INFINITE))
    {
        std::fputs("Tell me where to listen, for example nt_pipe:announcer\n", stderr);
        return 1;
    }
    std::puts("Ready.");
    std::fflush(stdout);

    for (std::string line; std::getline(std::cin, line);)
    {
        announcer->Announce(_T("line"), line);
    }
    announcer->Announce(_T("end"), "");
    listener->StopListener();
    return 0;
}
