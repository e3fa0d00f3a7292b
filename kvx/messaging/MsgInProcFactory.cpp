#include "kvx/messaging/MsgInProcFactory.h"

#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/system/WinModule.h"

#include <memory>

CMsgProvider * CMsgInProcFactory::CreateProvider(LPCTSTR params)
{
    using CreateProc = CMsgProvider * (*)(CString const &);

    CString file;
    CString name;
    CUtilities::SplitString(params, file, name, _T("@"), 0);
    if (name.IsEmpty())
    {
        LogError(_T("Cannot load in-proc provider: No provider name specified for module '%s'"), file);
        return nullptr;
    }
    auto module = std::make_unique<CWinModule>();
    if (!module->Load(file))
    {
        return nullptr;
    }
    CString procedure;
    procedure.Format(_T("%s_%s"), CREATE_PROVIDER, name);
    FARPROC create = module->GetProcAddress(procedure);
    if (!create)
    {
        create = module->GetProcAddress(CREATE_PROVIDER);
    }
    if (!create)
    {
        LogError(_T("Cannot load in-proc provider '%s': Provider creator not found"), name);
        return nullptr;
    }
    CMsgProvider * const provider = reinterpret_cast<CreateProc>(reinterpret_cast<void *>(create))(name);
    if (!provider)
    {
        LogError(_T("Cannot create in-proc provider '%s' from module '%s': Unknown provider"), name, file);
        return nullptr;
    }
    provider->SetInProcModule(module.release());
    return provider;
}

void CMsgInProcFactory::RegisterTypes(CMsgDispatcher & dispatcher)
{
    dispatcher.RegisterFactory(_T("inproc"), new CMsgInProcFactory);
}

void CMsgInProcFactory::RegisterTypes()
{
    RegisterTypes(*CMsgDispatcher::GetInstance());
}
