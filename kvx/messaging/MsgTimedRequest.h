#pragma once

/// A request that gives up after a time limit.

#include "kvx/messaging/MsgRequest.h"

#include <memory>

/// Execute and Notify run on a thread of the pool, on a copy of the request, so that the caller can walk away from a
/// server that doesn't answer. There are two waits, each as long as the limit: for the thread to begin, and for it to
/// finish. When the first runs out the response stays as it was, without an error; when the second does, it gets the
/// code 1460, and a result that comes later is dropped. Without a thread it gets the last error.
///
/// The copy is tied to no connection and to no notify queue. The object may be deleted as soon as the call has
/// returned. Threads: as CMsgRequest.
class KVX_API CMsgTimedRequest : public CMsgRequest
{
public:
    /// `timeLimit` in milliseconds; the second argument is only kept.
    CMsgTimedRequest(DWORD timeLimit, int argument);
    CMsgTimedRequest(CMsgTimedRequest const & other);
    ~CMsgTimedRequest() override;

    CMsgResponse & ExecuteRequest() override;
    CMsgResponse & NotifyRequest() override;

    DWORD GetTimeLimit() const { return m_nTimeLimit; }

private:
    struct Exchange;

    DWORD m_nTimeLimit;
    int m_nArgument;

    CMsgResponse & PerformRequest(unsigned int (*proc)(void *));
    template <class PERFORM>
    static unsigned int Work(void * exchange, PERFORM perform);
    static unsigned int ExecuteProc(void * exchange);
    static unsigned int NotifyProc(void * exchange);
};

class KVX_API CDefaultMsgTimeRequest : public CMsgTimedRequest
{
public:
    explicit CDefaultMsgTimeRequest(DWORD timeLimit) : CMsgTimedRequest(timeLimit, 0) {}
};
