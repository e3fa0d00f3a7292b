#include "TestProvider.h"
#include "tests/support/KeptLog.h"

#include "kvx/foundation/AppException.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace
{
/// Notes each request as "sign:command", and says whether it was handled.
class Notes
{
public:
    CTestProvider * NewProvider(std::string sign, int handled)
    {
        return new CTestProvider(
            [this, sign = std::move(sign), handled](CMsgRequest & request)
            {
                m_seen.push_back(sign + ":" + kvx::ToUtf8(request.GetCommand()));
                request.SetHandled(handled);
            });
    }
    /// What a command comes to: its code, and who has seen it.
    std::vector<std::string> Run(LPCTSTR command)
    {
        CMsgRequest request;
        DWORD const code = request.Execute(command).GetErrorCode();
        m_seen.push_back(std::to_string(code));
        return std::exchange(m_seen, {});
    }

private:
    std::vector<std::string> m_seen;
};

class Tree : public testing::Test
{
protected:
    CleanTree m_tree;
    Notes m_notes;
    CMsgTarget & m_root = *Dispatcher().GetRootTarget();
};
} // namespace

TEST_F(Tree, CommandsReachTheDeepestTargetAndBubbleUp)
{
    Dispatcher().RegisterProvider(_T("t.A"), m_notes.NewProvider("a", 1), 0);
    Dispatcher().RegisterProvider(_T("T.a.B.c"), m_notes.NewProvider("c", 0), 0);
    EXPECT_THAT(m_notes.Run(_T("t.a.x.Y")), ElementsAre("a:t.a.x.Y", "0")); // nothing below: the whole command
    EXPECT_THAT(m_notes.Run(_T("T.A.b.C")), ElementsAre("c:T.A.b.C", "0")); // a leaf counts as handled
    EXPECT_THAT(m_notes.Run(_T("t.a.b.c.")), ElementsAre("c:t.a.b.c.", "0"));
    EXPECT_THAT(m_notes.Run(_T("t.a.b.c.d")), ElementsAre("c:t.a.b.c.d", "a:t.a.b.c.d", "0"));
    EXPECT_THAT(m_notes.Run(_T("t.a.b")), ElementsAre("0")); // exists, without a provider
    EXPECT_THAT(m_notes.Run(_T("t.a.b..c")), ElementsAre("a:t.a.b..c", "0"));
    EXPECT_THAT(m_notes.Run(_T("t.other")), ElementsAre("50"));
    EXPECT_THAT(m_notes.Run(_T(".t.a")), ElementsAre("50"));

    // A segment of any length.
    CString const longName(_T('X'), 1000);
    Dispatcher().RegisterProvider(_T("t.") + longName, m_notes.NewProvider("long", 0), 0);
    EXPECT_EQ(m_notes.Run(_T("t.") + longName).size(), 2u);
    EXPECT_THAT(m_notes.Run(_T("t.") + longName + _T("x")), ElementsAre("50"));
}

TEST_F(Tree, AllProvidersOfATargetRunWhateverTheOthersDo)
{
    KeptLog log; // keeps the failures out of the program's own log
    auto * const failing = new CTestProvider([](CMsgRequest &) { ThrowAppException(5, _T("first")); });
    Dispatcher().RegisterProvider(_T("t.x"), failing, 0);
    Dispatcher().RegisterProvider(_T("t.x"), m_notes.NewProvider("2", 1), 0);
    Dispatcher().RegisterProvider(_T("t.x"), new CMsgProvider, 0); // clears handled, of no account on a leaf
    EXPECT_THAT(m_notes.Run(_T("t.x")), ElementsAre("2:t.x", "5"));
    m_root.LookupTarget(_T("t.x"))->RemoveProvider(failing, 1);
    EXPECT_THAT(m_notes.Run(_T("t.x")), ElementsAre("2:t.x", "0"));
    EXPECT_THAT(m_notes.Run(_T("t.x.y")), ElementsAre("2:t.x.y", "50")); // here it is
}

TEST_F(Tree, AProviderMayChangeTheCommandOnItsWay)
{
    Dispatcher().RegisterProvider(
        _T("t.a.b"), new CTestProvider([](CMsgRequest & request) { request.SetCommand(CString(_T('z'), 500)); }), 0);
    Dispatcher().RegisterProvider(
        _T("t.a"),
        new CTestProvider([](CMsgRequest & request) { request.SetHandled(request.GetCommand().GetLength()); }), 0);
    CMsgRequest request;
    request.Execute(_T("t.a.b.unknown.further"));
    EXPECT_EQ(request.IsHandled(), 500);
}

