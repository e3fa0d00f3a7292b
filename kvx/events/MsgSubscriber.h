#pragma once

/// The client's end of a subscription: a connection of its own, a thread that reads it, and reconnection.

#include "kvx/foundation/Dictionary.h"
#include "kvx/messaging/MsgRequest.h"

#include <atomic>

class CMsgConnection;
class CMsgProvider;

/// Connect sends the subscribing request. From then on a thread reads the requests that the publisher sends on that
/// connection, and serves them by this process's own tree, one at a time, in order. When the connection breaks the
/// reconnect procedure is called; the default one tries every 100 milliseconds, without end, with the same command and
/// parameters.
///
/// Threads: Connect and Disconnect are for the owner's thread. Disconnect waits for the thread: called from a handler
/// that runs on it, it only tells the thread to end.
class KVX_API CMsgSubscriber
{
public:
    using ReconnectProc = void (*)(CMsgSubscriber *, void *);

    CMsgSubscriber();
    CMsgSubscriber(CMsgSubscriber const &) = delete;
    CMsgSubscriber & operator=(CMsgSubscriber const &) = delete;
    virtual ~CMsgSubscriber();

    /// Subscribes by a command without parameters, at a thread priority (0 is normal). Gives the handle, empty on
    /// failure.
    CStringValue Connect(LPCTSTR command, LPCTSTR connectionString, int priority);
    /// The same with a request, whose response tells about a failure. Ends a subscription that is there.
    int Connect(CMsgRequest & request, LPCTSTR connectionString, int priority);
    /// One attempt with a new connection, for a reconnect procedure.
    int Reconnect(CMsgRequest & request);
    void Disconnect();

    /// What the publisher answered; empty while there is no connection.
    CStringValue GetConnectionHandle() const;
    CString const & GetCommand() const { return m_strCommand; }
    CDictionary const & GetParameters() const { return m_params; }
    /// To be set before Connect. Called on the subscriber's thread each time that the connection is gone; null ends the
    /// waiting for the publisher, and the thread, there.
    void SetReconnectProc(ReconnectProc proc, void * param);
    /// Whether a reconnect procedure has to give up.
    int ShouldTerminate() const { return m_bTerminate.load(); }

private:
    int m_nPriority = 0;
    CString m_strConnection;
    CString m_strCommand;
    CStringValue m_handle;
    // The provider owns the connection. Only the thread that reads, or the owner's while there is none, changes them;
    // the lock is for Disconnect, which breaks the connection under that thread.
    kvx::RefPtr<CMsgProvider> m_provider;
    CMsgConnection * m_pConnection = nullptr;
    mutable CCriticalSection m_connectionLock;
    std::atomic<int> m_bTerminate{1};
    CEvent m_terminateEvent{TRUE, TRUE}; // along with the flag
    CEvent m_endedEvent{TRUE, TRUE};     // no thread runs
    std::atomic<DWORD> m_nThreadId{0};
    CDictionary m_params;
    ReconnectProc m_pReconnectProc = &DefaultReconnectProc;
    void * m_pReconnectParam = this;

    static unsigned int NotificationProc(void * subscriber);
    static void DefaultReconnectProc(CMsgSubscriber * subscriber, void * param);
    void Run();
    void ReadRequests();
    template <class T>
    static void Guarded(T const & work);
    void ResetConnection();
    void BreakConnection();
};
