#pragma once

/// Commands as window messages: a window of a user interface gets requests on its own thread, as a registered message
/// with wParam 0 and lParam the CMsgRequest *. Its result becomes "handled".
///
///     static UINT * s_pMessage = MsgRegisterMFCRequest(_T("app.refresh"));
///     MsgRegisterMFCRequestHandler(&window, _T("app.refresh"));
///
/// One-way requests are copied and come from a queue, in order; two-way ones make the caller wait for the window's
/// thread.
///
/// Threads: all functions may be called from any thread, but for a window's handler while it handles such a request: it
/// must neither register nor unregister windows.

#include "kvx/foundation/Lockable.h"
#include "kvx/messaging/MsgProvider.h"

class CWnd;

/// Serves one command. Windows that are registered get every request, one after the other in order of registration.
class KVX_API CMsgMFCProxy : public CMsgProvider, public CMRSWLockable
{
public:
    explicit CMsgMFCProxy(UINT message) : m_nMessage(message) {}
    CMsgMFCProxy(CMsgMFCProxy const &) = delete;
    ~CMsgMFCProxy() override;

    /// Does nothing while the dispatcher's notifications are disabled: the application is going down.
    void Service(CMsgRequest & request) override;

    UINT * GetMessageAddress() { return &m_nMessage; }
    void AddRecipient(CWnd * window);
    void RemoveRecipients(CWnd * window);

private:
    class CMFCMsgRecipient;
    class CMsgDiscardableMFCRequest;

    UINT m_nMessage;
    CObList m_recipients; // each with one reference
};

/// Puts a proxy on the command, once; the address of its window message, for the caller's message map.
KVX_API UINT * MsgRegisterMFCRequest(LPCTSTR command);
/// 1, or 0 if the command has no proxy. A window that is added twice is called twice. It must be unregistered before
/// the object goes; the window itself may be destroyed before.
KVX_API int MsgRegisterMFCRequestHandler(CWnd * window, LPCTSTR command);
/// Takes the window out of all proxies.
KVX_API void MsgUnregisterMFCRequestHandler(CWnd * window);
