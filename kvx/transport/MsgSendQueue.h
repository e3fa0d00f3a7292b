#pragma once

/// Messages on their way to a connection whose reader may be slow.

#include "kvx/foundation/RefCounter.h"

#include <deque>
#include <vector>

class CMsgConnection;
class CMsgStream;

/// Takes whole messages from any thread, and writes them in that order on a thread of the pool, which it has while
/// there are some. While the queue is full whoever posts waits, as long as the reader makes progress; a reader that has
/// taken nothing for the patience is given up.
///
/// To be closed, with the connection disconnected before, while the connection still exists.
class KVX_API CMsgSendQueue : public CRefObject
{
public:
    struct Limits
    {
        DWORD nMaxMessages = 0;  ///< that wait; 0 is no limit
        ULONGLONG nMaxBytes = 0; ///< of all that wait, one message always being let in; 0 is no limit
        DWORD nPatienceMs = 1000;
    };

    CMsgSendQueue(CMsgConnection * connection, Limits const & limits);
    CMsgSendQueue(CMsgSendQueue const &) = delete;
    CMsgSendQueue & operator=(CMsgSendQueue const &) = delete;

    /// Queues what the procedure writes: `message.Write(stream)` of a request or response. 0 when the connection is
    /// given up or has failed, with the reason as the thread's last error: 1460 for a reader that doesn't read.
    template <class T>
    int Post(T & message)
    {
        return Enqueue(&Write<T>, &message, true);
    }
    /// The same without waiting for room: for somebody who holds the connection's write lock.
    template <class T>
    int PostAtOnce(T & message)
    {
        return Enqueue(&Write<T>, &message, false);
    }
    /// Drops what waits, frees those who wait to post, and waits until the thread has left.
    void Close();

private:
    using Bytes = std::vector<BYTE>;
    using Writer = int (*)(CMsgStream & stream, void * message);

    CMsgConnection * m_pConnection;
    Limits m_limits;
    CCriticalSection m_lock; // of all that follows
    std::deque<Bytes> m_messages;
    ULONGLONG m_nBytes = 0;
    DWORD m_nError = 0; // why nothing is taken any more
    bool m_bSending = false;
    ULONGLONG m_nProgressTime = 0; // when something was last taken by the connection, or began to wait
    CEvent m_roomEvent;            // manual: somebody who waits may look again
    CEvent m_quietEvent;           // manual: no thread

    template <class T>
    static int Write(CMsgStream & stream, void * message)
    {
        return static_cast<T *>(message)->Write(stream);
    }
    int Enqueue(Writer writer, void * message, bool bWaits);
    bool HasRoom(std::size_t bytes) const;
    bool AwaitRoom(CSingleLock & guard, std::size_t bytes);
    static unsigned int SendProc(void * queue);
    void SendMessages();
    DWORD Send(Bytes const & message, bool bFlush);
    void NoteProgress();
};
