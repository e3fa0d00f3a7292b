#include "Received.h"

#include "kvx/events/MsgPublication.h"
#include "kvx/events/MsgPublisher.h"
#include "kvx/events/MsgSubscriber.h"
#include "kvx/foundation/AppException.h"
#include "kvx/transport/MsgConnection.h"

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

namespace
{
/// A service on the target "pub" with a subscribing command, and its publisher.
class Service
{
public:
    explicit Service(UINT port = 0)
    {
        auto const subscribe = [](CMsgRequest & request, void * publisher)
        {
            request.SetHandled(1);
            CString const events = request[_T("events")];
            static_cast<CMsgPublisher *>(publisher)->RegisterSubscription(request, events);
        };
        Dispatcher().RegisterProvider(_T("pub.subscribe"), subscribe, m_publisher.get());
        m_listener.emplace(_T("pub"), port); // clients come from here on
    }
    Service(Service const &) = delete;
    Service & operator=(Service const &) = delete;
    ~Service()
    {
        m_listener.reset(); // nobody subscribes any more
        m_publisher.reset();
    }

    void Publish(LPCTSTR command, int n)
    {
        CMsgRequest request;
        request[_T("n")] = n;
        request.SetCommand(command);
        m_publisher->Service(request);
    }
    CMsgPublisher & GetPublisher() const { return *m_publisher; }
    CString GetConnection() const { return m_listener->GetConnection(); }
    UINT GetPort() const { return m_listener->GetPort(); }

private:
    std::unique_ptr<CMsgPublisher> m_publisher = std::make_unique<CMsgPublisher>();
    std::optional<Listening> m_listener;
};

int Connect(CMsgSubscriber & subscriber, CString const & events, CString const & connection)
{
    CMsgRequest request;
    request.SetCommand(_T("pub.subscribe"));
    request[_T("events")] = events;
    return subscriber.Connect(request, connection, 0);
}
} // namespace

TEST(Subscriptions, GetWhatTheySubscribedToInOrder)
{
    Receiving got(_T("got"));
    Service service;
    service.Publish(_T("got.a"), 1); // nobody is there
    CMsgSubscriber one;
    CMsgSubscriber two;
    ASSERT_TRUE(Connect(one, _T("got.a"), service.GetConnection()));
    ASSERT_TRUE(Connect(two, _T("got.a,got.b,got.a"), service.GetConnection()));
    EXPECT_NE(one.GetConnectionHandle(), two.GetConnectionHandle());
    EXPECT_EQ(service.GetPublisher().GetSubscriptionCount(), 2);
    service.Publish(_T("got.b"), 2);
    service.Publish(_T("got.c"), 3);
    EXPECT_EQ(got->WaitFor(1), std::vector<std::string>{"got.b=2"});
    for (int n = 0; n < 100; ++n)
    {
        service.Publish(_T("got.a"), n);
    }
    std::vector<std::string> const lines = got->WaitFor(201);
    int last = -1;
    for (int n = 0; n < 100; ++n)
    {
        EXPECT_EQ(got->Count("got.a=" + std::to_string(n)), 2);
        auto const at = static_cast<int>(std::ranges::find(lines, "got.a=" + std::to_string(n)) - lines.begin());
        EXPECT_GT(at, last);
        last = at;
    }
    CStringValue const handle = two.GetConnectionHandle();
    service.GetPublisher().UnregisterSubscription(_T("99"));
    service.GetPublisher().UnregisterSubscription(handle); // and it comes back, with another handle
    service.GetPublisher().UnregisterSubscription(handle);
    while (got->Count("got.b=7") == 0)
    {
        service.Publish(_T("got.b"), 7);
        std::this_thread::yield();
    }
    one.Disconnect();
    one.Disconnect();
    EXPECT_EQ(one.GetConnectionHandle(), CString());
    two.Disconnect();
    while (service.GetPublisher().HasSubscriptions()) // noticed when something is written
    {
        service.Publish(_T("got.a"), 0);
    }
}

