#include "TestProvider.h"
#include "tests/support/KeptLog.h"

#include "kvx/foundation/AppException.h"
#include "kvx/foundation/Dictionary.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"
#include "kvx/transport/MsgConnection.h"

#include <gmock/gmock.h>

#include <stdexcept>

using testing::ElementsAre;

namespace
{
/// An exception with no text to offer.
class CSilentException : public CException
{
public:
    BOOL GetErrorMessage(LPTSTR, UINT, UINT *) const override { return FALSE; }
};

class CPreparedRequest : public CMsgRequest
{
public:
    void PrepareRequest() override { (*this)[_T("prepared")] = ++m_nCalls; }
    int m_nCalls = 0;
};
} // namespace

TEST(Request, FlagsAreWhatGoesOnTheWire)
{
    CMsgRequest request(4);
    request.KeepAlive(0);
    EXPECT_TRUE(request.FlagIsSet(2) && !request.KeepAlive() && !request.DiscardResults());
    request.DiscardResults(1);
    request.KeepAlive(7);
    EXPECT_TRUE(request.FlagIsSet(1) && request.FlagIsSet(4) && request.FlagIsNotSet(2));
}

TEST(Request, ParametersAreItsValues)
{
    CMsgRequest request;
    CDictionary source;
    source[_T("A")] = _T("1");
    source[_T("a")] = _T("2");
    request.SetParam(_T("kept"), 3);
    request.SetParams(source);
    request.SetParam(_T("A"), CDictionary());
    EXPECT_TRUE(request.RenameParam(_T("kept"), _T("a")) && !request.RenameParam(_T("missing"), _T("a")));
    CDictionary target;
    target[_T("own")] = 1;
    request.GetParams(target);
    EXPECT_EQ(target.ToString(0, _T(" ")), _T("own=1 A= a=3"));
    EXPECT_TRUE(request.RemoveParam(_T("A")) && !request.RemoveParam(_T("A")));
    request.ResetParams();
    EXPECT_EQ(request.GetStartParamPosition(), nullptr);
}

TEST(Request, ACopyIsFreeOfItsOrigin)
{
    CMsgFileConnection connection;
    CMsgRequest request(4);
    request.SetCommand(_T("t.x"));
    request.SetNotifyQueueName(_T("queue"));
    request.SetConnection(&connection);
    request.SetHandled(1);
    request[_T("p")] = 1;
    request.SetResponseError(5, _T("five"));

    CMsgRequest copy(request);
    request[_T("p")] = 2;
    request.GetResponse().Reset();
    EXPECT_EQ(copy.GetCommand(), _T("t.x"));
    EXPECT_TRUE(copy.FlagIsSet(4) && copy.IsHandled());
    EXPECT_EQ(copy[_T("p")], _T("1"));
    EXPECT_EQ(copy.GetResponse().GetErrorText(), _T("five"));
    EXPECT_EQ(copy.GetConnection(), nullptr);
    EXPECT_EQ(copy.GetNotifyQueueName(), _T(""));

    request.Reset();
    EXPECT_EQ(request.GetCommand() + request.GetNotifyQueueName(), _T("t.xqueue"));
    EXPECT_TRUE(request.FlagIsNotSet(4) && !request.IsHandled() && !request.GetConnection());
    EXPECT_EQ(request.GetValueCount(), 0);
}

TEST(Request, ExecuteAndSendRunHere)
{
    CleanTree const tree;
    CPreparedRequest request;
    EXPECT_EQ(request.Execute().GetErrorText(), _T("Unsupported command: "));
    EXPECT_EQ(request.Execute(_T("no%s.way")).GetErrorCode(), 50u);
    EXPECT_EQ(request.Execute(_T("")).GetErrorText(), _T("Unsupported command: no%s.way"));

    Dispatcher().RegisterProvider(
        _T("t.x"), [](CMsgRequest & r, void *) { r.SetResponseError(r.DiscardResults(), _T("%s"), r[_T("prepared")]); },
        nullptr);
    EXPECT_EQ(request.Execute(_T("t.x")).GetErrorText(), _T("4"));
    EXPECT_FALSE(request.DiscardResults());
    EXPECT_EQ(request.Send(_T("T.X")).GetErrorText(), _T("5"));
    EXPECT_EQ(request.Execute(_T("t.no")).GetErrorCode(), 50u); // the last one was handled, this one isn't
    request.Send(_T("t.x"));
    EXPECT_EQ(request.GetResponse().GetErrorCode(), 1u);
    EXPECT_TRUE(request.Execute().GetErrorCode() && request.DiscardResults()); // the bit stays
    Dispatcher().EnableNotifications(0);                                       // the tree goes at the end of the test
    EXPECT_TRUE(request.Notify());
    EXPECT_EQ(request.m_nCalls, 9);
    Dispatcher().EnableNotifications(1);
}

