#include "TestProvider.h"

#include "kvx/messaging/MsgMap.h"
#include "kvx/transport/MsgConnection.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace
{
class CMapped : public CTestProvider
{
public:
    using CMsgProvider::BroadcastStateChange;
    using CTestProvider::CTestProvider;

    void RegisterProviderMap() override
    {
        CTestProvider::RegisterProviderMap();
        AddProvider(_T("Open.file"), new _MsgMapEntry<CMapped>(this, &CMapped::OnCommand));
        AddProvider(_T("local"), new _LocalMsgMapEntry<CMapped>(this, &CMapped::OnCommand));
        AddProvider(_T("root:t.top"), new _MsgMapEntry<CMapped>(this, &CMapped::OnCommand));
    }

    int m_nCalls = 0;

private:
    void OnCommand(CMsgRequest & request)
    {
        ++m_nCalls;
        request.SetResponseError(static_cast<DWORD>(m_nCalls), _T("handled %d"), request.IsHandled());
    }
};

/// Says that it has gone.
class CEntry : public _MsgMapEntry<CMapped>
{
public:
    explicit CEntry(CMapped * owner) : _MsgMapEntry(owner, nullptr) { ++sm_nAlive; }
    ~CEntry() override { --sm_nAlive; }
    static inline int sm_nAlive = 0;
};
} // namespace

TEST(MessageMap, EntriesAreLeavesBelowTheirOwner)
{
    CleanTree const tree;
    auto * const provider = new CMapped;
    Dispatcher().RegisterProvider(_T("t.files"), provider, 0);
    CMsgRequest request;
    EXPECT_EQ(request.Execute(_T("T.FILES.OPEN.File")).GetErrorText(), _T("handled 1"));
    EXPECT_EQ(request.Execute(_T("t.top")).GetErrorCode(), 2u);
    // What lies below an entry bubbles: the entry runs, says that it is handled, and that ends it.
    EXPECT_EQ(request.Execute(_T("t.files.open.file.x")).GetErrorCode(), 3u);

    CMsgFileConnection connection;
    request.SetConnection(&connection);
    EXPECT_TRUE(request.Execute(_T("t.files.local"))); // an empty success for one that is pinned to a connection
    EXPECT_EQ(provider->m_nCalls, 3);

    // The entries go with their owner, wherever they hang.
    Dispatcher().GetRootTarget()->LookupTarget(_T("t.files"))->RemoveProvider(provider, 1);
    EXPECT_EQ(CTestProvider::sm_nAlive, 0);
    EXPECT_TRUE(request.Execute(_T("t.top")));
}

TEST(MessageMap, AggregatesGoWithTheirOwner)
{
    {
        CMapped owner;
        owner.DetachAggregate(&owner); // there are none
        auto * const entry = new CEntry(&owner);
        EXPECT_EQ(owner.AddProvider(_T("x"), entry), 0); // no target
        EXPECT_EQ(entry->GetTarget(), nullptr);
        new CEntry(&owner);
        delete entry;
        EXPECT_EQ(CEntry::sm_nAlive, 1);
    }
    EXPECT_EQ(CEntry::sm_nAlive, 0);

    // The tree deletes entries first, then their owner.
    auto * const owner = new CMapped;
    Dispatcher().RegisterProvider(_T("t.a"), owner, 0);
    owner->AddProvider(_T("x"), new CEntry(owner));
    Dispatcher().DeleteTarget(_T("t"));
    EXPECT_EQ(CEntry::sm_nAlive + CTestProvider::sm_nAlive, 0);
}

TEST(MessageMap, ChangesOfStateAreCommands)
{
    CleanTree const tree;
    std::vector<std::string> seen;
    auto const serve = [&](CMsgRequest & request)
    {
        seen.push_back(kvx::ToUtf8(request.GetCommand() + _T(" ") + request.ToString(0, _T(" "))));
        request.SetHandled(request.DiscardResults());
    };
    Dispatcher().RegisterProvider(_T("t.services.notify"), new CTestProvider(serve), 0);
    auto * const provider = new CMapped;
    provider->SetProviderParams(_T("inproc:logger.dll@writer"));
    Dispatcher().RegisterProvider(_T("t.app.logging"), provider, 0);
    EXPECT_EQ(provider->BroadcastStateChange(CMsgProvider::PROVIDER_STARTED, 0), 1);
    provider->SetProviderParams(_T("plain"));
    EXPECT_EQ(provider->BroadcastStateChange(CMsgProvider::PROVIDER_STOPPING, 0), 1);
    EXPECT_THAT(seen, ElementsAre("t.services.notify.app.logging.writer.started state=started provider=writer",
                                  "t.services.notify.app.logging..stopping state=stopping provider="));
    CMapped alone;
    EXPECT_EQ(alone.BroadcastStateChange(CMsgProvider::PROVIDER_STOPPED, 0), 1);
}
