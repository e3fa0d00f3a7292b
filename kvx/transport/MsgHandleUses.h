#pragma once

/// Closing what another thread may be using.

#include "kvx/platform/host.h"
#include "kvx/threads/ThreadPool.h"

#include <atomic>

/// Counts the threads that are in a call on a handle or socket, or on their way into one. Whoever wants to close it
/// first takes its value away from where they find it, then ends their calls and waits until they have come out: a
/// value that was closed can be given out anew, and a late thread would read from, or write to, somebody else's.
class CMsgHandleUses
{
public:
    /// Lives for the length of a call, and begins before the value is read.
    class Use
    {
    public:
        explicit Use(CMsgHandleUses & uses) : m_uses(uses) { ++m_uses.m_nCount; }
        Use(Use const &) = delete;
        Use & operator=(Use const &) = delete;
        ~Use() { --m_uses.m_nCount; }

    private:
        CMsgHandleUses & m_uses;
    };

    /// Runs `endCalls` until nobody is in a call. False if somebody doesn't come out, for the thread was killed there:
    /// what was to be closed then stays open.
    template <class ENDCALLS>
    bool End(ENDCALLS const & endCalls) const
    {
        constexpr int QUICK_LOOKS = 100;
        constexpr int LOOKS = 5000;
        for (int i = 0; m_nCount != 0; ++i)
        {
            endCalls();
            if (i < QUICK_LOOKS)
            {
                SwitchToThread();
            }
            else if (i < LOOKS && CThreadPool::IsWorthWaiting())
            {
                Sleep(1);
            }
            else
            {
                return false;
            }
        }
        return true;
    }

private:
    std::atomic<int> m_nCount{0};
};
