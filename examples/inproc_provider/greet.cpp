// Loads the provider, calls it twice, and unloads it.

#include "kvx/foundation/Dictionary.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgRequest.h"

#include <cstdio>

int main()
{
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    CString const config = _T("inproc:example_greeter@greeter");
    if (!dispatcher.RegisterProvider(_T("greeter"), config, 1))
    {
        std::puts("The module can't be loaded.");
        return 1;
    }

    CMsgRequest request;
    request[_T("name")] = _T("world");
    if (request.Execute(_T("greeter.hello")))
    {
        CDictionary answer;
        request.GetResponseValues(answer);
        std::puts(kvx::ToUtf8(answer[_T("text")]).c_str());
    }

    request.RemoveParam(_T("name"));
    if (request.Execute().Failed())
    {
        std::puts(kvx::ToUtf8(request.GetResponse().GetErrorText()).c_str());
    }
    dispatcher.UnregisterProvider(_T("greeter"), config);
    std::puts(GetModuleHandleW(_T("example_greeter")) ? "The module is still here." : "The module is unloaded.");
    return 0;
}
