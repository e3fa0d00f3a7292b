#pragma once

/// What waits for the queue of a listener, and the brake on the sessions that fill it.

#include "kvx/platform/mfc/Afx.h"

/// Counts the messages that have been read and not been served yet, and their bytes. A session enters its message, and
/// waits there while the backlog is full: it reads nothing more, and the transport's flow control slows its client.
/// Threads: any.
class KVX_API CMsgBacklog
{
public:
    CMsgBacklog() : m_roomEvent(FALSE, TRUE) {}
    CMsgBacklog(CMsgBacklog const &) = delete;
    CMsgBacklog & operator=(CMsgBacklog const &) = delete;

    /// 0 is no limit. One message is always let in, whatever its size.
    void SetLimits(DWORD messages, ULONGLONG bytes);

    /// Counts a message in if there is room.
    bool TryEnter(ULONGLONG bytes);
    /// The same whether there is room or not.
    void Enter(ULONGLONG bytes);
    void Leave(ULONGLONG bytes);

    /// Waits until there may be room again, `stop` is set, or the time is over: false only for `stop`. Room comes when
    /// half of what filled the backlog has been served, so that reading and serving don't take turns message by
    /// message.
    bool AwaitRoom(HANDLE stop, DWORD timeout);

private:
    CCriticalSection m_lock;
    DWORD m_nMaxMessages = 0;
    ULONGLONG m_nMaxBytes = 0;
    DWORD m_nMessages = 0;
    ULONGLONG m_nBytes = 0;
    bool m_bFull = false; // somebody was refused, and the event is down
    CEvent m_roomEvent;   // manual

    bool HasRoom(ULONGLONG bytes) const;
};
