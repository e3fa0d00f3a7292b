#pragma once

/// What the connections over pipes have in common: two handles, which may be one.

#include "kvx/transport/MsgBufferedConnection.h"
#include "kvx/transport/MsgHandleUses.h"

#include <atomic>

class CMsgPipeListener;

/// The handshake on a pipe always names the plain variant: pipes don't use compaction.
/// Errors: 109 when the peer has gone, 232 when writing to one that has; else the system's.
class KVX_API CMsgPipeConnection : public CMsgBufferedConnection
{
public:
    /// `listener` is the one that the connection serves, null on the client's side; not owned.
    CMsgPipeConnection(CMsgPipeListener * listener, int unicode)
        : CMsgBufferedConnection(unicode), m_pListener(listener)
    {
    }
    ~CMsgPipeConnection() override;

    void GetHandles(void *& read, void *& write) override;
    /// Asks the system: 0 also when the peer has closed and nothing is left to be read.
    int IsConnected() override;
    int Disconnect() override;
    /// With `bCompact` 0 at once, and nothing is sent.
    int AuthenticateClient(int bCompact) override;

    CMsgPipeListener * GetListener() const { return m_pListener; }
    CString const & GetPath() const { return m_strPath; }

protected:
    int SendAll(void const * buffer, DWORD count, bool bMore) override;
    DWORD ReceiveSome(void * buffer, DWORD size) override;

    /// The handles become this connection's, and the buffers begin empty. Those it had must be closed.
    void SetHandles(HANDLE read, HANDLE write, bool bOverlapped = false);
    /// Takes both away, so that of several threads one closes them. INVALID_HANDLE_VALUE each if there are none.
    void TakeHandles(HANDLE & read, HANDLE & write);
    /// Closes what is a handle, one that stands for both once, when nobody is in a call on it any more. What has been
    /// written can still be read by the peer.
    void CloseHandles(HANDLE read, HANDLE write);
    static void SetInfo(CValueAccessor & info, LPCTSTR type, CString const & path);

    std::atomic<HANDLE> m_hRead{INVALID_HANDLE_VALUE};
    std::atomic<HANDLE> m_hWrite{INVALID_HANDLE_VALUE};
    CString m_strPath;
    CMsgHandleUses m_uses; // of both

private:
    CMsgPipeListener * m_pListener;
    CCriticalSection m_handlesLock; // they change as a pair: Disconnect may come from another thread
    bool m_bOverlapped = false;     // how the handles were opened
    // Of overlapped transfers, one for each direction; null before the first.
    HANDLE m_hReadEvent = nullptr;
    HANDLE m_hWriteEvent = nullptr;

    template <class CALL>
    DWORD Transfer(std::atomic<HANDLE> const & handle, HANDLE & event, CALL const & call);
};
