#include "Asleep.h"
#include "Handle.h"
#include "TestFolder.h"
#include "kvx/platform/win32/runtime_dir.h"
#include "tests/support/RunThreads.h"

#include "tests/support/Fails.h"

#include <csignal>
#include <cstdlib>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

/// A child process that runs a function and ends with its result.
class Child
{
public:
    explicit Child(std::function<int()> const & job) : m_nProcess(::fork())
    {
        if (m_nProcess == 0)
            ::_exit(job());
    }
    ~Child() { Join(); }

    /// The result, or -1 for a child that was killed.
    int Join()
    {
        int nStatus = 0;
        if (m_nProcess > 0 && ::waitpid(std::exchange(m_nProcess, 0), &nStatus, 0) > 0)
            m_nResult = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
        return m_nResult;
    }
    void Kill() { ::kill(m_nProcess, SIGKILL); }
    unsigned GetId() const { return static_cast<unsigned>(m_nProcess); }

private:
    pid_t m_nProcess;
    int m_nResult = -2;
};

class Named : public TestFolder
{
protected:
    Named() { ::setenv("KVX_RUNTIME_DIR", m_strHost.c_str(), 1); }
    ~Named() override { ::unsetenv("KVX_RUNTIME_DIR"); }

    static Handle Create(LPCTSTR pName, bool bManual = false, bool bSignalled = false)
    {
        return CreateEventW(nullptr, bManual, bSignalled, pName);
    }
    static Handle Open(LPCTSTR pName) { return OpenEventW(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, pName); }
    static bool Exists(LPCTSTR pName) { return Open(pName) != nullptr; }

    std::filesystem::path const m_folder = m_strHost;
};

TEST_F(Named, ASecondCreationOpensTheFirstObject)
{
    Handle hFirst = Create(u"Local\\one", true, true);
    EXPECT_EQ(GetLastError(), 0u);
    Handle hSecond = Create(u"one", false, false);
    ASSERT_TRUE(hSecond);
    EXPECT_EQ(GetLastError(), DWORD(ERROR_ALREADY_EXISTS));
    EXPECT_NE(hFirst, hSecond);
    EXPECT_EQ(WaitForSingleObject(hSecond, 0), WAIT_OBJECT_0);
    EXPECT_EQ(WaitForSingleObject(hSecond, 0), WAIT_OBJECT_0); // manual as the first creation said
    EXPECT_TRUE(Fails(Exists(u"Global\\one"), ERROR_FILE_NOT_FOUND));
    EXPECT_FALSE(Exists(u"ONE"));
    EXPECT_TRUE(Fails(CreateMutexW(nullptr, FALSE, u"one"), ERROR_INVALID_HANDLE));
    EXPECT_EQ(Child([] { return CreateMutexW(nullptr, FALSE, u"one") || GetLastError() != 6; }).Join(), 0);
    EXPECT_TRUE(hFirst.Close() && Exists(u"one") && hSecond.Close());
    EXPECT_FALSE(Exists(u"one"));
}

TEST_F(Named, BadNamesAreRefused)
{
    std::u16string const strLongest(MAX_PATH, u'n'), strTooLong(MAX_PATH + 1, u'n');
    EXPECT_TRUE(Fails<HANDLE>(Create(u"Global\\"), ERROR_BAD_PATHNAME));
    EXPECT_TRUE(Fails<HANDLE>(Create(u"other\\name"), ERROR_PATH_NOT_FOUND));
    EXPECT_TRUE(Fails<HANDLE>(Create(u"Global\\..\\name"), ERROR_PATH_NOT_FOUND));
    EXPECT_TRUE(Fails<HANDLE>(Create(strTooLong.c_str()), ERROR_FILENAME_EXCED_RANGE));
    EXPECT_TRUE(Fails<HANDLE>(Open(nullptr), ERROR_INVALID_PARAMETER));
    for (LPCTSTR const pName : {strLongest.c_str(), u"../../up", u"/tmp/x", u"\x4E00\xD83D\xDE00 %s"})
    {
        Handle const hEvent = Create(pName, true, true);
        ASSERT_TRUE(hEvent);
        EXPECT_TRUE(Exists(pName));
        EXPECT_GE(std::distance(std::filesystem::directory_iterator(m_folder), {}), 2);
    }
}

