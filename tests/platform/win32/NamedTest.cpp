#include "NamedFixture.h"
#include "tests/support/Fails.h"
#include "tests/support/OneHost.h"
#include "tests/support/Patience.h"
#include "tests/support/RunThreads.h"
#include "tests/support/Wide.h"

#include <cstdlib>
#include <map>

namespace
{

constexpr int ROUNDS = 500;

/// Waits, once the test has been told who does.
DWORD ReportAndWait(HANDLE hObject)
{
    host::Report(std::to_string(GetCurrentThreadId()));
    return WaitForSingleObject(hObject, INFINITE);
}

Handle OpenToSet(LPCTSTR pName)
{
    return OpenEventW(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, pName);
}

Handle OpenMutexByName(LPCTSTR pName)
{
    return OpenMutexW(SYNCHRONIZE, FALSE, pName);
}

/// What the child processes do; true if all went well.
std::map<std::string, bool (*)()> const g_roles = {
    {"other kind", [] { return Fails(CreateMutexW(nullptr, FALSE, _T("one")), ERROR_INVALID_HANDLE) == true; }},
    {"pong",
     []
     {
         Handle const hIn = OpenToSet(_T("Global\\ping")), hOut = OpenToSet(_T("Global\\pong"));
         bool bGood = true;
         for (int nRound = 0; nRound < ROUNDS && bGood; ++nRound)
         {
             bGood = WaitForSingleObject(hIn, INFINITE) == WAIT_OBJECT_0 && SetEvent(hOut);
         }
         return bGood;
     }},
    {"wait manual", [] { return ReportAndWait(OpenToSet(_T("manual"))) == WAIT_OBJECT_0; }},
    {"wait auto", [] { return ReportAndWait(OpenToSet(_T("auto"))) == WAIT_OBJECT_0; }},
    {"set", [] { return SetEvent(OpenToSet(_T("event"))) != FALSE; }},
    {"take turns",
     []
     {
         Handle const hMutex = OpenMutexByName(_T("Global\\mutex"));
         return WaitForSingleObject(hMutex, 0) == WAIT_TIMEOUT && Fails(ReleaseMutex(hMutex), ERROR_NOT_OWNER) &&
                ReportAndWait(hMutex) == WAIT_OBJECT_0 && ReleaseMutex(hMutex);
     }},
    {"own",
     []
     {
         WaitForSingleObject(OpenMutexByName(_T("Global\\owned")).Release(), INFINITE);
         SetEvent(OpenToSet(_T("Global\\ready")));
         Sleep(INFINITE);
         return false;
     }},
    {"work",
     []
     {
         Handle const hMutex = OpenMutexByName(_T("mutex")), hEvent = OpenToSet(_T("event"));
         HANDLE const handles[] = {hMutex, hEvent};
         host::Report("ready");
         for (;;)
         {
             WaitForMultipleObjects(2, handles, TRUE, 0);
             WaitForSingleObject(hMutex, INFINITE);
             SetEvent(hEvent);
             Handle const hOther = CreateEventW(nullptr, FALSE, FALSE, _T("other"));
             ReleaseMutex(hMutex);
         }
         return false;
     }},
    {"leave",
     []
     {
         Handle const hLeft = CreateEventW(nullptr, TRUE, TRUE, _T("left"));
         SetEvent(OpenToSet(_T("ready")));
         Sleep(INFINITE);
         return false;
     }},
};

TEST(NamedRole, Run)
{
    if (char const * const pszRole = std::getenv("KVX_ROLE"))
    {
        EXPECT_TRUE(g_roles.at(pszRole)());
    }
}

TEST_F(Named, ASecondCreationOpensTheFirstObject)
{
    Handle hFirst = Create(_T("Local\\one"), true, true);
    EXPECT_EQ(GetLastError(), 0u);
    Handle hSecond = Create(_T("one"), false, false);
    ASSERT_TRUE(hSecond);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ALREADY_EXISTS));
    EXPECT_NE(hFirst, hSecond);
    EXPECT_EQ(WaitForSingleObject(hSecond, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(hSecond, 0), WAIT_OBJECT_0); // manual as the first creation said
    EXPECT_TRUE(Fails(Exists(_T("Global\\one")), ERROR_FILE_NOT_FOUND));
    EXPECT_FALSE(Exists(_T("ONE")));
    EXPECT_TRUE(Fails(CreateMutexW(nullptr, FALSE, _T("one")), ERROR_INVALID_HANDLE));
    EXPECT_EQ(Child("other kind").Wait(), 0);
    EXPECT_TRUE(hFirst.Close() && Exists(_T("one")) && hSecond.Close());
    EXPECT_FALSE(Exists(_T("one")));
}

