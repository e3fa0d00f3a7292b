#pragma once

/// The process-wide dispatcher: the root of the command tree, the factories, and the notification queues.

#include "kvx/foundation/Immortal.h"
#include "kvx/foundation/ObLookup.h"
#include "kvx/messaging/MsgTarget.h"
#include "kvx/threads/ThreadQueue.h"

class CMsgFactory;
class CMsgListener;
class CMsgProvider;

/// Configuration strings: a provider configuration is `type:params`; a listener configuration is the same, with at most
/// one further token `event:name;` in front of it. Type names are case-sensitive. The params of "tcp" are
/// `address:port@seconds.microseconds`, the last two parts optional; those of "inproc" are `module@provider`; those of
/// "forward" and "relay" are another provider configuration, up to a depth of 100.
///
/// Threads: Service and Notify may be called by any thread. Factories and providers are registered at start-up.
class KVX_API CMsgDispatcher
{
public:
    CMsgDispatcher();
    CMsgDispatcher(CMsgDispatcher const &) = delete;
    CMsgDispatcher & operator=(CMsgDispatcher const &) = delete;
    virtual ~CMsgDispatcher();

    static CMsgDispatcher * GetInstance() { return &*sm_instance; }

    /// Walks the tree with the request's command. Not to be called after Terminate.
    void Service(CMsgRequest & request);

    /// Queues a copy of the request: on the common queue, which runs up to 3 at once in no fixed order, or on the queue
    /// that the request names, which runs one at a time in order. Response and errors are lost with the copy. While
    /// notifications are disabled the request is dropped without a word. Nothing limits these queues: whoever notifies
    /// faster than is served fills the memory.
    void Notify(CMsgRequest & request);
    void EnableNotifications(int enable) { m_bNotifications.store(enable); }
    int AreNotificationsEnabled() const { return m_bNotifications.load(); }
    /// Disables notifications, deletes those that wait, and waits for those that run. With `bDelete` the named queues
    /// go as well.
    void ShutDownNotificationQueue(int bDelete);

    /// Teardown: the notification queues, the tree with all providers, the factories. Providers aren't stopped: whoever
    /// started one stops it before.
    void Terminate();

    CMsgTarget * GetRootTarget() const { return m_pRoot; }
    CMsgTarget * LookupTarget(LPCTSTR path) { return m_pRoot->LookupTarget(path); }
    /// May be called by the destructor of a provider, also while Terminate takes the tree down: 0 then.
    int DeleteTarget(LPCTSTR path)
    {
        return m_pRoot ? m_pRoot->DeleteTargetAt(path ? CString::View(path) : CString::View()) : 0;
    }

    /// 0 for null or a provider that is there already; with `start`, the result of its StartProvider.
    int RegisterProvider(LPCTSTR path, CMsgProvider * provider, int start);
    CMsgProvider * RegisterProvider(LPCTSTR path, void (*callback)(CMsgRequest &, void *), void * param);
    /// From a configuration; null, with the reason in the log, if it can't be made, registered or started.
    CMsgProvider * RegisterProvider(LPCTSTR path, LPCTSTR config, int start);
    /// A listener that is made and registered is returned also if it can't be started, which goes to the log.
    CMsgListener * RegisterListener(LPCTSTR path, LPCTSTR config, int start);
    /// Removes by configuration text, and detaches.
    int UnregisterProvider(LPCTSTR path, LPCTSTR config);
    /// Removes without detaching.
    int UnregisterProvider(LPCTSTR path, CMsgProvider * provider);

    /// A new object with a count of 0. Null without a ":", which is not logged, or for an unknown type.
    CMsgProvider * CreateProvider(LPCTSTR config);
    CMsgListener * CreateListener(LPCTSTR config);

    /// Takes the factory over, unless the name is known: then nothing is stored, and the caller keeps it. Gives 1.
    int RegisterFactory(LPCTSTR name, CMsgFactory * factory);
    /// From a module, `module` or `module@entry point` ("KVXMSG_CreateFactory" by default), unless the name is known:
    /// then nothing is loaded. 0, with the reason in the log, if the module makes no factory.
    int RegisterFactory(LPCTSTR name, LPCTSTR config);
    CMsgFactory * LookupFactory(LPCTSTR name) const;

private:
    friend class CLibraryEntry;

    static kvx::Immortal<CMsgDispatcher> sm_instance;

    CMapStringToOb m_factories{10};
    CMsgTarget * m_pRoot = nullptr;
    CThreadQueue m_notifyQueue;
    int m_bDestroying = 0;
    CObStringLookup m_namedQueues;
    std::atomic<int> m_bNotifications{1};

    static void NotifyProc(CObject * request, void * dispatcher);
    void DeleteFactories();
    CThreadQueue * GetNamedQueue(CString const & name);
};
