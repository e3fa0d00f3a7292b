// A provider in a module: `inproc:example_greeter@greeter` puts it on a command path.

#include "kvx/messaging/MsgMap.h"

class CGreeter : public CMsgProvider
{
public:
    void RegisterProviderMap() override
    {
        CMsgProvider::RegisterProviderMap();
        AddProvider(_T("hello"), new _MsgMapEntry<CGreeter>(this, &CGreeter::OnHello));
    }

private:
    void OnHello(CMsgRequest & request)
    {
        CString const name = request[_T("name")];
        if (name.IsEmpty())
        {
            request.SetResponseError(ERROR_INVALID_PARAMETER, _T("Hello who?"));
            return;
        }
        CDictionary answer;
        answer[_T("text")] = _T("Hello, ") + name + _T("!");
        request.SetResponseValues(answer);
    }
};

KVX_MODULE_EXPORT CMsgProvider * KVXMSG_CreateInProcProvider(CString const & name)
{
    return name == _T("greeter") ? new CGreeter : nullptr;
}
