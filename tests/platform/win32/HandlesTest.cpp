#include "kvx/platform/win32/handles.h"

#include "kvx/platform/host.h"
#include "tests/support/Fails.h"
#include "tests/support/RunThreads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>

using namespace kvx::win32;

namespace
{

std::atomic<int> g_nAlive{0};
std::atomic<int> g_nClosed{0};

class Probe final : public KernelObject
{
public:
    static constexpr Kind KIND = Kind::Find;
    Probe() : KernelObject(KIND) { ++g_nAlive; }
    void OnHandleClosed() noexcept override { ++g_nClosed; }

private:
    ~Probe() override { --g_nAlive; }
};

class Other final : public KernelObject
{
public:
    static bool Matches(Kind kind) noexcept { return kind == Kind::Pipe || kind == Kind::File; }
    Other() : KernelObject(Kind::Pipe) {}
};

HANDLE OpenProbe()
{
    return OpenHandle(Ref<KernelObject>(new Probe));
}

TEST(Handles, StaleForeignAndImpossibleValuesAreInvalid)
{
    HANDLE const hProbe = OpenProbe();
    HANDLE const hOther = OpenHandle(Ref<KernelObject>(new Other));
    EXPECT_TRUE(FindObject<Probe>(hProbe));
    EXPECT_TRUE(FindObject<KernelObject>(hOther));
    EXPECT_TRUE(FindObject<Other>(hOther));
    EXPECT_TRUE(Fails(bool(FindObject<Probe>(hOther)), ERROR_INVALID_HANDLE));
    EXPECT_FALSE(CloseObject(hOther, &IsOfKind<Probe>));
    EXPECT_TRUE(CloseObject(hOther));
    EXPECT_TRUE(CloseHandle(hProbe));
    for (HANDLE const hBad : {hProbe, HANDLE(nullptr), INVALID_HANDLE_VALUE, reinterpret_cast<HANDLE>(1),
                              reinterpret_cast<HANDLE>(0x7FFFFFFC),
                              reinterpret_cast<HANDLE>(reinterpret_cast<UINT_PTR>(&g_nAlive)), GetCurrentThread()})
    {
        SetLastError(0);
        EXPECT_TRUE(Fails(bool(FindObject<KernelObject>(hBad)), ERROR_INVALID_HANDLE));
        EXPECT_FALSE(CloseHandle(hBad));
    }
    EXPECT_TRUE(Fails(OpenHandle(nullptr), ERROR_NOT_ENOUGH_MEMORY));
}

TEST(Handles, OperationsKeepTheObjectAndTheLastHandleBreaksThem)
{
    g_nClosed = 0;
    HANDLE const hFirst = OpenProbe();
    HANDLE hSecond = nullptr;
    ASSERT_TRUE(DuplicateHandle(GetCurrentProcess(), hFirst, GetCurrentProcess(), &hSecond, 0, FALSE, 0));
    Ref<Probe> const probe = FindObject<Probe>(hFirst);
    EXPECT_TRUE(CloseHandle(hFirst));
    EXPECT_EQ(g_nClosed, 0);
    EXPECT_TRUE(FindObject<Probe>(hSecond) == probe);
    EXPECT_TRUE(CloseHandle(hSecond));
    EXPECT_EQ(g_nClosed, 1);
    EXPECT_EQ(g_nAlive, 1);
}

TEST(Handles, TensOfThousandsAreUniqueAndReuseNeverMeetsAnOldValue)
{
    std::uint32_t const nBefore = GetOpenHandleCount();
    std::vector<HANDLE> handles;
    std::set<HANDLE> seen;
    for (int nIndex = 0; nIndex < 30'000; ++nIndex)
    {
        handles.push_back(OpenProbe());
        UINT_PTR const nValue = reinterpret_cast<UINT_PTR>(handles.back());
        ASSERT_TRUE(nValue != 0 && nValue < 0x80000000 && nValue % 4 == 0);
        ASSERT_TRUE(seen.insert(handles.back()).second);
    }
    EXPECT_EQ(GetOpenHandleCount(), nBefore + 30'000);
    for (HANDLE const hProbe : handles)
    {
        ASSERT_TRUE(CloseHandle(hProbe));
    }
    EXPECT_EQ(GetOpenHandleCount(), nBefore);
    EXPECT_EQ(g_nAlive, 0);
    seen.clear();
    for (int nIndex = 0; nIndex < 50'000; ++nIndex)
    {
        HANDLE const hProbe = OpenProbe();
        ASSERT_TRUE(seen.insert(hProbe).second) << nIndex;
        CloseHandle(hProbe);
    }
}

TEST(Handles, OfManyClosersOneSucceedsAndLookupsSeeWholeObjects)
{
    g_nClosed = 0;
    constexpr int ROUNDS = 500;
    std::atomic<HANDLE> current{OpenProbe()};
    std::atomic<int> nClosings{0};
    std::atomic<bool> bStop{false};
    std::thread closers(RunThreads, 2,
                        [&](std::size_t)
                        {
                            while (!bStop)
                            {
                                if (Ref<Probe> const probe = FindObject<Probe>(current);
                                    probe && probe->GetKind() != Kind::Find)
                                {
                                    ADD_FAILURE();
                                }
                                nClosings += CloseHandle(current) != FALSE;
                            }
                        });
    for (int nRound = 0; nRound < ROUNDS; ++nRound)
    {
        while (nClosings <= nRound)
        {
            std::this_thread::yield();
        }
        if (nRound + 1 < ROUNDS)
        {
            current = OpenProbe();
        }
    }
    bStop = true;
    closers.join();
    EXPECT_EQ(nClosings, ROUNDS);
    EXPECT_EQ(g_nClosed, ROUNDS);
    EXPECT_EQ(g_nAlive, 0);
}

} // namespace
