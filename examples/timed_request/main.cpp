// A request that gives up on a server which doesn't answer.

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/messaging/MsgTimedRequest.h"

#include <cstdio>

int main()
{
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    dispatcher.RegisterProvider(
        _T("quick"), [](CMsgRequest &, void *) {}, nullptr);
    // This one waits for something that comes only when nobody wants its answer any more.
    CEvent late(FALSE, TRUE);
    CEvent done(FALSE, TRUE);
    CEvent * events[] = {&late, &done};
    dispatcher.RegisterProvider(
        _T("slow"),
        [](CMsgRequest &, void * param)
        {
            auto ** const pair = static_cast<CEvent **>(param);
            pair[0]->Lock(INFINITE);
            pair[1]->SetEvent();
        },
        events);

    constexpr DWORD PATIENT = 10000; // milliseconds
    if (CDefaultMsgTimeRequest(PATIENT).Execute(_T("quick")))
    {
        std::puts("The quick one answered in time.");
    }

    constexpr DWORD IMPATIENT = 200;
    CDefaultMsgTimeRequest request(IMPATIENT);
    CMsgResponse const & response = request.Execute(_T("slow"));
    std::printf("The slow one: %lu %s\n", static_cast<unsigned long>(response.GetErrorCode()),
                kvx::ToUtf8(response.GetErrorText()).c_str());

    late.SetEvent();
    done.Lock(INFINITE); // the worker is done with what stands on this stack
    return 0;
}