TEST_F(Named, BadNamesAreRefused)
{
    Wide const strLongest(MAX_PATH, _T('n')), strTooLong(MAX_PATH + 1, _T('n'));
    EXPECT_FALSE(Create(_T("Global\\")));
    EXPECT_TRUE(Fails<HANDLE>(Create(_T("other\\name")), ERROR_PATH_NOT_FOUND));
    EXPECT_TRUE(Fails<HANDLE>(Create(_T("Global\\..\\name")), ERROR_PATH_NOT_FOUND));
    if (!host::IsWine()) // takes longer ones than the documentation (NamesHaveNoLimit, 2026-11-22)
    {
        EXPECT_TRUE(Fails<HANDLE>(Create(strTooLong.c_str()), ERROR_FILENAME_EXCED_RANGE));
    }
    EXPECT_TRUE(Fails<HANDLE>(Open(nullptr), ERROR_INVALID_PARAMETER));
    for (LPCTSTR const pName : {strLongest.c_str(), _T("../../up"), _T("/tmp/x"), _T("\x4E00\xD83D\xDE00 %s")})
    {
        Handle const hEvent = Create(pName, true, true);
        ASSERT_TRUE(hEvent);
        EXPECT_TRUE(Exists(pName));
        EXPECT_TRUE(host::IsWindows() || std::distance(std::filesystem::directory_iterator(m_folder), {}) >= 2);
    }
}

TEST_F(Named, EventsCrossProcessesInMixedWaits)
{
    Handle const hPing = Create(_T("Global\\ping")), hPong = Create(_T("Global\\pong"));
    Handle const hLocal = Create(nullptr);
    Child child("pong");
    HANDLE const handles[] = {hLocal, hPong};
    for (int nRound = 0; nRound < ROUNDS; ++nRound)
    {
        SetEvent(hPing);
        ASSERT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
    }
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, 20), WAIT_TIMEOUT);
    std::thread setter([&] { SetEvent(hLocal); });
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_OBJECT_0);
    setter.join();
    SetEvent(hLocal);
    SetEvent(hPong);
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, 0), WAIT_TIMEOUT);
}

TEST_F(Named, SignalsReachExactlyThoseWhoWait)
{
    Handle const hManual = Create(_T("manual"), true), hAuto = Create(_T("auto"));
    for (bool const bManual : {true, false})
    {
        std::string const strRole = bManual ? "wait manual" : "wait auto";
        Child first(strRole), second(strRole);
        first.WaitUntilAsleep();
        second.WaitUntilAsleep();
        SetEvent(bManual ? hManual : hAuto);
        if (bManual)
        {
            ResetEvent(hManual);
        }
        else
        {
            SetEvent(hAuto);
        }
        EXPECT_EQ(first.Wait() + second.Wait(), 0);
        EXPECT_EQ(WaitForSingleObject(bManual ? hManual : hAuto, 0), WAIT_TIMEOUT);
    }
    // A signal isn't spent on a waiter that was killed.
    Child victim("wait auto");
    victim.WaitUntilAsleep();
    victim.Kill();
    SetEvent(hAuto);
    EXPECT_EQ(WaitForSingleObject(hAuto, 0), WAIT_OBJECT_0);
}

TEST_F(Named, WaitsForAllTakeAllOrNothing)
{
    Handle const hEvent = Create(_T("event"), false, true), hMutex = CreateMutexW(nullptr, FALSE, _T("mutex"));
    Handle const hLocal = Create(nullptr);
    HANDLE const handles[] = {hLocal, hEvent, hMutex};
    EXPECT_EQ(WaitForMultipleObjects(3, handles, TRUE, 5), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(hEvent, 0), WAIT_OBJECT_0);
    EXPECT_FALSE(ReleaseMutex(hMutex));
    Child child("set");
    std::thread setter([&] { SetEvent(hLocal); });
    EXPECT_EQ(WaitForMultipleObjects(3, handles, TRUE, INFINITE), WAIT_OBJECT_0);
    setter.join();
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(hMutex));
    EXPECT_FALSE(ReleaseMutex(hMutex));
}

