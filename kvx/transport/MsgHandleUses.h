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
        explicit Use(CMsgHandleUses & uses) : m_pCount(uses.Enter()) {}
        Use(Use const &) = delete;
        Use & operator=(Use const &) = delete;
        ~Use() { --*m_pCount; }

    private:
        std::atomic<int> * const m_pCount;
    };

    /// Runs `endCalls` until nobody is in a call. False if somebody doesn't come out, for the thread was killed there:
    /// what was to be closed then stays open.
    template <class ENDCALLS>
    bool End(ENDCALLS const & endCalls)
    {
        // From here on others count elsewhere: theirs is the next handle.
        std::atomic<int> const & count = m_nCounts[m_nTurn++ % 2];
        constexpr int QUICK_LOOKS = 100;
        constexpr int LOOKS = 5000;
        for (int i = 0; count != 0; ++i)
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
    std::atomic<unsigned> m_nTurn{0};
    std::atomic<int> m_nCounts[2]{};

    std::atomic<int> * Enter()
    {
        for (;;)
        {
            unsigned const turn = m_nTurn;
            std::atomic<int> * const count = &m_nCounts[turn % 2];
            ++*count;
            if (turn == m_nTurn)
            {
                return count;
            }
            --*count; // somebody has taken the value away meanwhile
        }
    }
};
