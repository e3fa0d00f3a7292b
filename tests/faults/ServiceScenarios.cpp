// Listeners that come and go, subscriptions and observers.

#include "Service.h"

#include "kvx/events/MsgObservableProvider.h"
#include "kvx/events/MsgPublisher.h"
#include "kvx/events/MsgSubscriber.h"

#include <optional>

namespace
{
using faults::Await;
using faults::CEcho;
using faults::Done;
using faults::Echo;
using faults::Expect;
using faults::IsInjected;
using faults::Listening;
using faults::Scenario;

constexpr DWORD SHORT = 100; // milliseconds, for what needn't come when something has failed

/// A start, a client, a stop: again and again on the same listener.
class Listener : public Scenario
{
public:
    void Run() override
    {
        struct Stops
        {
            CMsgListener & listener;
            ~Stops() { listener.StopListener(); }
        } const stops{*m_pListener};
        Done([&] { return m_pListener->StartListener() != 0; }, "StartListener");
        Done([&] { return m_pListener->WaitUntilListening(20000) != 0; }, "WaitUntilListening");
        auto * const tcp = dynamic_cast<CMsgTCPListener *>(m_pListener);
        CString connection = m_strConfig;
        if (tcp)
        {
            connection.Format(_T("tcp:127.0.0.1:%u"), tcp->GetListeningPort());
        }
        kvx::RefPtr<CMsgProvider> const client(faults::Dispatcher().CreateProvider(connection));
        CMsgRequest request;
        request[_T("mark")] = _T("!");
        CMsgCursor rows(_T("questions"));
        rows[_T("name")] = _T("one");
        request.SetExParams(rows);
        request.SetCommand(_T("svc.echo"));
        client->Service(request);
        faults::Check(request.GetResponse(), "a request");
        CMsgCursor answer(request.GetResponse());
        Expect(answer.NextRow() && answer[_T("name")] == _T("one!"), "the answer of a new listener");
    }

protected:
    explicit Listener(LPCTSTR config)
        : m_strConfig(config), m_pListener(faults::Dispatcher().RegisterListener(_T(""), config, 0))
    {
    }
    ~Listener() override { faults::Dispatcher().GetRootTarget()->RemoveProvider(m_pListener, 1); }

private:
    Echo m_echo{_T("svc")};
    CString m_strConfig;
    CMsgListener * m_pListener;
};

struct TcpListener : Listener
{
    TcpListener() : Listener(_T("tcp:127.0.0.1:0")) {}
};
struct PipeListener : Listener
{
    PipeListener() : Listener(_T("nt_pipe:faults")) {}
};

/// Publishes to a subscriber, breaks its connection, and publishes to it again when it has come back.
class Subscription : public Scenario
{
public:
    Subscription()
    {
        auto const subscribe = [](CMsgRequest & request, void * self)
        {
            request.SetHandled(1);
            CString const events = request[_T("events")];
            static_cast<Subscription *>(self)->m_publisher.RegisterSubscription(request, events);
        };
        faults::Dispatcher().RegisterProvider(_T("pub.subscribe"), subscribe, this);
        faults::Dispatcher().RegisterProvider(_T("got"), m_pReceiver, 0);
        m_listening.emplace(_T("tcp:127.0.0.1:0"));
    }
    ~Subscription() override
    {
        m_listening.reset();
        faults::Dispatcher().DeleteTarget(_T("pub"));
        faults::Dispatcher().DeleteTarget(_T("got"));
    }
    int GetAfterEffects() const override { return 2; }
    void Run() override
    {
        CMsgRequest request;
        CString const connection = m_listening->GetConnection();
        request.SetCommand(_T("pub.subscribe"));
        request[_T("events")] = _T("got.note");
        CMsgSubscriber subscriber;
        bool const bConnected =
            faults::NoThrow("Connect", [&] { return subscriber.Connect(request, connection, 0) != 0; });
        if (!bConnected)
        {
            faults::Check(request.GetResponse(), "a subscription");
            throw faults::Fault{"no subscription, and no reason"};
        }
        Publish();
        CStringValue const handle = subscriber.GetConnectionHandle();
        m_publisher.UnregisterSubscription(handle);
        Expect(Await([&] { return m_publisher.HasSubscriptions() != 0; }), "a subscriber has not come back");
        Publish();
        subscriber.Disconnect();
        Expect(Await([&] { return !HasSubscribers(); }), "a subscriber who has left is still there");
    }

private:
    CMsgPublisher m_publisher;
    CEcho * m_pReceiver = new CEcho;
    std::optional<Listening> m_listening;
    int m_n = 0;

    /// What is published while a subscriber is on its way back doesn't reach it: more than once, if it must be.
    void Publish()
    {
        bool const bCame = Await(
            [this]
            {
                CMsgRequest event;
                event[_T("n")] = ++m_n;
                event.SetCommand(_T("got.note"));
                m_publisher.Service(event);
                return Await([this] { return m_pReceiver->GetNoted() >= m_n; }, SHORT);
            },
            IsInjected() ? 4 * SHORT : 20000);
        Expect(bCame || IsInjected(), "an event has not come");
    }
    /// Noticed when something is written.
    bool HasSubscribers()
    {
        CMsgRequest event;
        event.SetCommand(_T("got.note"));
        m_publisher.Service(event);
        return m_publisher.HasSubscriptions() != 0;
    }
};

/// Advises an observer in this process and one behind a connection, fires, and unadvises both.
class Observers : public Scenario
{
public:
    Observers()
    {
        faults::Dispatcher().RegisterProvider(_T("source"), m_pSource, 0);
        faults::Dispatcher().RegisterProvider(_T("sink"), m_pSink, 0);
        m_listening.emplace(_T("nt_pipe:faults"));
    }
    ~Observers() override
    {
        m_listening.reset();
        faults::Dispatcher().DeleteTarget(_T("source"));
        faults::Dispatcher().DeleteTarget(_T("sink"));
    }
    void Run() override
    {
        Advised const local(*this, CString());
        Fire();
        Advised const remote(*this, m_listening->GetConnection());
        Fire();
    }
    int GetAfterEffects() const override { return 2; }

private:
    CMsgObservableProvider * m_pSource = new CMsgObservableProvider;
    CEcho * m_pSink = new CEcho;
    std::optional<Listening> m_listening;
    int m_n = 0;

    struct Advised
    {
        Observers & owner;
        INT_PTR nCookie;

        Advised(Observers & observers, CString const & connector)
            : owner(observers), nCookie(owner.m_pSource->Advise(_T("sink"), _T("fired=note"), connector))
        {
        }
        ~Advised() { owner.m_pSource->Unadvise(nCookie); }
    };

    void Fire()
    {
        CDictionary params;
        params.CreateValue(_T("n")) = ++m_n;
        bool const bSent = m_pSource->SendObserverEvent(_T("fired"), &params, nullptr) != 0;
        Expect(bSent || IsInjected(), "an event was not sent");
        bool const bCame = Await([this] { return m_pSink->GetNoted() >= m_n; }, IsInjected() ? SHORT : 20000);
        Expect(bCame || IsInjected(), "an event has not come");
    }
};
} // namespace

namespace faults
{
std::vector<Description> GetServiceScenarios()
{
    return {{"tcp-listener", &Make<TcpListener>},
            {"nt-pipe-listener", &Make<PipeListener>},
            {"subscription", &Make<Subscription>},
            {"observers", &Make<Observers>}};
}
} // namespace faults
