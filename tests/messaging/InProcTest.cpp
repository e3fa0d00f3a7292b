#include "TestProvider.h"
#include "tests/support/KeptLog.h"

#include "kvx/foundation/AppException.h"
#include "kvx/messaging/MsgFactory.h"
#include "kvx/messaging/MsgForwardProvider.h"

#include <gmock/gmock.h>

using testing::_;
using testing::ElementsAre;

namespace
{
LPCTSTR const MODULE = _T("test_messaging_module.dll");
LPCTSTR const OTHER_MODULE = _T("test_messaging_plain"); // exports nothing that the library looks for

std::string Answer(LPCTSTR command)
{
    CMsgRequest request;
    return kvx::ToUtf8(request.Execute(command).GetErrorText());
}

std::string ErrorText(DWORD code)
{
    return kvx::ToUtf8(CWinError(code).GetText());
}
} // namespace

TEST(InProc, AProviderKeepsItsModule)
{
    CleanTree tree;
    ASSERT_NE(Dispatcher().RegisterProvider(_T("t.general"), _T("inproc:test_messaging_module.dll@any"), 1), nullptr);
    ASSERT_NE(Dispatcher().RegisterProvider(_T("t.special"), _T("inproc:test_messaging_module@special"), 1), nullptr);
    EXPECT_EQ(Answer(_T("t.general")), "general:any");
    EXPECT_EQ(Answer(_T("t.special")), "special:special");
    EXPECT_TRUE(Dispatcher().UnregisterProvider(_T("t.general"), _T("inproc:test_messaging_module.dll@any")));
    EXPECT_NE(GetModuleHandleW(MODULE), nullptr);
    Dispatcher().DeleteTarget(_T("t"));
    EXPECT_EQ(GetModuleHandleW(MODULE), nullptr);
}

TEST(InProc, FailuresLeaveNoModuleBehind)
{
    CleanTree tree;
    KeptLog log;
    for (LPCTSTR const config :
         {_T("inproc:mod"), _T("inproc:"), _T("inproc:no_such_module@x"), _T("inproc:test_messaging_plain@x"),
          _T("inproc:test_messaging_module@unknown"), _T("inproc:test_messaging_module@lame")})
    {
        EXPECT_EQ(Dispatcher().RegisterProvider(_T("t.x"), config, 1), nullptr);
    }
    EXPECT_THAT(
        log.Take(),
        ElementsAre("E Cannot load in-proc provider: No provider name specified for module 'mod'",
                    "E Cannot load in-proc provider: No provider name specified for module ''",
                    "E Cannot load in-proc provider 'x': Provider creator not found",
                    "E Cannot create in-proc provider 'unknown' from module 'test_messaging_module': Unknown provider",
                    "E Cannot register provider 't.x=inproc:test_messaging_module@lame'"));
    EXPECT_EQ(GetModuleHandleW(MODULE), nullptr);
    EXPECT_EQ(GetModuleHandleW(OTHER_MODULE), nullptr);
}

TEST(InProc, FactoriesComeFromModules)
{
    CleanTree tree;
    KeptLog log;
    EXPECT_FALSE(Dispatcher().RegisterFactory(_T("a"), _T("no_such_module")));
    EXPECT_FALSE(Dispatcher().RegisterFactory(_T("a"), _T("test_messaging_plain")));
    EXPECT_FALSE(Dispatcher().RegisterFactory(_T("a"), _T("test_messaging_module@NoSuchEntry")));
    SetLastError(0);
    EXPECT_FALSE(Dispatcher().RegisterFactory(_T("a"), _T("test_messaging_module@MakeNothing")));
    EXPECT_THAT(log.Take(), ElementsAre("E Cannot load factory 'a=no_such_module': " + ErrorText(126),
                                        "E Cannot load factory 'a=test_messaging_plain': " + ErrorText(127),
                                        "E Cannot load factory 'a=test_messaging_module': " + ErrorText(127), _));
    EXPECT_EQ(GetModuleHandleW(MODULE), nullptr);

    EXPECT_TRUE(Dispatcher().RegisterFactory(_T("Serving"), _T("test_messaging_module")));
    EXPECT_TRUE(Dispatcher().RegisterFactory(_T("Serving"), _T("no_such_module"))); // known: nothing is loaded
    EXPECT_THAT(log.Take(), ElementsAre("I Loaded factory 'Serving=test_messaging_module'"));
    ASSERT_NE(Dispatcher().RegisterProvider(_T("t.x"), _T("Serving:p"), 1), nullptr);
    EXPECT_EQ(Answer(_T("t.x")), "Serving:p");
}

TEST(Forward, CutsThePrefixOff)
{
    CleanTree tree;
    class CRecordingFactory : public CMsgFactory
    {
    public:
        CMsgProvider * CreateProvider(LPCTSTR) override
        {
            return new CTestProvider([](CMsgRequest & r) { r.SetResponseError(1, _T("%s"), r.GetCommand()); });
        }
    };
    Dispatcher().RegisterFactory(_T("recording"), new CRecordingFactory);
    KeptLog log;
    EXPECT_EQ(Dispatcher().CreateProvider(_T("forward:nocolon")), nullptr);
    EXPECT_EQ(Dispatcher().CreateProvider(_T("forward:")), nullptr);
    EXPECT_EQ(Dispatcher().CreateProvider(_T("forward:forward:unknown:x")), nullptr);
    EXPECT_THAT(log.Take(), ElementsAre("E Unknown provider type 'unknown'"));

    auto * const deep = Dispatcher().RegisterProvider(_T("t.A.b"), _T("forward:recording:x"), 1);
    ASSERT_NE(dynamic_cast<CMsgForwardProvider *>(deep), nullptr);
    EXPECT_EQ(Answer(_T("T.a.B.Command.t.a.Rest")), "b.command.rest"); // wherever the prefix is, and in lower case
    Dispatcher().RegisterProvider(_T("t"), _T("forward:recording:x"), 1);
    CMsgRequest request;
    EXPECT_EQ(request.Execute(_T("T.Other")).GetErrorText(), _T("other"));
    EXPECT_EQ(request.GetCommand(), _T("other"));
    auto * const nested = static_cast<CMsgForwardProvider *>(
        Dispatcher().RegisterProvider(_T("t.c.d.e"), _T("forward:forward:recording:x"), 1));
    EXPECT_NE(dynamic_cast<CMsgForwardProvider *>(nested->GetInner()), nullptr);
    EXPECT_EQ(Answer(_T("t.c.d.e.f")), "e.f");
    EXPECT_EQ(nested->GetInner()->GetTarget(), nested->GetTarget());

    // Who outlives the tree lets go of it, and a module goes behind its provider.
    kvx::RefPtr<CMsgProvider> held(deep);
    EXPECT_NE(Dispatcher().RegisterProvider(_T("t.m"), _T("forward:inproc:test_messaging_module@f"), 1), nullptr);
    Dispatcher().DeleteTarget(_T("t"));
    EXPECT_EQ(static_cast<CMsgForwardProvider *>(deep)->GetInner()->GetTarget(), nullptr);
    held = nullptr;
    EXPECT_EQ(CTestProvider::sm_nAlive, 0);
}
