#include "Received.h"

#include "kvx/events/MsgObservableProvider.h"
#include "kvx/events/MsgObserver.h"
#include "kvx/events/MsgPublisher.h"
#include "kvx/events/MsgSubscriber.h"
#include "kvx/foundation/AppException.h"

#include <algorithm>

namespace
{
/// An observable provider on the target "source".
class Observers : public testing::Test
{
protected:
    Observers() { Dispatcher().RegisterProvider(_T("source"), m_pSource, 0); }
    ~Observers() override { Dispatcher().DeleteTarget(_T("source")); }

    int Send(LPCTSTR event, int n)
    {
        CDictionary params;
        params.CreateValue(_T("n")) = n;
        return m_pSource->SendObserverEvent(event, &params, nullptr);
    }
    static CStringValue Advise(LPCTSTR events, LPCTSTR path, CString const & connector, DWORD expected = 0)
    {
        CMsgRequest request;
        request[_T("events")] = events;
        request[_T("path")] = path;
        request[_T("connector")] = connector;
        EXPECT_EQ(request.Execute(_T("source.observer.advise")).GetErrorCode(), expected);
        return request[_T("cookie")];
    }
    static int Unadvise(CStringValue const & cookie)
    {
        CMsgRequest request;
        request[_T("cookie")] = cookie;
        return request.Execute(_T("source.observer.unadvise")).Succeeded();
    }

    CMsgObservableProvider * m_pSource = new CMsgObservableProvider;
};
} // namespace

TEST_F(Observers, GetWhatTheyWantUnderTheirNames)
{
    Receiving sink(_T("sink"));
    EXPECT_FALSE(Send(_T("a"), 1)); // nobody observes
    CStringValue const first = Advise(_T("a=x,b"), _T("sink.one"), CString());
    CStringValue const second = Advise(_T("b"), _T("sink.two"), CString());
    EXPECT_NE(first, second);
    EXPECT_TRUE(Send(_T("a"), 1));
    EXPECT_TRUE(Send(_T("b"), 2));
    EXPECT_TRUE(Send(_T("c"), 3)); // nobody wants it
    EXPECT_EQ(sink->WaitFor(3), (std::vector<std::string>{"sink.one.x=1", "sink.one.b=2", "sink.two.b=2"}));
    EXPECT_TRUE(m_pSource->PostObserverEvent(_T("a"), nullptr, nullptr));
    EXPECT_EQ(sink->WaitFor(4).back(), "sink.one.x=");
    EXPECT_TRUE(Unadvise(first));
    EXPECT_TRUE(Unadvise(first)); // known no more
    EXPECT_TRUE(Unadvise(_T("12345")));
    EXPECT_FALSE(Unadvise(_T("0")));
    EXPECT_TRUE(Send(_T("b"), 5));
    EXPECT_EQ(sink->WaitFor(5).back(), "sink.two.b=5");
    Advise(_T("bad"), _T("nowhere"), CString());
    EXPECT_TRUE(Unadvise(second));
    EXPECT_FALSE(Send(_T("bad"), 1)); // only a failure
}

TEST_F(Observers, AreReachedThroughConnections)
{
    Receiving sink(_T("sink"));
    Listening const listener(_T("")); // the whole tree, as another process would offer its own
    CStringValue const first = Advise(_T("Up"), _T("Sink.Far"), listener.GetConnection());
    CStringValue const second = Advise(_T("Up"), _T("sink.near"), CString());
    EXPECT_TRUE(Send(_T("Up"), 1));
    std::vector<std::string> lines = sink->WaitFor(2);
    std::ranges::sort(lines); // the listener's thread and this one
    EXPECT_EQ(lines, (std::vector<std::string>{"sink.far.up=1", "sink.near.Up=1"}));
    EXPECT_TRUE(Unadvise(second));
    EXPECT_TRUE(Send(_T("Up"), 2));
    EXPECT_EQ(sink->WaitFor(3).back(), "sink.far.up=2");
    EXPECT_TRUE(Unadvise(first));

    CMsgRequest request;
    EXPECT_EQ(Advise(_T("a"), _T("p"), _T("nonsense:x"), 87), CString());
    try
    {
        m_pSource->Advise(_T("p"), _T("a"), _T("nonsense:%s"));
        FAIL() << "nothing thrown";
    }
    catch (CMsgException * failure)
    {
        EXPECT_EQ(failure->GetErrorText().Find(_T("invalid oberver connection string: nonsense:")), 0);
        failure->Delete();
    }
    EXPECT_FALSE(Send(_T("a"), 1));
}

TEST_F(Observers, CannotBeAddedFromOutside)
{
    // Whatever road the request takes, two-way or one-way, and whoever queues it again on its way.
    Dispatcher().RegisterProvider(
        _T("again"),
        [](CMsgRequest & request, void *)
        {
            CMsgRequest copy(request);
            copy.SetNotifyQueueName(_T("outside"));
            copy.Notify(_T("source.observer.advise"));
        },
        nullptr);
    Receiving got(_T("got"));
    CMsgPublisher publisher;
    Dispatcher().RegisterProvider(
        _T("subscribe"),
        [](CMsgRequest & request, void * to)
        { static_cast<CMsgPublisher *>(to)->RegisterSubscription(request, _T("source.observer.advise,got.last")); },
        &publisher);
    {
        Listening const tcp(_T(""));
        CString name;
        name.Format(_T("nt_pipe:outside-%u"), GetCurrentProcessId());
        Listening const pipe(_T(""), name);
        CMsgSubscriber subscriber;
        EXPECT_NE(subscriber.Connect(_T("subscribe"), tcp.GetConnection(), 0), CString());
        for (CString const & road : {tcp.GetConnection(), pipe.GetConnection(), _T("relay:") + tcp.GetConnection()})
        {
            Dispatcher().RegisterProvider(_T("far"), _T("forward:") + road, 1);
            for (LPCTSTR const command : {_T("far.source.observer.advise"), _T("far.again")})
            {
                CMsgRequest request;
                request[_T("events")] = _T("a");
                EXPECT_TRUE(request.Send(command).Succeeded());
                request.DiscardResults(0);
                EXPECT_TRUE(request.Execute(command).Succeeded()); // nothing happens
                EXPECT_FALSE(request.HasParam(_T("cookie")));
            }
            Dispatcher().DeleteTarget(_T("far"));
        }
        CMsgRequest event;
        event.SetCommand(_T("source.observer.advise"));
        event[_T("events")] = _T("a");
        publisher.Service(event);
        event.SetCommand(_T("got.last"));
        publisher.Service(event);
        got->WaitFor(1);
    } // all that has come in is served
    CMsgRequest last;
    last.SetNotifyQueueName(_T("outside"));
    last.Notify(_T("got.last"));
    got->WaitFor(2);
    EXPECT_FALSE(Send(_T("a"), 1));
    Dispatcher().DeleteTarget(_T("again"));
    Dispatcher().DeleteTarget(_T("subscribe"));
}