TEST(Subscriptions, ComeBackAfterEveryRestart)
{
    constexpr int SUBSCRIBERS = 20;
    constexpr int RESTARTS = 50;
    Receiving got(_T("got"));
    auto service = std::make_unique<Service>();
    UINT const port = service->GetPort();
    std::vector<std::unique_ptr<CMsgSubscriber>> subscribers;
    for (int i = 0; i < SUBSCRIBERS; ++i)
    {
        subscribers.push_back(std::make_unique<CMsgSubscriber>());
        // Tries without the usual pauses, which would be most of this test.
        auto const reconnect = [](CMsgSubscriber * subscriber, void *)
        {
            for (; !subscriber->ShouldTerminate(); Sleep(1))
            {
                CMsgRequest request;
                request.SetCommand(subscriber->GetCommand());
                request.SetParams(subscriber->GetParameters());
                if (subscriber->Reconnect(request))
                {
                    return;
                }
            }
        };
        subscribers.back()->SetReconnectProc(reconnect, nullptr);
        ASSERT_TRUE(Connect(*subscribers.back(), _T("got.it"), service->GetConnection()));
    }
    for (int round = 0; round < RESTARTS; ++round)
    {
        service.reset();
        service = std::make_unique<Service>(port);
        DWORD const start = GetTickCount();
        while (service->GetPublisher().GetSubscriptionCount() < SUBSCRIBERS && GetTickCount() - start < PATIENCE)
        {
            SwitchToThread();
        }
        ASSERT_EQ(service->GetPublisher().GetSubscriptionCount(), SUBSCRIBERS) << round;
    }
    // All have had the answer to their request by the time that each gets this.
    std::string const line = "got.it=1";
    while (got->Count(line) < SUBSCRIBERS)
    {
        service->Publish(_T("got.it"), 1);
    }
}

namespace
{
/// A subscriber to "got.a" whose thread stands still in the first event that it gets, until this object goes.
class Standing
{
public:
    explicit Standing(Service const & service)
    {
        Dispatcher().RegisterProvider(
            _T("got.stand"),
            [](CMsgRequest &, void * self)
            {
                static_cast<Standing *>(self)->m_stands.SetEvent();
                static_cast<Standing *>(self)->m_end.Lock(PATIENCE);
            },
            this);
        EXPECT_TRUE(Connect(m_subscriber, _T("got.stand,got.a"), service.GetConnection()));
        service.GetPublisher().Service(m_event);
        EXPECT_TRUE(m_stands.Lock(PATIENCE));
    }
    Standing(Standing const &) = delete;
    Standing & operator=(Standing const &) = delete;
    ~Standing() { m_end.SetEvent(); }

    CStringValue GetHandle() const { return m_subscriber.GetConnectionHandle(); }

private:
    struct Event : CMsgRequest
    {
        Event() { SetCommand(_T("got.stand")); }
    } m_event;
    CEvent m_stands{FALSE, TRUE};
    CEvent m_end{FALSE, TRUE};
    CMsgSubscriber m_subscriber;
};
} // namespace

TEST(Subscriptions, ABlockedWriteEndsWithTheSubscription)
{
    Receiving got(_T("got"));
    Service service;
    Standing const standing(service);
    std::atomic<int> nPublished{0};
    std::atomic<bool> bEnd{false};
    std::thread publishing(
        [&]
        {
            CMsgRequest request;
            request[_T("n")] = CString(_T('x'), 100000);
            request.SetCommand(_T("got.a"));
            for (; !bEnd; ++nPublished)
            {
                service.GetPublisher().Service(request);
            }
        });
    for (int last = -1; last != nPublished || last == 0;) // until it stands still
    {
        last = nPublished;
        Sleep(20);
    }
    // Others come, to the same topic as well, hear what is published elsewhere, and go.
    CMsgSubscriber other;
    ASSERT_TRUE(Connect(other, _T("got.a,got.b"), service.GetConnection()));
    EXPECT_EQ(service.GetPublisher().GetSubscriptionCount(), 2);
    service.Publish(_T("got.b"), 1);
    EXPECT_EQ(got->WaitFor(1), (std::vector<std::string>{"got.b=1"}));
    service.GetPublisher().UnregisterSubscription(other.GetConnectionHandle());
    bEnd = true;
    service.GetPublisher().UnregisterSubscription(standing.GetHandle());
    publishing.join();
}

