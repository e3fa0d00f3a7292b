#include "TestProvider.h"
#include "tests/support/KeptLog.h"
#include "tests/support/Patience.h"

#include "kvx/foundation/AppException.h"
#include "kvx/messaging/MsgFactory.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <gmock/gmock.h>

#include <optional>

using testing::ElementsAre;

namespace
{
/// Starts only if its port isn't 1.
class CStubbornListener : public CMsgTCPListener
{
public:
    using CMsgTCPListener::CMsgTCPListener;
    int StartListener() override
    {
        if (GetPort() == 1)
        {
            SetLastError(ERROR_ACCESS_DENIED);
            return 0;
        }
        return CMsgTCPListener::StartListener();
    }
};

/// Makes what the params say, and keeps them.
class CTestFactory : public CMsgFactory
{
public:
    CMsgProvider * CreateProvider(LPCTSTR params) override
    {
        m_strParams = params;
        if (m_strParams == _T("none"))
        {
            return nullptr;
        }
        auto * const provider = new CTestProvider;
        provider->m_nStartResult = m_strParams != _T("lame");
        return provider;
    }
    CMsgListener * CreateListener(LPCTSTR params) override
    {
        m_strParams = params;
        return new CStubbornListener(new CMsgTCPBase::CConnectInfo(params));
    }

    CString m_strParams;
};

/// The factory lives to the end of the program; its name can't be given back.
CTestFactory & Factory()
{
    static CTestFactory * const s_factory = []
    {
        auto * const factory = new CTestFactory;
        Dispatcher().RegisterFactory(_T("Test"), factory);
        return factory;
    }();
    return *s_factory;
}
} // namespace

TEST(Factory, NamesAreExactAndTheFirstStays)
{
    CTestFactory const & factory = Factory();
    CTestFactory other;
    EXPECT_EQ(Dispatcher().RegisterFactory(_T("Test"), &other), 1);
    EXPECT_EQ(Dispatcher().LookupFactory(_T("Test")), &factory);
    EXPECT_EQ(Dispatcher().LookupFactory(_T("test")), nullptr);
}

TEST(Factory, ProvidersComeFromText)
{
    CleanTree const tree;
    Factory();
    KeptLog log;
    EXPECT_EQ(Dispatcher().RegisterProvider(_T("t.x"), _T("nocolon"), 1), nullptr);
    EXPECT_EQ(Dispatcher().RegisterProvider(_T("t.x"), _T("Test:none"), 1), nullptr);
    EXPECT_THAT(log.Take(), ElementsAre());
    EXPECT_EQ(Dispatcher().CreateProvider(_T("unk%s:x")), nullptr);
    EXPECT_EQ(Dispatcher().CreateProvider(_T(":")), nullptr);
    EXPECT_EQ(Dispatcher().RegisterProvider(_T("t.x"), _T("Test:lame"), 1), nullptr);
    EXPECT_EQ(CTestProvider::sm_nAlive, 0);
    EXPECT_NE(Dispatcher().RegisterProvider(_T("t.x"), _T("Test:lame"), 0), nullptr); // not asked to start
    CMsgProvider * const provider = Dispatcher().RegisterProvider(_T("t.x"), _T("Test:a:b@c"), 1);
    ASSERT_NE(provider, nullptr);
    EXPECT_EQ(Factory().m_strParams, _T("a:b@c"));
    EXPECT_EQ(provider->GetProviderParams(), _T("Test:a:b@c"));
    EXPECT_THAT(log.Take(), ElementsAre("E Unknown provider type 'unk%s'", "E Unknown provider type ''",
                                        "E Cannot register provider 't.x=Test:lame'",
                                        "I Loaded provider 't.x=Test:lame'", "I Loaded provider 't.x=Test:a:b@c'"));
    EXPECT_TRUE(Dispatcher().UnregisterProvider(_T("t.x"), _T("Test:a:b@c")));
    EXPECT_EQ(CTestProvider::sm_nAlive, 1);

    CString nested = _T("Test:x");
    for (int i = 0; i < 1000; ++i)
    {
        nested = _T("forward:") + nested;
    }
    EXPECT_EQ(Dispatcher().CreateProvider(nested), nullptr);
    EXPECT_THAT(log.Take(), ElementsAre("E Cannot create provider: more than 100 configurations in one"));
    kvx::RefPtr<CMsgProvider> const less(Dispatcher().CreateProvider(nested.Right(99 * 8 + 6)));
    EXPECT_EQ(CTestProvider::sm_nAlive, 2);
}