TEST_F(Named, MutexesBelongToOneThreadOfOneProcess)
{
    Handle hMutex = CreateMutexW(nullptr, TRUE, _T("Global\\mutex"));
    Handle hAgain = OpenMutexW(SYNCHRONIZE, FALSE, _T("Global\\mutex"));
    EXPECT_EQ(WaitForSingleObject(hAgain, 0), WAIT_OBJECT_0);
    Child child("take turns");
    std::thread(
        [&]
        {
            EXPECT_EQ(WaitForSingleObject(hMutex, 1), WAIT_TIMEOUT);
            EXPECT_TRUE(Fails(ReleaseMutex(hMutex), ERROR_NOT_OWNER));
        })
        .join();
    EXPECT_TRUE(ReleaseMutex(hMutex));
    child.WaitUntilAsleep();
    EXPECT_TRUE(ReleaseMutex(hMutex));
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(WaitForSingleObject(hMutex, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(hMutex.Close() && hAgain.Close());
    EXPECT_FALSE(OpenMutexW(SYNCHRONIZE, FALSE, _T("Global\\mutex"))); // still owned, but nobody has it open
}

TEST_F(Named, MutexesOfDeadOwnersAreAbandoned)
{
    Handle const hMutex = CreateMutexW(nullptr, FALSE, _T("Global\\owned")), hReady = Create(_T("Global\\ready"));
    Handle const hLocal = Create(nullptr);
    HANDLE const handles[] = {hLocal, hMutex};
    for (bool const bWaitFirst : {false, true})
    {
        Child owner("own");
        EXPECT_EQ(WaitForSingleObject(hReady, INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(hMutex, 1), WAIT_TIMEOUT);
        DWORD const dwWaiter = GetCurrentThreadId();
        std::thread killer(
            [&]
            {
                if (bWaitFirst)
                {
                    host::WaitUntilAsleep({dwWaiter});
                }
                owner.Kill();
            });
        if (!bWaitFirst)
        {
            killer.join();
        }
        EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_ABANDONED_0 + 1);
        if (bWaitFirst)
        {
            killer.join();
        }
        EXPECT_TRUE(ReleaseMutex(hMutex));
        EXPECT_EQ(WaitForSingleObject(hMutex, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(ReleaseMutex(hMutex));
    }
    std::thread([&] { WaitForSingleObject(hMutex, INFINITE); }).join();
    EXPECT_EQ(WaitForSingleObject(hMutex, INFINITE), WAIT_ABANDONED_0);
}

TEST_F(Named, AProcessMayDieAnywhere)
{
    Handle const hMutex = CreateMutexW(nullptr, FALSE, _T("mutex")), hEvent = Create(_T("event"));
    for (int nRound = 0; nRound < 40; ++nRound)
    {
        Child child("work");
        child.ReadReport();
        std::this_thread::sleep_for(std::chrono::microseconds(nRound * 37));
        child.Kill();
        DWORD const dwResult = WaitForSingleObject(hMutex, PATIENCE);
        ASSERT_TRUE(dwResult == WAIT_OBJECT_0 || dwResult == WAIT_ABANDONED_0) << dwResult;
        ASSERT_TRUE(ReleaseMutex(hMutex));
        SetEvent(hEvent);
        ASSERT_EQ(WaitForSingleObject(hEvent, 0), WAIT_OBJECT_0);
        ASSERT_FALSE(Exists(_T("other")));
    }
}

TEST_F(Named, NamesDieWithTheLastProcessThatHasThem)
{
    Handle hReady = Create(_T("ready"));
    Child crashed("leave");
    WaitForSingleObject(hReady, INFINITE);
    EXPECT_TRUE(Exists(_T("left")));
    crashed.Kill();
    Handle hNew = Create(_T("left"), false, false);
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(WaitForSingleObject(hNew, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(hNew.Close() && !Exists(_T("left")) && hReady.Close());
    auto const nFiles = std::distance(std::filesystem::directory_iterator(m_folder), {});
    EXPECT_EQ(nFiles, host::IsWindows() ? 0 : 1); // the lock only
}

TEST_F(Named, OneProcessMayUseManyThreadsOnOneName)
{
    Handle const hMutex = CreateMutexW(nullptr, FALSE, _T("count"));
    int nCount = 0;
    RunThreads(3,
               [&](std::size_t)
               {
                   for (int nRound = 0; nRound < 500; ++nRound)
                   {
                       ASSERT_EQ(WaitForSingleObject(hMutex, INFINITE), WAIT_OBJECT_0);
                       ++nCount;
                       ReleaseMutex(hMutex);
                   }
               });
    EXPECT_EQ(nCount, 1'500);
}

} // namespace