TEST_F(Named, TheFolderMustBePrivate)
{
    ::chmod(m_folder.c_str(), 0750);
    EXPECT_TRUE(Fails<HANDLE>(Create(u"x"), ERROR_BAD_ENVIRONMENT)); // its text tells the way on
    ::chmod(m_folder.c_str(), 0700);
    std::filesystem::create_directory_symlink(m_folder, m_folder / "link");
    ::setenv("KVX_RUNTIME_DIR", (m_folder / "link").c_str(), 1);
    EXPECT_TRUE(Fails<HANDLE>(Create(u"x"), ERROR_BAD_ENVIRONMENT));
    ::setenv("KVX_RUNTIME_DIR", (m_folder / "made").c_str(), 1);
    EXPECT_NE(HANDLE(Create(u"x")), nullptr);
    EXPECT_EQ(std::filesystem::status(m_folder / "made").permissions(), std::filesystem::perms::owner_all);
    if (::geteuid() == 0) // nobody else can make what belongs to another user
    {
        ::chown((m_folder / "made").c_str(), 65534, 65534);
        EXPECT_TRUE(Fails<HANDLE>(Create(u"x"), ERROR_BAD_ENVIRONMENT));
    }
}

TEST_F(Named, TheFolderIsThisUsersAndStaysWhereItIs)
{
    // Somebody else's folder, which this process may be able to write to all the same.
    std::filesystem::path const others = ::geteuid() == 0 ? m_folder / "others" : std::filesystem::path("/proc");
    std::filesystem::create_directories(others);
    [[maybe_unused]] int const nIgnored = ::chown(others.c_str(), 65534, 65534);
    std::string const strBefore = std::getenv("XDG_RUNTIME_DIR") ? std::getenv("XDG_RUNTIME_DIR") : "";
    ::unsetenv("KVX_RUNTIME_DIR");
    ::setenv("XDG_RUNTIME_DIR", others.c_str(), 1);
    EXPECT_EQ(kvx::win32::GetRuntimeFolder(), "/tmp/kvx-" + std::to_string(::geteuid()));
    EXPECT_FALSE(std::filesystem::exists(others / "kvx"));
    ::setenv("XDG_RUNTIME_DIR", m_folder.c_str(), 1);
    EXPECT_EQ(kvx::win32::GetRuntimeFolder(), m_folder / "kvx");
    ::setenv("XDG_RUNTIME_DIR", strBefore.c_str(), 1);

    std::filesystem::path const before = std::filesystem::current_path();
    std::filesystem::current_path(m_folder);
    ::setenv("KVX_RUNTIME_DIR", "sub/", 1);
    std::string const strFirst = kvx::win32::GetRuntimeFolder();
    EXPECT_EQ(strFirst, m_folder / "sub");
    std::filesystem::current_path("/");
    EXPECT_EQ(kvx::win32::GetRuntimeFolder(), strFirst);
    std::filesystem::current_path(before);
}