TEST(Factory, ListenersComeFromTextWithAnEvent)
{
    CleanTree const tree;
    Factory();
    KeptLog log;
    EXPECT_EQ(Dispatcher().CreateListener(_T("nocolon")), nullptr);
    EXPECT_EQ(Dispatcher().CreateListener(_T("unknown:x")), nullptr);
    EXPECT_EQ(Dispatcher().CreateListener(_T("event:x")), nullptr); // the event's token is no type
    EXPECT_THAT(log.Take(), ElementsAre());

    CMsgListener * const stubborn = Dispatcher().RegisterListener(_T("t.x"), _T("Test:127.0.0.1:1"), 1);
    EXPECT_NE(stubborn, nullptr);
    EXPECT_THAT(log.Take(),
                ElementsAre("I Loaded listener 't.x=Test:127.0.0.1:1'",
                            "E Cannot start listener 't.x=Test:127.0.0.1:1': " + kvx::ToUtf8(CWinError(5).GetText())));

    // The word "event" in any case, the token anywhere; in front it is cut off, at the end it stays in the params.
    CString name;
    name.Format(_T("Global\\kvx_factory_%d"), GetCurrentProcessId());
    CEvent ready(FALSE, TRUE, name);
    struct Case
    {
        CString config;
        CString params;
    };
    for (auto const & [config, params] : {Case{_T("EVENT:") + name + _T(";Test:127.0.0.1:0"), _T("127.0.0.1:0")},
                                          Case{_T("plain;eVent:") + name + _T(";Test:127.0.0.1:0"), _T("")},
                                          Case{_T("Test:127.0.0.1:0;event:") + name, _T("127.0.0.1:0;event:") + name}})
    {
        ready.ResetEvent();
        Factory().m_strParams.Empty();
        CMsgListener * const listener = Dispatcher().CreateListener(config);
        EXPECT_EQ(Factory().m_strParams, params);
        ASSERT_EQ(listener != nullptr, !params.IsEmpty()); // "plain;Test" is no type
        if (listener)
        {
            ASSERT_TRUE(Dispatcher().RegisterProvider(_T("t.y"), listener, 0) && listener->StartListener());
            EXPECT_FALSE(listener->WaitUntilListening(20)); // it can't before the event is set
            ready.SetEvent();
            EXPECT_TRUE(listener->WaitUntilListening(PATIENCE));
            EXPECT_TRUE(listener->StopListener());
        }
    }
}

TEST(Factory, TcpEndpoints)
{
    struct Case
    {
        LPCTSTR text;
        char const * server;
        int port;
        std::optional<std::pair<int, int>> timeout;
    };
    for (auto const & [text, server, port, timeout] :
         {Case{_T("host:1234"), "host", 1234, {}}, Case{_T("host:1234@5.500000"), "host", 1234, {{5, 500000}}},
          Case{_T("host:1234@5"), "host", 1234, {{5, 0}}}, Case{_T("host@.7"), "host", 0, {{0, 7}}},
          Case{_T("host:12x;event:y@"), "host", 12, {}}, Case{_T(""), "", 0, {}}})
    {
        kvx::RefPtr<CMsgTCPBase::CConnectInfo> const info(new CMsgTCPBase::CConnectInfo(text));
        EXPECT_EQ(info->m_strServer, server);
        EXPECT_EQ(info->m_nPort, port);
        ASSERT_EQ(info->m_timeout.has_value(), timeout.has_value());
        EXPECT_TRUE(!timeout ||
                    (info->m_timeout->tv_sec == timeout->first && info->m_timeout->tv_usec == timeout->second));
    }
}
