#include "TestProvider.h"

#include "kvx/messaging/MsgFactory.h"
#include "kvx/system/WinModule.h"
#include "kvx/threads/ThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>

namespace
{
/// Notes its end: stands for a module, or for a factory.
template <class BASE>
class Ending : public BASE
{
public:
    Ending(std::string & end, char sign) : m_end(end), m_cSign(sign) {}
    ~Ending() override { m_end += m_cSign; }

private:
    std::string & m_end;
    char m_cSign;
};

/// Tidies up behind itself.
class Tidy : public CMsgProvider
{
public:
    ~Tidy() override { EXPECT_EQ(Dispatcher().DeleteTarget(_T("a")), 0); }
};
} // namespace

// There is no way back from Terminate: this program has one test.
TEST(Terminate, TakesDownQueuesTreeAndFactoriesInThisOrder)
{
    std::string end;
    static CEvent s_inside(FALSE, TRUE);
    static CEvent s_go(FALSE, TRUE);
    static std::atomic<int> s_served{0};
    Dispatcher().RegisterProvider(
        _T("slow"),
        [](CMsgRequest &, void *)
        {
            s_inside.SetEvent();
            s_go.Lock(INFINITE);
            ++s_served;
        },
        nullptr);
    Dispatcher().RegisterProvider(_T("a"), new CTestProvider({}, &end, '3'), 1);
    Dispatcher().RegisterProvider(_T("a"), new CTestProvider({}, &end, '4'), 1);
    Dispatcher().RegisterProvider(_T("a.b"), new CTestProvider({}, &end, '1'), 1);
    Dispatcher().RegisterProvider(_T("tidy"), new Tidy, 1);
    auto * const fromModule = new CTestProvider({}, &end, '1');
    Dispatcher().RegisterProvider(_T("a.b"), fromModule, 0);
    auto * const factory = new Ending<CMsgFactory>(end, '5');
    Dispatcher().RegisterFactory(_T("ending"), factory);
    // A module goes behind what is made from its code.
    fromModule->SetInProcModule(new Ending<CWinModule>(end, '2'));
    factory->SetModule(new Ending<CWinModule>(end, '6'));

    // One notification runs in a named queue, others wait behind it and are dropped.
    CMsgRequest request;
    request.SetNotifyQueueName(_T("queue"));
    for (int i = 0; i < 5; ++i)
    {
        request.Notify(_T("slow"));
    }
    s_inside.Lock(INFINITE);
    CThreadContext * const release = CThreadPool::BeginThread(
        [](void *) -> unsigned int
        {
            while (Dispatcher().AreNotificationsEnabled())
            {
                SwitchToThread();
            }
            s_go.SetEvent();
            return 0;
        },
        nullptr, 0);
    Dispatcher().Terminate();
    release->WaitForExit(INFINITE);
    EXPECT_GE(s_served, 1);
    EXPECT_EQ(Dispatcher().GetRootTarget(), nullptr);
    EXPECT_EQ(end, "1123456");
    EXPECT_EQ(CTestProvider::sm_nStopped, 0); // whoever started a provider stops it
    EXPECT_TRUE(request.Notify(_T("slow")));
    EXPECT_EQ(Dispatcher().LookupFactory(_T("tcp")), nullptr);
    Dispatcher().Terminate();
}
