#include "kvx/messaging/MsgTimedRequest.h"

#include "kvx/threads/ThreadPool.h"
#include "kvx/transport/MsgConnection.h"

/// What caller and worker share; it lives until both are done with it. The worker sees nothing of the caller's object,
/// which may be gone by the time the thread begins.
struct CMsgTimedRequest::Exchange
{
    explicit Exchange(CMsgRequest const & request, CMsgResponse & response) : copy(request), response(&response) {}

    CEvent started{FALSE, TRUE};
    CEvent finished{FALSE, TRUE};
    CMsgRequest copy;
    kvx::RefPtr<CMsgResponse> response;
    CCriticalSection lock; // of the next: who has the last word on the response
    bool bTimedOut = false;

    void GiveUp()
    {
        CSingleLock const guard(&lock, TRUE);
        bTimedOut = true;
    }
};

CMsgTimedRequest::CMsgTimedRequest(DWORD timeLimit, int argument) : m_nTimeLimit(timeLimit), m_nArgument(argument) {}

CMsgTimedRequest::CMsgTimedRequest(CMsgTimedRequest const & other)
    : CMsgRequest(other), m_nTimeLimit(other.m_nTimeLimit), m_nArgument(other.m_nArgument)
{
}

CMsgTimedRequest::~CMsgTimedRequest() = default;

CMsgResponse & CMsgTimedRequest::ExecuteRequest()
{
    return PerformRequest(&ExecuteProc);
}

CMsgResponse & CMsgTimedRequest::NotifyRequest()
{
    return PerformRequest(&NotifyProc);
}

CMsgResponse & CMsgTimedRequest::PerformRequest(unsigned int (*proc)(void *))
{
    CMsgResponse & response = GetResponse();
    auto workers = kvx::FailingWithoutMemory(
        [&] { return std::make_unique<std::shared_ptr<Exchange>>(std::make_shared<Exchange>(*this, response)); });
    auto const exchange = workers ? *workers : nullptr;
    CThreadContext * const thread = exchange ? CThreadPool::BeginThread(proc, workers.get(), 0) : nullptr;
    if (!thread)
    {
        response.SetError(GetLastError(), nullptr);
        return response;
    }
    workers.release(); // it is the worker's now
    if (!exchange->started.Lock(m_nTimeLimit))
    {
        exchange->GiveUp();
        return response;
    }
    if (exchange->finished.Lock(m_nTimeLimit))
    {
        return response;
    }
    {
        CSingleLock const guard(&exchange->lock, TRUE);
        if (exchange->finished.Lock(0))
        {
            return response; // just in time
        }
        exchange->bTimedOut = true;
    }
    response.SetError(ERROR_TIMEOUT, nullptr);
    try
    {
        if (CMsgConnection * const connection = exchange->copy.GetConnection())
        {
            connection->Disconnect();
            thread->WaitForExit(INFINITE);
        }
    }
    catch (...)
    {
        // The caller has its answer: that the time is over.
    }
    return response;
}

template <class PERFORM>
unsigned int CMsgTimedRequest::Work(void * param, PERFORM perform)
{
    std::unique_ptr<std::shared_ptr<Exchange>> const owner(static_cast<std::shared_ptr<Exchange> *>(param));
    Exchange & exchange = **owner;
    exchange.started.SetEvent();
    perform(exchange.copy);
    CSingleLock const guard(&exchange.lock, TRUE);
    if (exchange.bTimedOut)
    {
        return ERROR_TIMEOUT;
    }
    bool const bCopied = kvx::FailingWithoutMemory(
        [&]
        {
            exchange.response->Copy(exchange.copy.GetResponse());
            return true;
        });
    if (!bCopied)
    {
        exchange.response->SetError(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
    exchange.finished.SetEvent();
    return 0;
}

unsigned int CMsgTimedRequest::ExecuteProc(void * exchange)
{
    return Work(exchange, [](CMsgRequest & copy) { copy.Execute(); });
}

unsigned int CMsgTimedRequest::NotifyProc(void * exchange)
{
    return Work(exchange, [](CMsgRequest & copy) { copy.Notify(); });
}
