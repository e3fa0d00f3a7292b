#include "kvx/messaging/MsgDispatcher.h"

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Utilities.h"
#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgFactory.h"
#include "kvx/messaging/MsgForwardProvider.h"
#include "kvx/messaging/MsgInProcFactory.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/system/WinModule.h"
#include "kvx/text/StringTokenizer.h"
#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgListener.h"
#include "kvx/transport/MsgPipeFactory.h"
#include "kvx/transport/MsgRelayProvider.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <memory>
#include <utility>

namespace
{
constexpr int NOTIFY_THREADS = 3;
constexpr int CONFIG_DEPTH_MAX = 100;

/// The look-up of the named queues holds objects.
class CNamedQueue : public CObject
{
public:
    CNamedQueue(void (*proc)(CObject *, void *), void * param, CString const & name) : m_queue(proc, param, 1, 0, name)
    {
    }

    CThreadQueue m_queue;
};

template <class PROC>
CString CommonQueueName(PROC proc)
{
    CString name;
    name.Format(_T("CMsgDispatcher.m_notifyQueue::NotifyQueue: %X"), proc);
    return name;
}
} // namespace

CMsgDispatcher::CMsgDispatcher() : m_notifyQueue(&NotifyProc, this, NOTIFY_THREADS, 0, CommonQueueName(&NotifyProc))
{
    m_pRoot = new CMsgTarget;
    CMsgPipeFactory::RegisterTypes(*this);
    CMsgTCPFactory::RegisterTypes(*this);
    CMsgInProcFactory::RegisterTypes(*this);
    RegisterFactory(_T("forward"), new CMsgForwardFactory);
    RegisterFactory(_T("relay"), new CMsgRelayFactory);
}

CMsgDispatcher::~CMsgDispatcher()
{
    m_bDestroying = 1;
    Terminate();
    m_namedQueues.RemoveAll(1);
}

void CMsgDispatcher::Service(CMsgRequest & request)
{
    m_pRoot->Service(request.GetCommand(), request);
}

void CMsgDispatcher::Terminate()
{
    ShutDownNotificationQueue(!m_bDestroying);
    delete std::exchange(m_pRoot, nullptr);
    DeleteFactories();
}

void CMsgDispatcher::DeleteFactories()
{
    CString name;
    CObject * object = nullptr;
    for (POSITION pos = m_factories.GetStartPosition(); pos;)
    {
        m_factories.GetNextAssoc(pos, name, object);
        CWinModule * const module = static_cast<CMsgFactory *>(object)->GetModule();
        delete object;
        delete module;
    }
    m_factories.RemoveAll();
}

void CMsgDispatcher::NotifyProc(CObject * object, void *)
{
    auto * const request = static_cast<CMsgRequest *>(object);
    GetInstance()->Service(*request);
    delete request;
}

void CMsgDispatcher::Notify(CMsgRequest & request)
{
    if (!AreNotificationsEnabled())
    {
        return;
    }
    CString const name = request.GetNotifyQueueName();
    auto copy = std::make_unique<CMsgRequest>(request);
    CThreadQueue & queue = name.IsEmpty() ? m_notifyQueue : *GetNamedQueue(name);
    queue.InsertOrDelete(copy.release());
}

CThreadQueue * CMsgDispatcher::GetNamedQueue(CString const & name)
{
    CSingleLock guard(m_namedQueues, TRUE);
    if (CObject * const known = m_namedQueues.Lookup(name))
    {
        return &static_cast<CNamedQueue *>(known)->m_queue;
    }
    auto queue = std::make_unique<CNamedQueue>(&NotifyProc, this, name);
    m_namedQueues.SetAt(name, queue.get());
    return &queue.release()->m_queue;
}

void CMsgDispatcher::ShutDownNotificationQueue(int bDelete)
{
    EnableNotifications(0);
    // A thread that the library's shutdown has killed never leaves its queue: then there is nobody to wait for.
    int const bWait = !CThreadPool::IsTerminated();
    m_notifyQueue.Stop(bWait, 1);

    CString name;
    CObject * object = nullptr;
    for (POSITION pos = m_namedQueues.GetStartPosition(); pos;)
    {
        m_namedQueues.GetNextAssoc(pos, name, object);
        static_cast<CNamedQueue *>(object)->m_queue.Stop(bWait, 1);
    }
    if (bDelete)
    {
        m_namedQueues.RemoveAll(1);
    }
}

int CMsgDispatcher::RegisterProvider(LPCTSTR path, CMsgProvider * provider, int start)
{
    if (!provider || !m_pRoot->RegisterProvider(path, provider))
    {
        return 0;
    }
    return start ? provider->StartProvider() : 1;
}

CMsgProvider * CMsgDispatcher::RegisterProvider(LPCTSTR path, void (*callback)(CMsgRequest &, void *), void * param)
{
    auto provider = std::make_unique<CMsgCallbackProvider>(callback, param);
    RegisterProvider(path, provider.get(), 0);
    return provider.release();
}