TEST(Subscriptions, GetWhatIsPublishedAsSoonAsTheyHaveTheirAnswer)
{
    constexpr std::size_t ROUNDS = 50;
    CString topics;
    for (int i = 0; i < 100; ++i)
    {
        topics.AppendFormat(_T("got.%d,"), i);
    }
    Receiving got(_T("got"));
    Service service;
    service.GetPublisher().SetSubscriberLimit(50, 1 << 20);
    for (std::size_t round = 1; round <= ROUNDS; ++round)
    {
        CMsgSubscriber brief;
        ASSERT_TRUE(Connect(brief, topics + _T("got.once"), service.GetConnection()));
        service.Publish(_T("got.once"), 1);
        ASSERT_EQ(got->WaitFor(round).size(), round);
    }
}

TEST(Subscriptions, WithALimitOneThatStandsStillIsDropped)
{
    constexpr int COUNT = 2000;
    Receiving got(_T("got"));
    Service service;
    service.GetPublisher().SetSubscriberLimit(50, 1 << 20, 300);
    CMsgSubscriber brisk;
    ASSERT_TRUE(Connect(brisk, _T("got.a"), service.GetConnection()));
    Standing const standing(service);
    CMsgRequest request;
    request.SetCommand(_T("got.a"));
    request[_T("filler")] = CString(_T('x'), 10000);
    std::vector<std::string> expected;
    for (int i = 0; i < COUNT; ++i)
    {
        request[_T("n")] = i;
        service.GetPublisher().Service(request);
        expected.push_back("got.a=" + std::to_string(i));
    }
    EXPECT_EQ(got->WaitFor(COUNT), expected);
    EXPECT_EQ(service.GetPublisher().GetSubscriptionCount(), 1);
}

TEST(Subscriptions, FailAndEndCleanly)
{
    Receiving got(_T("got"));
    Service service;
    CMsgSubscriber subscriber;
    CMsgRequest failing;
    failing.SetCommand(_T("pub.subscribe"));
    failing[_T("events")] = _T("got.a");
    for (CString const & wrong : {CString(), CString(_T("nonsense")), _T("forward:") + service.GetConnection()})
    {
        EXPECT_FALSE(subscriber.Connect(failing, wrong, 0));
        EXPECT_EQ(failing.GetResponse().GetErrorCode(), 87u);
    }
    failing[_T("events")].Empty();
    EXPECT_FALSE(subscriber.Connect(failing, service.GetConnection(), 0)); // to nothing at all
    EXPECT_EQ(failing.GetResponse().GetErrorCode(), 1168u);
    EXPECT_EQ(subscriber.Connect(_T("pub.unknown"), service.GetConnection(), 0), CString());
    EXPECT_TRUE(subscriber.ShouldTerminate() && subscriber.GetConnectionHandle().IsEmpty());
    EXPECT_FALSE(service.GetPublisher().HasSubscriptions());

    CMsgRequest local;
    local[_T("events")] = _T("got.a");
    CMsgResponse const & response = local.Execute(_T("pub.subscribe"));
    EXPECT_EQ(response.GetErrorCode(), 87u);
    EXPECT_EQ(response.GetErrorText(), _T("Connection required"));

    // A handler may end its own subscription, and whatever it throws ends a connection at most.
    static CMsgSubscriber * s_pSubscriber = nullptr;
    s_pSubscriber = &subscriber;
    Dispatcher().RegisterProvider(
        _T("leave"), [](CMsgRequest &, void *) { s_pSubscriber->Disconnect(); }, nullptr);
    ASSERT_TRUE(Connect(subscriber, _T("leave.now"), service.GetConnection()));
    service.Publish(_T("leave.now"), 1);
    while (!subscriber.ShouldTerminate())
    {
        std::this_thread::yield();
    }
    subscriber.Disconnect();
    Dispatcher().DeleteTarget(_T("leave"));
    for (int round = 0; round < 200; ++round)
    {
        CMsgSubscriber brief;
        ASSERT_TRUE(Connect(brief, _T("got.a"), service.GetConnection()));
    }
}
