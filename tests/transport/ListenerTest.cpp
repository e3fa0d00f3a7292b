#include "TcpService.h"

#include <algorithm>
#include <atomic>
#include <thread>

namespace
{
/// A gate on the target "svc": who comes waits there until it is opened.
class Gate
{
public:
    Gate()
    {
        CMsgDispatcher::GetInstance()->RegisterProvider(
            _T("svc.gate"),
            [](CMsgRequest &, void * self)
            {
                auto & gate = *static_cast<Gate *>(self);
                ++gate.m_nCame;
                gate.m_open.Lock(PATIENCE);
            },
            this);
    }
    Gate(Gate const &) = delete;
    Gate & operator=(Gate const &) = delete;
    ~Gate() { Open(); }

    void Open() { m_open.SetEvent(); }
    void AwaitVisitors(int count) const
    {
        while (m_nCame < count)
        {
            Sleep(1);
        }
    }

private:
    CEvent m_open{FALSE, TRUE};
    std::atomic<int> m_nCame{0};
};

class Limits : public Tcp
{
protected:
    void Limit(CMsgListener::Limits const & limits)
    {
        m_pListener->StopListener();
        m_pListener->SetLimits(limits);
        Start();
    }
};

using Stop = Tcp;
} // namespace

TEST_F(Limits, AFloodOfOneWayRequestsWaitsAtItsSource)
{
    constexpr int COUNT = 1000;
    Gate gate;
    Limit({.nMaxBacklog = 10, .nMaxBacklogBytes = 1 << 20});
    std::atomic<int> sent{0};
    std::jthread flood(
        [&]
        {
            CMsgRequest request;
            request.DiscardResults(1);
            Call(request, _T("svc.gate"));
            request[_T("filler")] = CString(_T('x'), 50000);
            for (; sent < COUNT; ++sent)
            {
                request[_T("n")] = sent.load();
                Call(request, _T("svc.note"));
            }
        });
    gate.AwaitVisitors(1);
    for (int last = -1; last != sent;) // until it stands still: what the system takes on the way is all
    {
        last = sent;
        Sleep(100);
    }
    EXPECT_LT(sent, COUNT);
    {
        // Everybody else is served, on connections of their own.
        kvx::RefPtr<CMsgProvider> const other(CMsgTCPFactory().CreateProvider(m_strAddress));
        CMsgRequest request;
        request.SetCommand(_T("svc.echo"));
        other->Service(request);
        EXPECT_TRUE(request.GetResponse().Succeeded());
    }
    gate.Open();
    flood.join();
    m_pProvider->WaitForNotes(COUNT);
    std::vector<int> expected(COUNT);
    std::ranges::generate(expected, [i = 0]() mutable { return i++; });
    EXPECT_EQ(m_pProvider->GetNotes(), expected);
}

TEST_F(Limits, TooLongAndTooManyAreTurnedAwayAlone)
{
    Limit({.nMaxMessageBytes = 100000, .nMaxClients = 2});
    CMsgRequest request;
    CMsgSocket second = Dial();
    EXPECT_TRUE(Call(request, _T("svc.echo"))); // the first two are in
    CMsgSocket third = Dial();
    char byte = 0;
    EXPECT_LE(third.Receive(&byte, 1, 0), 0);
    third.Close();
    second.Close();

    request[_T("text")] = CString(_T('x'), 40000);
    EXPECT_TRUE(Call(request, _T("svc.echo")));
    for (int const length : {60000, 10000000}) // both within what is received ahead, and far beyond
    {
        request[_T("text")] = CString(_T('x'), length);
        EXPECT_FALSE(Call(request, _T("svc.echo")));
    }
    request[_T("text")] = _T("short");
    while (!Call(request, _T("svc.echo")).Succeeded())
    {
        Sleep(1); // until there is room again
    }
}

TEST_F(Stop, EndsAllClientsAtOnceWhileOneIsBusy)
{
    Gate gate;
    std::jthread const busy(
        [this]
        {
            kvx::RefPtr<CMsgProvider> const client(CMsgTCPFactory().CreateProvider(m_strAddress));
            CMsgRequest request;
            request.SetCommand(_T("svc.gate"));
            client->Service(request);
            EXPECT_FALSE(request.GetResponse().Succeeded());
        });
    gate.AwaitVisitors(1);
    CMsgRequest request;
    EXPECT_TRUE(Call(request, _T("svc.echo")));
    std::jthread const stopping([this] { m_pListener->StopListener(); });
    while (m_pListener->IsListening() || Call(request, _T("svc.echo")).Succeeded())
    {
        Sleep(1); // the handler is still in there
    }
    // The next run has nothing to do with the one that is still ending.
    Start();
    EXPECT_TRUE(Call(request, _T("svc.echo")));
    gate.Open();
    EXPECT_TRUE(Call(request, _T("svc.echo")));
}

TEST_F(Stop, AHandlerMayStopItsListener)
{
    static CMsgListener * s_pListener = nullptr;
    s_pListener = m_pListener;
    CMsgDispatcher::GetInstance()->RegisterProvider(
        _T("svc.stop"), [](CMsgRequest &, void *) { s_pListener->StopListener(); }, nullptr);
    for (int const oneWay : {0, 1})
    {
        CMsgRequest request;
        request.DiscardResults(oneWay);
        Call(request, _T("svc.stop"));
        while (m_pListener->IsListening())
        {
            Sleep(1);
        }
        Start();
        EXPECT_TRUE(Call(request, _T("svc.echo")));
    }
}