TEST_F(Tree, PathsAndLookups)
{
    CMsgTarget * const child =
        (Dispatcher().RegisterProvider(_T("t.A.b"), new CMsgProvider, 0), m_root.LookupTarget(_T("T.a.B")));
    EXPECT_EQ(child->GetPath(), _T("t.a.b"));
    EXPECT_EQ(child->GetParent()->GetParent()->GetParent(), nullptr);
    EXPECT_EQ(m_root.LookupTarget(_T("t.a.x.y"))->GetPath(), _T("t.a"));
    EXPECT_EQ(m_root.LookupTarget(_T("")), &m_root);
    EXPECT_FALSE(m_root.DeleteTarget(_T("t.a.x")));
    EXPECT_FALSE(m_root.DeleteTarget(_T("")));
    EXPECT_TRUE(m_root.DeleteTarget(_T("t.A")));
    EXPECT_EQ(m_root.LookupTarget(_T("t.a.b"))->GetPath(), _T("t"));

    // "root:" leaves the place where one is.
    CMsgProvider * const one = m_notes.NewProvider("one", 0);
    EXPECT_TRUE(m_root.LookupTarget(_T("t"))->RegisterProvider(_T("root:t.One"), one));
    EXPECT_TRUE(m_root.RegisterProvider(_T("root:t.two"), m_notes.NewProvider("two", 0)));
    EXPECT_THAT(m_notes.Run(_T("t.one")), ElementsAre("one:t.one", "0"));
    EXPECT_THAT(m_notes.Run(_T("t.two")), ElementsAre("two:t.two", "0"));
    EXPECT_FALSE(m_root.RegisterProvider(_T("t.one"), one)); // there already
    EXPECT_THAT(m_notes.Run(_T("t.one")), ElementsAre("one:t.one", "0"));
    EXPECT_FALSE(Dispatcher().RegisterProvider(_T("t"), static_cast<CMsgProvider *>(nullptr), 1));
}

TEST_F(Tree, ForwardServesBelowATarget)
{
    Dispatcher().RegisterProvider(_T("t.a"), m_notes.NewProvider("a", 0), 0);
    Dispatcher().RegisterProvider(_T("t.a.b"), m_notes.NewProvider("b", 1), 0);
    CMsgRequest request;
    request.SetCommand(_T("t.a.b"));
    m_root.LookupTarget(_T("t.a"))->Forward(request);
    EXPECT_EQ(request.GetCommand(), _T("t.a.b"));
    EXPECT_THAT(m_notes.Run(_T("nowhere")), ElementsAre("b:t.a.b", "50"));
}

TEST_F(Tree, ProvidersComeAndGo)
{
    auto * const provider = new CTestProvider;
    provider->SetProviderParams(_T("Params"));
    EXPECT_EQ(Dispatcher().RegisterProvider(_T("t.x"), provider, 1), 1);
    EXPECT_EQ(provider->m_nStarted, 1);
    EXPECT_EQ(provider->GetRef(), 1u);
    EXPECT_EQ(m_root.LookupTarget(_T("t.x"))->LookupProvider(_T("Params")), provider);
    EXPECT_EQ(m_root.LookupTarget(_T("t.x"))->LookupProvider(_T("params")), nullptr);

    // By pointer the target and the reference stay with the provider, and the caller finishes the job.
    EXPECT_TRUE(Dispatcher().UnregisterProvider(_T("t.x"), provider));
    EXPECT_FALSE(Dispatcher().UnregisterProvider(_T("t.x"), provider));
    EXPECT_EQ(provider->GetTarget()->GetPath(), _T("t.x"));
    EXPECT_EQ(provider->DetachTarget(), 0u);
    EXPECT_EQ(CTestProvider::sm_nAlive, 0);

    // By text it is detached; an unknown path ends at the deepest target.
    auto * const second = new CTestProvider;
    second->SetProviderParams(_T("type:x"));
    second->m_nStartResult = 0;
    EXPECT_EQ(Dispatcher().RegisterProvider(_T("t.x"), second, 1), 0); // couldn't start, but is there
    EXPECT_FALSE(Dispatcher().UnregisterProvider(_T("t"), _T("type:x")));
    EXPECT_TRUE(Dispatcher().UnregisterProvider(_T("t.x.unknown"), _T("type:x")));
    EXPECT_EQ(CTestProvider::sm_nAlive, 0);

    // Who else holds one keeps it; one that is deleted leaves its target.
    kvx::RefPtr<CMsgProvider> const held(new CTestProvider);
    Dispatcher().RegisterProvider(_T("t.x"), held.Get(), 0);
    Dispatcher().DeleteTarget(_T("t.x"));
    EXPECT_EQ(held->GetTarget(), nullptr);
    auto * const deleted = new CTestProvider;
    Dispatcher().RegisterProvider(_T("t.y"), deleted, 0);
    delete deleted;
    EXPECT_THAT(m_notes.Run(_T("t.y")), ElementsAre("0"));
}

TEST_F(Tree, DepthIsNoStrainOnTheStack)
{
    constexpr int DEPTH = 100000;
    CString path = _T("t");
    for (int i = 0; i < DEPTH; ++i)
    {
        path += _T(".x");
    }
    auto * const provider = m_notes.NewProvider("deep", 0);
    EXPECT_TRUE(m_root.RegisterProvider(path, provider));
    EXPECT_EQ(provider->GetTarget()->GetPath(), path);
    EXPECT_EQ(m_notes.Run(path + _T(".y")).back(), "50"); // all the way down, and up again
    EXPECT_TRUE(m_root.DeleteTarget(path));
    EXPECT_EQ(CTestProvider::sm_nAlive, 0);
}