TEST_F(Named, EventsCrossProcessesInMixedWaits)
{
    Handle const hPing = Create(u"Global\\ping"), hPong = Create(u"Global\\pong");
    Handle const hLocal = Create(nullptr);
    constexpr int ROUNDS = 500;
    Child child(
        []
        {
            Handle const hIn = Open(u"Global\\ping"), hOut = Open(u"Global\\pong");
            for (int nRound = 0; nRound < ROUNDS; ++nRound)
                if (WaitForSingleObject(hIn, INFINITE) != WAIT_OBJECT_0 || !SetEvent(hOut))
                    return 1;
            return 0;
        });
    HANDLE const handles[] = {hLocal, hPong};
    for (int nRound = 0; nRound < ROUNDS; ++nRound)
    {
        SetEvent(hPing);
        ASSERT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_OBJECT_0 + 1);
    }
    EXPECT_EQ(child.Join(), 0);
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
    Handle const hManual = Create(u"manual", true), hAuto = Create(u"auto");
    for (bool const bManual : {true, false})
    {
        auto const job = [&] { return WaitForSingleObject(bManual ? hManual : hAuto, INFINITE) != WAIT_OBJECT_0; };
        Child first(job), second(job);
        WaitUntilAsleep({first.GetId(), second.GetId()});
        SetEvent(bManual ? hManual : hAuto);
        if (bManual)
            ResetEvent(hManual);
        else
            SetEvent(hAuto);
        EXPECT_EQ(first.Join() + second.Join(), 0);
        EXPECT_EQ(WaitForSingleObject(bManual ? hManual : hAuto, 0), WAIT_TIMEOUT);
    }
    // A signal isn't spent on a waiter that was killed.
    Child victim([&] { return WaitForSingleObject(hAuto, INFINITE) == WAIT_OBJECT_0; });
    WaitUntilAsleep({victim.GetId()});
    victim.Kill();
    EXPECT_EQ(victim.Join(), -1);
    SetEvent(hAuto);
    EXPECT_EQ(WaitForSingleObject(hAuto, 0), WAIT_OBJECT_0);
}

TEST_F(Named, WaitsForAllTakeAllOrNothing)
{
    Handle const hEvent = Create(u"event", false, true), hMutex = CreateMutexW(nullptr, FALSE, u"mutex");
    Handle const hLocal = Create(nullptr);
    HANDLE const handles[] = {hLocal, hEvent, hMutex};
    EXPECT_EQ(WaitForMultipleObjects(3, handles, TRUE, 5), WAIT_TIMEOUT);
    EXPECT_EQ(WaitForSingleObject(hEvent, 0), WAIT_OBJECT_0);
    EXPECT_FALSE(ReleaseMutex(hMutex));
    Child child([] { return !SetEvent(Open(u"event")); });
    std::thread setter([&] { SetEvent(hLocal); });
    EXPECT_EQ(WaitForMultipleObjects(3, handles, TRUE, INFINITE), WAIT_OBJECT_0);
    setter.join();
    EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(ReleaseMutex(hMutex));
    EXPECT_FALSE(ReleaseMutex(hMutex));
}

TEST_F(Named, MutexesBelongToOneThreadOfOneProcess)
{
    Handle hMutex = CreateMutexW(nullptr, TRUE, u"Global\\mutex");
    Handle hAgain = OpenMutexW(SYNCHRONIZE, FALSE, u"Global\\mutex");
    EXPECT_EQ(WaitForSingleObject(hAgain, 0), WAIT_OBJECT_0);
    Child child(
        [&]
        {
            if (WaitForSingleObject(hMutex, 0) != WAIT_TIMEOUT || ReleaseMutex(hMutex) || GetLastError() != 288)
                return 1;
            return WaitForSingleObject(hMutex, INFINITE) == WAIT_OBJECT_0 && ReleaseMutex(hMutex) ? 0 : 2;
        });
    std::thread(
        [&]
        {
            EXPECT_EQ(WaitForSingleObject(hMutex, 1), WAIT_TIMEOUT);
            EXPECT_TRUE(Fails(ReleaseMutex(hMutex), ERROR_NOT_OWNER));
        })
        .join();
    EXPECT_TRUE(ReleaseMutex(hMutex));
    WaitUntilAsleep({child.GetId()});
    EXPECT_TRUE(ReleaseMutex(hMutex));
    EXPECT_EQ(child.Join(), 0);
    EXPECT_EQ(WaitForSingleObject(hMutex, INFINITE), WAIT_OBJECT_0);
    EXPECT_TRUE(hMutex.Close() && hAgain.Close());
    EXPECT_FALSE(OpenMutexW(SYNCHRONIZE, FALSE, u"Global\\mutex")); // still owned, but nobody has it open
}

