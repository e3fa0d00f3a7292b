#pragma once

/// One client's session with a listener. Sessions are pooled, and keep their id.

#include "kvx/foundation/Dictionary.h"

#include <atomic>
#include <memory>

class CMsgConnection;
class CMsgListener;
class CMsgListenerRun;

class KVX_API CMsgListenerSessionBase : public CObject
{
public:
    CMsgListenerSessionBase();

    DWORD GetSessionId() const { return m_nId; }
    /// Null once the session has ended, or when it served one-way requests and none is in progress any more.
    CMsgConnection * GetConnection() const { return m_pConnection.load(); }
    void SetConnection(CMsgConnection * connection);
    /// What the connection tells of its client, asked for once. 0 without a connection, or if that fails.
    int GetConnectionInfo(CValueAccessor & info) const;

private:
    DWORD m_nId;
    std::atomic<CMsgConnection *> m_pConnection{nullptr};
    mutable CCriticalSection m_infoLock;
    mutable CDictionary m_info;
};

class KVX_API CMsgListenerSession : public CMsgListenerSessionBase
{
public:
    explicit CMsgListenerSession(CMsgListener * listener) : m_pListener(listener), m_done(TRUE, TRUE) {}

    /// Starts the session's thread on a client; 0 if none can be had, and the connection stays the caller's.
    int Activate(CMsgConnection * connection, int priority);
    /// The session's thread: the handshake, then requests until the client is gone.
    virtual void Run();
    /// Drops the client and waits for the thread, `timeout` milliseconds; non-zero if it has ended. 1 if there is none.
    virtual int Stop(DWORD timeout);

private:
    friend class CMsgListener;

    CMsgListener * m_pListener;
    // The link that the thread serves, whatever becomes of the public one. Guarded by the lock, for Stop drops it while
    // the thread may just be giving it back.
    CCriticalSection m_servedLock;
    CMsgConnection * m_pServed = nullptr;
    CEvent m_done;                          // manual: no thread runs
    std::shared_ptr<CMsgListenerRun> m_run; // that it is a session of; the listener's lock guards it

    static unsigned int SessionProc(void * session);
    CMsgConnection * TakeServed();
    bool Break();
};
