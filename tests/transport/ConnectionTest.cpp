#include "MemoryStream.h"

#include "kvx/messaging/MsgRequest.h"
#include "kvx/transport/MsgConnection.h"
#include "kvx/transport/MsgTCPBase.h"

#include <gtest/gtest.h>

namespace
{
/// One end of a link whose other end's bytes are given.
class CScriptedConnection : public CMsgConnection
{
public:
    CScriptedConnection() : CMsgConnection(1) {}

    void GetHandles(void *& read, void *& write) override { read = write = nullptr; }
    int GetConnectionInfo(CValueAccessor &) override { return 0; }
    int IsConnected() override { return 1; }
    int Connect() override { return 1; }
    int Listen() override { return 0; }
    int Accept(CMsgConnection *) override { return 0; }
    int ReadData(void * buffer, DWORD count) override { return m_in.ReadData(buffer, count); }
    int WriteData(void const * buffer, DWORD count) override { return m_out.WriteData(buffer, count); }

    CMemoryStream m_in;
    CMemoryStream m_out;
};
} // namespace

TEST(Connection, HandshakeEchoesTheTag)
{
    struct Case
    {
        char const * incoming;
        int accepted;
        int compact;
        char const * answer;
    };
    for (Case const & c : {Case{"514C4452", 1, 0, "514C4452"}, Case{"564A4F50", 1, 1, "564A4F50"},
                           Case{"47455420", 0, 0, ""}, Case{"514C44", 0, 0, ""}})
    {
        CScriptedConnection server;
        server.m_in.SetHex(c.incoming);
        int bCompact = -1;
        EXPECT_EQ(server.AuthenticateServer(bCompact), c.accepted) << c.incoming;
        EXPECT_EQ(bCompact, c.compact);
        EXPECT_EQ(server.m_out.ToHex(), c.answer);
    }
    CScriptedConnection client;
    client.m_in.SetHex("514C4452");
    EXPECT_FALSE(client.AuthenticateClient(1)); // the other variant came back
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_ACCESS});
    EXPECT_EQ(client.m_out.ToHex(), "564A4F50");

    CScriptedConnection inner;
    inner.m_in.SetHex("564A4F50");
    CMsgWrapperConnection wrapper(&inner, 0);
    EXPECT_TRUE(wrapper.AuthenticateClient(1));
    EXPECT_EQ(inner.m_out.ToHex(), "564A4F50");
    EXPECT_FALSE(wrapper.Accept(&inner)); // no wrapper
}

TEST(Connection, AFileCarriesRequests)
{
    WCHAR folder[MAX_PATH];
    ASSERT_GT(GetTempPathW(MAX_PATH, folder), 0u);
    CString path;
    path.Format(_T("%skvx-connection-%u"), folder, GetCurrentProcessId());
    CMsgRequest request;
    request.SetCommand(_T("file.test"));
    request[_T("x")] = _T("y");
    {
        CMsgFileConnection file(path, CFile::modeCreate | CFile::modeWrite, 1);
        EXPECT_FALSE(file.IsConnected());
        ASSERT_TRUE(file.Connect());
        ASSERT_TRUE(request.Write(file));
        EXPECT_TRUE(file.Disconnect());
        EXPECT_TRUE(file.Disconnect());
    }
    CMsgFileConnection file(path, CFile::modeRead, 1);
    for (int pass = 0; pass < 2; ++pass) // the name stays over a Disconnect
    {
        ASSERT_TRUE(file.Connect());
        CMsgRequest again;
        ASSERT_TRUE(again.Read(file));
        EXPECT_EQ(again.GetValue(_T("x")), _T("y"));
        EXPECT_FALSE(again.Read(file));
        EXPECT_TRUE(file.Disconnect());
    }
    ASSERT_TRUE(file.Connect());
    EXPECT_TRUE(file.Close());
    EXPECT_FALSE(file.Connect()); // nothing to open any more
    DeleteFileW(path);
}

TEST(Connection, EndpointTexts)
{
    struct Case
    {
        LPCTSTR text;
        char const * host;
        int port;
        bool bTimeout;
        LONG seconds;
        LONG microseconds;
    };
    for (Case const & c :
         {Case{_T("myhost:4000@5.250000"), "myhost", 4000, true, 5, 250000},
          Case{_T("myhost:4000@5"), "myhost", 4000, true, 5, 0}, Case{_T("myhost:4000"), "myhost", 4000, false, 0, 0},
          Case{_T("myhost"), "myhost", 0, false, 0, 0}, Case{_T(""), "", 0, false, 0, 0},
          Case{_T("h:1:2@.7"), "h", 1, true, 0, 7}})
    {
        CMsgTCPBase const base(new CMsgTCPBase::CConnectInfo(c.text));
        EXPECT_EQ(base.GetServer(), c.host);
        EXPECT_EQ(base.GetPort(), c.port);
        ASSERT_EQ(base.GetTimeout() != nullptr, c.bTimeout);
        if (c.bTimeout)
        {
            EXPECT_EQ(base.GetTimeout()->tv_sec, c.seconds);
            EXPECT_EQ(base.GetTimeout()->tv_usec, c.microseconds);
        }
    }
}
