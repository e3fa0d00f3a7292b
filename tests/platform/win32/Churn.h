#pragma once

#include "kvx/platform/host.h"

#include "tests/support/Host.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

/// Opens and closes pipes as fast as it can: a descriptor that was closed too early is in use again at once, and a
/// call that hits it disturbs the byte in it.
class Churn
{
public:
    ~Churn()
    {
        m_bStop = true;
        m_thread.join();
        EXPECT_EQ(m_nDisturbed, 0);
    }

private:
    void Run()
    {
        while (!m_bStop)
        {
            HANDLE hRead = nullptr;
            HANDLE hWrite = nullptr;
            if (!CreatePipe(&hRead, &hWrite, nullptr, 0))
            {
                continue;
            }
            char c = 'k';
            DWORD nDone = 0;
            DWORD nLeft = 0;
            bool const bWhole = WriteFile(hWrite, &c, 1, &nDone, nullptr) && SwitchToThread() >= 0 &&
                                ReadFile(hRead, &c, 1, &nDone, nullptr) && nDone == 1 && c == 'k' &&
                                PeekNamedPipe(hRead, nullptr, 0, nullptr, &nLeft, nullptr) && nLeft == 0;
            if (!bWhole)
            {
                ++m_nDisturbed;
            }
            CloseHandle(hRead);
            CloseHandle(hWrite);
        }
    }

    std::atomic<bool> m_bStop{false};
    std::atomic<int> m_nDisturbed{0};
    std::thread m_thread{[this] { Run(); }};
};

/// Runs `call` in a thread and `breaker` beside it, until the call is over: at once in some rounds, in others when the
/// call sleeps.
inline void BreakUnder(int nRound, std::function<void()> const & call, std::function<void()> const & breaker)
{
    std::atomic<DWORD> nThread{0};
    std::atomic<bool> bOver{false};
    std::thread thread(
        [&]
        {
            nThread = GetCurrentThreadId();
            call();
            bOver = true;
        });
    while (nThread == 0)
    {
        std::this_thread::yield();
    }
    if (nRound % 3 == 0)
    {
        host::WaitUntilAsleep({nThread});
    }
    for (; !bOver; std::this_thread::yield())
    {
        breaker();
    }
    thread.join(); // ends, or the test's time-out tells
}
