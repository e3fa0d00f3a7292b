#include "PendingCall.h"

#include "Output.h"

#include "kvx/threads/ThreadPool.h"

#include <algorithm>
#include <chrono>

unsigned int PendingCall::Proc(void * param)
{
    auto * const call = static_cast<PendingCall *>(param);
    call->m_request.Execute();
    call->m_done.SetEvent();
    return 0;
}

std::unique_ptr<PendingCall> PendingCall::Start(Endpoint & endpoint, CMsgConnection * connection,
                                                std::function<void(CMsgRequest &)> const & fill)
{
    std::unique_ptr<PendingCall> call(new PendingCall(endpoint));
    fill(call->m_request);
    call->m_request.SetConnection(connection);
    if (!CThreadPool::BeginThread(&Proc, call.get(), 0))
    {
        ReportSystemError(GetLastError());
        return nullptr;
    }
    return call;
}

PendingCall::End PendingCall::Wait(DWORD timeout, std::function<bool()> const & isUnwanted)
{
    using Clock = std::chrono::steady_clock;
    constexpr DWORD LOOK = 50; // milliseconds
    constexpr DWORD STEP = 20; // milliseconds
    constexpr int STEPS = 50;
    auto const begin = Clock::now();
    bool bInTime = false;
    for (bool bWanted = true; bWanted && !bInTime;)
    {
        auto const passed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();
        DWORD const left = timeout == INFINITE           ? INFINITE
                           : passed >= LONGLONG{timeout} ? 0
                                                         : timeout - static_cast<DWORD>(passed);
        bInTime = m_done.Lock(isUnwanted ? std::min(left, LOOK) : left) != 0;
        bWanted = left != 0 && !(isUnwanted && isUnwanted());
    }
    for (int step = 0; !bInTime && step < STEPS && m_endpoint.Break(m_request.GetConnection()); ++step)
    {
        if (m_done.Lock(STEP))
        {
            return End::GivenUp;
        }
    }
    return bInTime ? End::Answered : End::Stuck;
}