CMsgProvider * CMsgDispatcher::RegisterProvider(LPCTSTR path, LPCTSTR config, int start)
{
    CMsgProvider * const provider = kvx::FailingWithoutMemory([&] { return CreateProvider(config); });
    if (!provider)
    {
        return nullptr;
    }
    bool const bRegistered = kvx::FailingWithoutMemory(
        [&]
        {
            provider->SetProviderParams(config);
            return RegisterProvider(path, provider, start) != 0;
        });
    if (bRegistered)
    {
        LogInfo(_T("Loaded provider '%s=%s'"), path, config);
        return provider;
    }
    LogError(_T("Cannot register provider '%s=%s'"), path, config);
    CMsgProvider::DeleteWithModule(provider);
    return nullptr;
}

CMsgListener * CMsgDispatcher::RegisterListener(LPCTSTR path, LPCTSTR config, int start)
{
    CMsgListener * const listener = kvx::FailingWithoutMemory([&] { return CreateListener(config); });
    if (!listener)
    {
        return nullptr;
    }
    if (!kvx::FailingWithoutMemory([&] { return RegisterProvider(path, listener, 0); }))
    {
        LogError(_T("Cannot register listener '%s=%s'"), path, config);
        delete listener;
        return nullptr;
    }
    LogInfo(_T("Loaded listener '%s=%s'"), path, config);
    if (start && !listener->StartListener())
    {
        LogError(_T("Cannot start listener '%s=%s': %s"), path, config, CWinError(GetLastError()).GetText());
    }
    return listener;
}

int CMsgDispatcher::UnregisterProvider(LPCTSTR path, LPCTSTR config)
{
    return LookupTarget(path)->RemoveProvider(CString(config), 1);
}

int CMsgDispatcher::UnregisterProvider(LPCTSTR path, CMsgProvider * provider)
{
    return m_pRoot->UnregisterProvider(path, provider);
}

CMsgProvider * CMsgDispatcher::CreateProvider(LPCTSTR config)
{
    CString type;
    CString params;
    if (CUtilities::SplitString(config, type, params, _T(":"), 0) < 0)
    {
        return nullptr;
    }
    CMsgFactory * const factory = LookupFactory(type);
    if (!factory)
    {
        LogError(_T("Unknown provider type '%s'"), type);
        return nullptr;
    }
    // A configuration in a configuration in ...: a text from outside may not decide how deep the stack goes.
    thread_local int s_nDepth = 0;
    if (s_nDepth >= CONFIG_DEPTH_MAX)
    {
        LogError(_T("Cannot create provider: more than %d configurations in one"), CONFIG_DEPTH_MAX);
        return nullptr;
    }
    struct Depth
    {
        Depth() { ++s_nDepth; }
        ~Depth() { --s_nDepth; }
    } const depth;
    return factory->CreateProvider(params);
}

CMsgListener * CMsgDispatcher::CreateListener(LPCTSTR config)
{
    CString rest = config;
    CString event;
    CString token;
    CString head;
    CString tail;
    for (CStringTokenizer tokens(rest, _T(";")); tokens.GetNextString(token);)
    {
        if (CUtilities::SplitString(token, head, tail, _T(":"), 0) >= 0 && head.MakeLower() == _T("event"))
        {
            event = tail;
            rest.Replace(token + _T(";"), _T(""));
            break;
        }
    }
    CString type;
    CString params;
    if (CUtilities::SplitString(rest, type, params, _T(":"), 0) < 0)
    {
        return nullptr;
    }
    CMsgFactory * const factory = LookupFactory(type);
    CMsgListener * const listener = factory ? factory->CreateListener(params) : nullptr;
    if (listener)
    {
        listener->SetEvent(event);
    }
    return listener;
}

int CMsgDispatcher::RegisterFactory(LPCTSTR name, CMsgFactory * factory)
{
    if (!LookupFactory(name))
    {
        m_factories.SetAt(name, factory);
    }
    return 1;
}

int CMsgDispatcher::RegisterFactory(LPCTSTR name, LPCTSTR config)
{
    if (LookupFactory(name))
    {
        return 1;
    }
    CString file;
    CString entryPoint;
    if (CUtilities::SplitString(config, file, entryPoint, _T("@"), 0) < 0)
    {
        entryPoint = _T("KVXMSG_CreateFactory");
    }
    auto module = std::make_unique<CWinModule>();
    CMsgFactory * const factory =
        module->Load(file) ? CMsgFactory::LoadFactory(name, module.get(), entryPoint) : nullptr;
    if (!factory)
    {
        LogError(_T("Cannot load factory '%s=%s': %s"), name, file, CWinError(GetLastError()).GetText());
        return 0;
    }
    module.release(); // the factory's now
    m_factories.SetAt(name, factory);
    LogInfo(_T("Loaded factory '%s=%s'"), name, file);
    return 1;
}

CMsgFactory * CMsgDispatcher::LookupFactory(LPCTSTR name) const
{
    CObject * factory = nullptr;
    return m_factories.Lookup(name, factory) ? static_cast<CMsgFactory *>(factory) : nullptr;
}
