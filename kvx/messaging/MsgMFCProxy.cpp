#include "kvx/messaging/MsgMFCProxy.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/platform/mfc/Wnd.h"

#include <memory>

/// One window. Shared with the one-way requests that are on their way to it.
class CMsgMFCProxy::CMFCMsgRecipient : public CRefObject
{
public:
    explicit CMFCMsgRecipient(CWnd * window) : m_pWindow(window) {}

    /// Null if the window has gone, or has been unregistered.
    HWND GetHandle() const
    {
        HWND const hWnd = m_pWindow ? m_pWindow->GetSafeHwnd() : nullptr;
        return hWnd && IsWindow(hWnd) ? hWnd : nullptr;
    }

    /// Requests on their way don't look at the window any more. Gives back a reference.
    void Drop()
    {
        {
            CSingleLock const guard(&m_lock, TRUE);
            m_pWindow = nullptr;
        }
        Release(1);
    }

    CCriticalSection m_lock;
    CWnd * m_pWindow; // null when it is unregistered
};

/// A copy of a one-way request on its way to a window.
class CMsgMFCProxy::CMsgDiscardableMFCRequest : public CMsgRequest
{
public:
    CMsgDiscardableMFCRequest(CMsgRequest const & request, CMFCMsgRecipient * recipient, UINT message)
        : CMsgRequest(request), m_recipient(recipient), m_nMessage(message)
    {
    }

    /// The queue's procedure.
    static void Serve(CObject * object, void *)
    {
        std::unique_ptr<CMsgDiscardableMFCRequest> const request(static_cast<CMsgDiscardableMFCRequest *>(object));
        if (!CMsgDispatcher::GetInstance()->AreNotificationsEnabled())
        {
            return;
        }
        HWND hWnd = nullptr;
        {
            CSingleLock const guard(&request->m_recipient->m_lock, TRUE);
            hWnd = request->m_recipient->GetHandle();
        }
        if (hWnd)
        {
            SendMessageW(hWnd, request->m_nMessage, 0,
                         reinterpret_cast<LPARAM>(static_cast<CMsgRequest *>(request.get())));
        }
    }

private:
    kvx::RefPtr<CMFCMsgRecipient> m_recipient;
    UINT m_nMessage;
};

namespace
{
/// The proxies by command; they belong to the tree. Never gone: the dispatcher outlives no static of this file.
struct Proxies
{
    CCriticalSection lock;
    CMapStringToOb byCommand{10};
};

Proxies & GetProxies()
{
    static Proxies & s_proxies = *new Proxies;
    return s_proxies;
}

CThreadQueue & GetQueue(CThreadQueue::ServiceProcType proc)
{
    static CThreadQueue & s_queue = *new CThreadQueue(proc, nullptr, 1, 0, _T(""));
    return s_queue;
}
} // namespace

CMsgMFCProxy::~CMsgMFCProxy()
{
    Proxies & proxies = GetProxies();
    CSingleLock const guard(&proxies.lock, TRUE);
    CString command;
    CObject * proxy = nullptr;
    for (POSITION pos = proxies.byCommand.GetStartPosition(); pos;)
    {
        proxies.byCommand.GetNextAssoc(pos, command, proxy);
        if (proxy == static_cast<CObject *>(static_cast<CMsgProvider *>(this)))
        {
            proxies.byCommand.RemoveKey(command);
        }
    }
    while (!m_recipients.IsEmpty())
    {
        static_cast<CMFCMsgRecipient *>(m_recipients.RemoveHead())->Drop();
    }
}

void CMsgMFCProxy::AddRecipient(CWnd * window)
{
    CWriteLock const guard(this);
    auto * const recipient = new CMFCMsgRecipient(window);
    recipient->AddRef();
    m_recipients.AddTail(recipient);
}

void CMsgMFCProxy::RemoveRecipients(CWnd * window)
{
    CWriteLock const guard(this);
    for (POSITION pos = m_recipients.GetHeadPosition(); pos;)
    {
        POSITION const here = pos;
        auto * const recipient = static_cast<CMFCMsgRecipient *>(m_recipients.GetNext(pos));
        if (recipient->m_pWindow == window)
        {
            m_recipients.RemoveAt(here);
            recipient->Drop();
        }
    }
}

void CMsgMFCProxy::Service(CMsgRequest & request)
{
    if (!CMsgDispatcher::GetInstance()->AreNotificationsEnabled())
    {
        return;
    }
    CReadLock const guard(this);
    if (m_recipients.IsEmpty())
    {
        return;
    }
    LRESULT result = 0;
    for (POSITION pos = m_recipients.GetHeadPosition(); pos;)
    {
        auto * const recipient = static_cast<CMFCMsgRecipient *>(m_recipients.GetNext(pos));
        CSingleLock const own(&recipient->m_lock, TRUE);
        HWND const hWnd = recipient->GetHandle();
        if (!hWnd)
        {
            continue;
        }
        if (request.DiscardResults())
        {
            GetQueue(&CMsgDiscardableMFCRequest::Serve)
                .InsertOrDelete(new CMsgDiscardableMFCRequest(request, recipient, m_nMessage));
            result |= 1;
        }
        else
        {
            result |= SendMessageW(hWnd, m_nMessage, 0, reinterpret_cast<LPARAM>(&request));
        }
    }
    request.SetHandled(static_cast<int>(result));
}

UINT * MsgRegisterMFCRequest(LPCTSTR command)
{
    Proxies & proxies = GetProxies();
    CSingleLock const guard(&proxies.lock, TRUE);
    CObject * found = nullptr;
    if (!proxies.byCommand.Lookup(command, found))
    {
        auto * const proxy = new CMsgMFCProxy(RegisterWindowMessageW(command));
        found = static_cast<CMsgProvider *>(proxy);
        proxies.byCommand.SetAt(command, found);
        CMsgDispatcher::GetInstance()->RegisterProvider(command, proxy, 1);
    }
    return static_cast<CMsgMFCProxy *>(static_cast<CMsgProvider *>(found))->GetMessageAddress();
}

int MsgRegisterMFCRequestHandler(CWnd * window, LPCTSTR command)
{
    Proxies & proxies = GetProxies();
    CSingleLock const guard(&proxies.lock, TRUE);
    CObject * found = nullptr;
    if (!proxies.byCommand.Lookup(command, found))
    {
        return 0;
    }
    static_cast<CMsgMFCProxy *>(static_cast<CMsgProvider *>(found))->AddRecipient(window);
    return 1;
}

void MsgUnregisterMFCRequestHandler(CWnd * window)
{
    Proxies & proxies = GetProxies();
    CSingleLock const guard(&proxies.lock, TRUE);
    CString command;
    CObject * proxy = nullptr;
    for (POSITION pos = proxies.byCommand.GetStartPosition(); pos;)
    {
        proxies.byCommand.GetNextAssoc(pos, command, proxy);
        static_cast<CMsgMFCProxy *>(static_cast<CMsgProvider *>(proxy))->RemoveRecipients(window);
    }
}