TEST_F(Named, MutexesOfDeadOwnersAreAbandoned)
{
    Handle const hMutex = CreateMutexW(nullptr, FALSE, u"Global\\owned"), hReady = Create(u"Global\\ready");
    Handle const hLocal = Create(nullptr);
    auto const own = [&]
    {
        WaitForSingleObject(hMutex, INFINITE);
        SetEvent(hReady);
        Sleep(INFINITE);
        return 0;
    };
    HANDLE const handles[] = {hLocal, hMutex};
    for (bool const bWaitFirst : {false, true})
    {
        Child owner(own);
        EXPECT_EQ(WaitForSingleObject(hReady, INFINITE), WAIT_OBJECT_0);
        EXPECT_EQ(WaitForSingleObject(hMutex, 1), WAIT_TIMEOUT);
        DWORD const dwWaiter = GetCurrentThreadId();
        std::thread killer(
            [&]
            {
                if (bWaitFirst)
                    WaitUntilAsleep({dwWaiter});
                owner.Kill();
                if (!bWaitFirst)
                    owner.Join();
            });
        if (!bWaitFirst)
            killer.join();
        EXPECT_EQ(WaitForMultipleObjects(2, handles, FALSE, INFINITE), WAIT_ABANDONED_0 + 1);
        if (bWaitFirst)
            killer.join();
        EXPECT_TRUE(ReleaseMutex(hMutex));
        EXPECT_EQ(WaitForSingleObject(hMutex, 0), WAIT_OBJECT_0);
        EXPECT_TRUE(ReleaseMutex(hMutex));
    }
    std::thread([&] { WaitForSingleObject(hMutex, INFINITE); }).join();
    EXPECT_EQ(WaitForSingleObject(hMutex, INFINITE), WAIT_ABANDONED_0);
}

TEST_F(Named, AProcessMayDieAnywhere)
{
    Handle const hMutex = CreateMutexW(nullptr, FALSE, u"mutex"), hEvent = Create(u"event");
    HANDLE const handles[] = {hMutex, hEvent};
    for (int nRound = 0; nRound < 60; ++nRound)
    {
        Child child(
            [&]
            {
                for (;;)
                {
                    WaitForMultipleObjects(2, handles, TRUE, 0);
                    WaitForSingleObject(hMutex, INFINITE);
                    SetEvent(hEvent);
                    Create(u"other");
                    ReleaseMutex(hMutex);
                }
                return 0;
            });
        ::usleep(static_cast<useconds_t>(1'000 + nRound * 37));
        child.Kill();
        child.Join();
        DWORD const dwResult = WaitForSingleObject(hMutex, 10'000);
        ASSERT_TRUE(dwResult == WAIT_OBJECT_0 || dwResult == WAIT_ABANDONED_0) << dwResult;
        ASSERT_TRUE(ReleaseMutex(hMutex));
        SetEvent(hEvent);
        ASSERT_EQ(WaitForSingleObject(hEvent, 0), WAIT_OBJECT_0);
        ASSERT_FALSE(Exists(u"other"));
    }
}

TEST_F(Named, NamesDieWithTheLastProcessThatHasThem)
{
    Handle hReady = Create(u"ready");
    Child crashed(
        [&]
        {
            Handle const hLeft = Create(u"left", true, true);
            SetEvent(hReady);
            Sleep(INFINITE);
            return 0;
        });
    WaitForSingleObject(hReady, INFINITE);
    EXPECT_TRUE(Exists(u"left"));
    crashed.Kill();
    crashed.Join();
    Handle hNew = Create(u"left", false, false);
    EXPECT_EQ(GetLastError(), 0u);
    EXPECT_EQ(WaitForSingleObject(hNew, 0), WAIT_TIMEOUT);
    EXPECT_TRUE(hNew.Close() && !Exists(u"left") && hReady.Close());
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_folder), {}), 1); // the lock only
}

TEST_F(Named, OneProcessMayUseManyThreadsOnOneName)
{
    Handle const hMutex = CreateMutexW(nullptr, FALSE, u"count");
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
