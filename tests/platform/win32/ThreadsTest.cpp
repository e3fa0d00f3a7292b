#include "Handle.h"
#include "NoLeaks.h"
#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"

#include <atomic>
#include <thread>
#include <vector>

namespace
{

template <class Function>
Handle Start(Function & function, DWORD * pThreadId = nullptr)
{
    return CreateThread(
        nullptr, 0, [](LPVOID pFunction) -> DWORD { return (*static_cast<Function *>(pFunction))(); }, &function, 0,
        pThreadId);
}

DWORD GetExitCode(HANDLE hThread)
{
    DWORD dwCode = 12345;
    EXPECT_TRUE(GetExitCodeThread(hThread, &dwCode));
    return dwCode;
}

TEST(Threads, RunEndAndGiveTheirExitCode)
{
    Handle const hGo = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    DWORD dwSeen = 0, dwId = 0;
    auto job = [&]() -> DWORD
    {
        dwSeen = GetCurrentThreadId();
        WaitForSingleObject(hGo, INFINITE);
        return 77;
    };
    Handle const hThread = Start(job, &dwId);
    ASSERT_TRUE(hThread);
    EXPECT_EQ(GetExitCode(hThread), STILL_ACTIVE);
    EXPECT_EQ(WaitForSingleObject(hThread, 0), WAIT_TIMEOUT);
    // Priorities are remembered even if they may not be set.
    EXPECT_EQ(GetThreadPriority(hThread), THREAD_PRIORITY_NORMAL);
    for (int const nPriority : {THREAD_PRIORITY_TIME_CRITICAL, THREAD_PRIORITY_IDLE, THREAD_PRIORITY_BELOW_NORMAL})
    {
        EXPECT_TRUE(SetThreadPriority(hThread, nPriority) && GetThreadPriority(hThread) == nPriority);
    }
    EXPECT_TRUE(Fails(SetThreadPriority(hThread, 7), ERROR_INVALID_PARAMETER));
    EXPECT_EQ(GetThreadPriority(hThread), THREAD_PRIORITY_BELOW_NORMAL);
    SetEvent(hGo);
    EXPECT_EQ(WaitForSingleObject(hThread, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(hThread, 0), WAIT_OBJECT_0);
    EXPECT_EQ(dwSeen, dwId);
    EXPECT_NE(dwSeen, GetCurrentThreadId());
    EXPECT_EQ(GetExitCode(hThread), 77u);
    EXPECT_TRUE(host::IsWine() || // EndedThreadsAreTerminated, 2026-11-22
                Fails(TerminateThread(hThread, 1), ERROR_ACCESS_DENIED));
}

TEST(Threads, BadCallsAreRefused)
{
    auto const job = [](LPVOID) -> DWORD { return 0; };
    if (!host::IsWindows()) // which does what it is told (2026-11-22)
    {
        EXPECT_TRUE(Fails(CreateThread(nullptr, 0, job, nullptr, CREATE_SUSPENDED, nullptr), ERROR_NOT_SUPPORTED));
        EXPECT_TRUE(Fails(CreateThread(nullptr, 0, nullptr, nullptr, 0, nullptr), ERROR_INVALID_PARAMETER));
    }
    Handle const hEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    DWORD dwCode = 0;
    for (HANDLE const hBad : {HANDLE(hEvent), HANDLE(nullptr), INVALID_HANDLE_VALUE})
    {
        SetLastError(0);
        EXPECT_TRUE(Fails(TerminateThread(hBad, 0), ERROR_INVALID_HANDLE));
        EXPECT_FALSE(GetExitCodeThread(hBad, &dwCode));
        EXPECT_FALSE(SetThreadPriority(hBad, THREAD_PRIORITY_NORMAL));
        EXPECT_EQ(GetThreadPriority(hBad), THREAD_PRIORITY_ERROR_RETURN);
    }
}

TEST(Threads, HandlesMayCloseBeforeTheEnd)
{
    NoLeaks const noLeaks;
    std::atomic<int> nRun{0};
    auto job = [&]() -> DWORD { return static_cast<DWORD>(++nRun); };
    for (int nThread = 0; nThread < 100; ++nThread)
    {
        ASSERT_TRUE(Start(job).Close());
    }
    while (nRun < 100)
    {
        Sleep(1);
    }
}

TEST(Tls, ValuesBelongToOneThreadAndOneAllocation)
{
    DWORD const dwSlot = TlsAlloc();
    ASSERT_NE(dwSlot, TLS_OUT_OF_INDEXES);
    int nValue = 0;
    ASSERT_TRUE(TlsSetValue(dwSlot, &nValue));
    std::atomic<int> nStep{0};
    std::thread other(
        [&]
        {
            EXPECT_EQ(TlsGetValue(dwSlot), nullptr);
            TlsSetValue(dwSlot, &nStep);
            EXPECT_EQ(TlsGetValue(dwSlot), &nStep);
            for (nStep = 1; nStep != 2;)
            {
                std::this_thread::yield();
            }
            EXPECT_EQ(TlsGetValue(dwSlot), nullptr);
        });
    while (nStep != 1)
    {
        std::this_thread::yield();
    }
    SetLastError(5);
    EXPECT_TRUE(TlsGetValue(dwSlot) == &nValue && GetLastError() == 0);
    EXPECT_TRUE(TlsFree(dwSlot));
    EXPECT_FALSE(TlsFree(dwSlot));
    EXPECT_TRUE(host::IsWindows() || !TlsSetValue(dwSlot, &nValue)); // it doesn't look (2026-11-22)
    EXPECT_EQ(TlsAlloc(), dwSlot);
    nStep = 2;
    other.join();
    EXPECT_EQ(TlsGetValue(dwSlot), nullptr);
    TlsFree(dwSlot);
    EXPECT_TRUE(Fails(TlsGetValue(1088), ERROR_INVALID_PARAMETER));
}

struct Witness
{
    std::atomic<bool> & m_bUnwound;
    ~Witness() { m_bUnwound = true; }
};

TEST(TerminateThread, EndsSleepersWaitersAndBusyThreadsWithoutUnwinding)
{
    std::atomic<bool> bUnwound{false}, bStarted{false};
    Handle const hEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    Handle const hOther = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    Handle const hMutex = CreateMutexW(nullptr, FALSE, nullptr);
    HANDLE const handles[] = {hEvent, hOther, hEvent};
    for (int nMode = 0; nMode < 4; ++nMode)
    {
        bStarted = false;
        DWORD dwId = 0;
        auto job = [&]() -> DWORD
        {
            Witness const witness{bUnwound};
            WaitForSingleObject(hMutex, INFINITE);
            bStarted = true;
            if (nMode == 0)
            {
                WaitForMultipleObjects(3, handles, FALSE, INFINITE);
            }
            else if (nMode == 1)
            {
                Sleep(INFINITE);
            }
            else if (nMode == 2)
            {
                TerminateThread(GetCurrentThread(), 42);
            }
            while (bStarted)
            {
                Sleep(0);
            }
            return 1;
        };
        Handle const hThread = Start(job, &dwId);
        while (!bStarted)
        {
            Sleep(0);
        }
        if (nMode < 2)
        {
            host::WaitUntilAsleep({dwId});
        }
        EXPECT_TRUE(nMode == 2 || TerminateThread(hThread, 42));
        EXPECT_EQ(WaitForSingleObject(hThread, INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(GetExitCode(hThread), 42u);
        EXPECT_TRUE(host::IsWine() || !TerminateThread(hThread, 43)); // as above
        EXPECT_EQ(WaitForSingleObject(hMutex, INFINITE), WAIT_ABANDONED_0);
        ReleaseMutex(hMutex);
        // What is signalled now isn't lost to the dead.
        SetEvent(hEvent);
        EXPECT_EQ(WaitForSingleObject(hEvent, 0), WAIT_OBJECT_0);
    }
    EXPECT_FALSE(bUnwound);
}

TEST(TerminateThread, LeavesNoLockOfTheSystemTaken)
{
    KVX_LINUX_ALONE("Windows warns of that", "2026-11-22");
    Handle const hEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr), hMutex = CreateMutexW(nullptr, FALSE, nullptr);
    HANDLE const handles[] = {hMutex, hEvent};
    for (int nRound = 0; nRound < 100; ++nRound)
    {
        std::atomic<int> nSteps{0};
        auto job = [&]() -> DWORD
        {
            for (;; ++nSteps)
            {
                WaitForMultipleObjects(2, handles, nSteps % 2 == 0, 0);
                SetEvent(hEvent);
                CloseHandle(CreateEventW(nullptr, FALSE, FALSE, nullptr));
                ReleaseMutex(hMutex);
            }
        };
        Handle const hThread = Start(job);
        while (nSteps <= nRound)
        {
            Sleep(0);
        }
        EXPECT_TRUE(TerminateThread(hThread, 3));
        ASSERT_EQ(WaitForSingleObject(hThread, INFINITE), WAIT_OBJECT_0);
        DWORD const dwResult = WaitForSingleObject(hMutex, INFINITE);
        ASSERT_TRUE(dwResult == WAIT_OBJECT_0 || dwResult == WAIT_ABANDONED_0);
        ASSERT_TRUE(ReleaseMutex(hMutex));
        ASSERT_FALSE(ReleaseMutex(hMutex));
        SetEvent(hEvent);
        ASSERT_EQ(WaitForSingleObject(hEvent, 0), WAIT_OBJECT_0);
    }
}

TEST(TerminateThread, RacesWithTheThreadsOwnEnd)
{
    KVX_LINUX_ALONE("Windows warns of locks of the system that stay taken", "2026-11-22");
    Handle const hEvent = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    for (int nRound = 0; nRound < 200; ++nRound)
    {
        auto job = [&]() -> DWORD
        {
            TlsSetValue(0, &nRound);
            SetEvent(hEvent);
            return 1;
        };
        Handle const hThread = Start(job);
        if (nRound % 2 == 0)
        {
            WaitForSingleObject(hEvent, INFINITE);
        }
        bool const bTerminated = TerminateThread(hThread, 2) != FALSE;
        ASSERT_EQ(WaitForSingleObject(hThread, INFINITE), WAIT_OBJECT_0);
        ASSERT_EQ(GetExitCode(hThread), bTerminated ? 2u : 1u);
        ResetEvent(hEvent);
    }
}

} // namespace