TEST(Request, AHeldResponseStaysAsItIs)
{
    CMsgRequest request;
    kvx::RefPtr<CMsgResponse> const held(&request.Execute(_T("no.way")));
    request.Execute(_T("no.other"));
    EXPECT_EQ(held->GetErrorText(), _T("Unsupported command: no.way"));
    EXPECT_EQ(request.GetResponse().GetErrorText(), _T("Unsupported command: no.other"));

    CMsgResponse other;
    other.SetError(7, _T("seven"));
    CMsgResponse const * const own = &request.GetResponse();
    request.SetResponse(other);
    EXPECT_EQ(&request.GetResponse(), own); // nobody holds it: in place
    kvx::RefPtr<CMsgResponse> const seven(&request.GetResponse());
    other.SetError(8, _T("eight"));
    request.SetResponse(other);
    EXPECT_EQ(seven->GetErrorCode(), 7u);
    EXPECT_EQ(request.GetResponse().GetErrorCode(), 8u);
    request.Reset();
    EXPECT_TRUE(request.GetResponse() && seven->Failed());
}

TEST(Response, CodeAndText)
{
    CMsgResponse response;
    response.SetError(0, _T("text"));
    EXPECT_TRUE(response.Failed() && !response.Succeeded() && !response);
    response.SetError(2, nullptr);
    EXPECT_EQ(response.GetErrorText(), CWinError(2).GetText());
    EXPECT_FALSE(response.GetErrorText().IsEmpty() || response.GetErrorText().AsView().back() < ' ');
    response.SetError(0x2000ABCD, nullptr); // nobody's code
    EXPECT_EQ(response.GetErrorText(), _T(""));
    response.SetError(0, nullptr);
    EXPECT_TRUE(response);
    SetLastError(5);
    EXPECT_EQ(response.SyncLastError(), 5u);
    EXPECT_EQ(response.GetErrorText(), CWinError(5).GetText());

    // Texts with signs of formats survive, also one that can't be carried out.
    response.SetError(9, _T("100%s of %d"));
    CMsgResponse copy;
    copy.CopyErrorInfo(response);
    EXPECT_EQ(copy.GetErrorText(), _T("100%s of %d"));
    try
    {
        copy.ThrowException();
    }
    catch (CMsgException * failure)
    {
        EXPECT_TRUE(failure->GetErrorCode() == 9 && failure->GetErrorText() == _T("100%s of %d"));
        failure->Delete();
    }
}

TEST(Request, WhatAProviderThrowsIsTheResponse)
{
    CleanTree const tree;
    KeptLog log;
    std::function<void()> fail;
    Dispatcher().RegisterProvider(_T("t.x"), new CTestProvider([&](CMsgRequest &) { fail(); }), 0);
    auto const respond = [&](std::function<void()> how)
    {
        fail = std::move(how);
        CMsgRequest request;
        CMsgResponse const & response = request.Execute(_T("T.x"));
        return std::to_string(response.GetErrorCode()) + " " + kvx::ToUtf8(response.GetErrorText());
    };
    EXPECT_EQ(respond([] { ThrowAppException(87, _T("no %s"), _T("good")); }), "87 no good");
    EXPECT_EQ(respond([] { MsgThrowException(0, _T("no code")); }), "0 no code");
    EXPECT_EQ(respond(
                  []
                  {
                      SetLastError(4711);
                      throw new CSilentException;
                  }),
              "4711 <NO MESSAGE>");
    EXPECT_EQ(respond([] { throw std::runtime_error("std"); }), "4294967295 ServiceProviders: Unhandled exception");
    EXPECT_EQ(respond([] { throw 5; }), "4294967295 ServiceProviders: Unhandled exception");
    EXPECT_THAT(
        log.Take(),
        ElementsAre("E ERROR! CAppException in MsgTarget:ServiceProviders path = T.x name= t text = no good",
                    "E ERROR! CAppException in MsgTarget:ServiceProviders path = T.x name= t text = no code",
                    "E ERROR! CException in MsgTarget:ServiceProviders path = T.x  name= t, message = <NO MESSAGE>",
                    "E ERROR! Exception in MsgTarget:Service path = T.x name= t",
                    "E ERROR! Exception in MsgTarget:Service path = T.x name= t"));
}
