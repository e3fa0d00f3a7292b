#include "TestProvider.h"
#include "tests/support/Patience.h"

#include "kvx/foundation/AppException.h"
#include "kvx/messaging/MsgTimedRequest.h"
#include "kvx/transport/MsgConnection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

namespace
{
/// Serves "timed" for the whole program: a worker may come out of the tree long after its caller has gone.
struct Server
{
    CEvent go{TRUE, TRUE};
    CEvent inside{FALSE, TRUE};
    CEvent left{FALSE, FALSE};
    std::atomic<int> nHurried{0}; // requests with the text "hurry"

    static Server & Get()
    {
        static Server & s_server = *new Server;
        return s_server;
    }

private:
    Server()
    {
        Dispatcher().RegisterProvider(
            _T("timed"),
            [](CMsgRequest & request, void * self)
            {
                auto & server = *static_cast<Server *>(self);
                server.inside.SetEvent();
                server.go.Lock(PATIENCE);
                request.SetResponseError(7, _T("%s"), request[_T("text")]);
                request.SetHandled(1);
                server.nHurried += request[_T("text")] == _T("hurry");
                server.left.SetEvent();
            },
            this);
    }
};
} // namespace

TEST(Timed, WithinTheLimitItIsAnOrdinaryRequest)
{
    Server::Get();
    CDefaultMsgTimeRequest request(PATIENCE);
    request[_T("text")] = _T("answer");
    EXPECT_EQ(request.Execute(_T("timed")).GetErrorText(), _T("answer"));
    EXPECT_EQ(request.GetResponse().GetErrorCode(), 7u);
    EXPECT_EQ(request.Execute(_T("no.way")).GetErrorCode(), 50u);
    EXPECT_TRUE(request.Notify(_T("timed"))); // only queued
    EXPECT_TRUE(request.DiscardResults());
    CMsgTimedRequest const copy(request);
    EXPECT_EQ(copy.GetTimeLimit(), PATIENCE);
    EXPECT_EQ(copy.GetValue(_T("text")), _T("answer"));
}

TEST(Timed, PastTheLimitALateResultIsDropped)
{
    Server & server = Server::Get();
    server.go.ResetEvent();
    server.inside.ResetEvent();
    server.left.ResetEvent();
    auto request = std::make_unique<CMsgTimedRequest>(DWORD{300}, 1);
    CMsgResponse & response = request->Execute(_T("timed"));
    kvx::RefPtr<CMsgResponse> const held(&response);
    if (response.GetErrorCode() != 0) // else the machine was too busy for the thread to begin
    {
        EXPECT_EQ(response.GetErrorCode(), 1460u);
        EXPECT_EQ(response.GetErrorText(), CWinError(1460).GetText());
    }
    CString const text = response.GetErrorText();
    request.reset(); // while the worker is still at it
    server.go.SetEvent();
    EXPECT_TRUE(server.left.Lock(PATIENCE));
    EXPECT_EQ(held->GetErrorText(), text);
}

TEST(Timed, ALimitOfNothingReturnsAtOnce)
{
    constexpr int COUNT = 50;
    Server & server = Server::Get();
    server.go.ResetEvent();
    for (int i = 0; i < COUNT; ++i)
    {
        CDefaultMsgTimeRequest request(0);
        request[_T("text")] = _T("hurry");
        DWORD const code = request.Execute(_T("timed")).GetErrorCode();
        EXPECT_TRUE(code == 0 || code == 1460) << code; // before the start, or after it
    }
    server.go.SetEvent();
    CDefaultMsgTimeRequest last(PATIENCE);
    EXPECT_EQ(last.Execute(_T("timed")).GetErrorCode(), 7u);
    // Each of them is served all the same, though nobody waits.
    for (DWORD waited = 0; server.nHurried < COUNT && waited < PATIENCE; waited += 5)
    {
        Sleep(5);
    }
    EXPECT_EQ(server.nHurried.exchange(0), COUNT);
}
