#include "kvx/messaging/MsgFactory.h"

#include "kvx/system/WinModule.h"

CMsgProvider * CMsgFactory::CreateProvider(LPCTSTR)
{
    return nullptr;
}

CMsgListener * CMsgFactory::CreateListener(LPCTSTR)
{
    return nullptr;
}

CMsgFactory * CMsgFactory::LoadFactory(CString const & name, CWinModule * module, CString const & entryPoint)
{
    using CreateProc = CMsgFactory * (*)(CString const &);

    FARPROC const create = module->GetProcAddress(entryPoint);
    if (!create)
    {
        return nullptr;
    }
    CMsgFactory * const factory = reinterpret_cast<CreateProc>(reinterpret_cast<void *>(create))(name);
    if (factory)
    {
        factory->SetModule(module);
    }
    return factory;
}
