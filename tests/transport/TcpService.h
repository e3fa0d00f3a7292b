#pragma once

#include "tests/support/Patience.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgMap.h"
#include "kvx/transport/MsgSocket.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <gtest/gtest.h>

#include <mutex>
#include <vector>

/// What the service of these tests offers, below the target "svc".
class CTestProvider : public CMsgProvider
{
public:
    void RegisterProviderMap() override
    {
        CMsgProvider::RegisterProviderMap();
        AddProvider(_T("echo"), new _MsgMapEntry<CTestProvider>(this, &CTestProvider::OnEcho));
        AddProvider(_T("throw"), new _MsgMapEntry<CTestProvider>(this, &CTestProvider::OnThrow));
        AddProvider(_T("note"), new _MsgMapEntry<CTestProvider>(this, &CTestProvider::OnNote));
        AddProvider(_T("sleep"), new _MsgMapEntry<CTestProvider>(this, &CTestProvider::OnSleep));
        AddProvider(_T("local"), new _LocalMsgMapEntry<CTestProvider>(this, &CTestProvider::OnEcho));
    }

    std::vector<int> GetNotes()
    {
        std::scoped_lock const guard(m_lock);
        return m_notes;
    }
    void WaitForNotes(std::size_t count)
    {
        for (DWORD waited = 0; GetNotes().size() < count && waited < PATIENCE; waited += 5)
        {
            Sleep(5);
        }
    }

private:
    std::mutex m_lock;
    std::vector<int> m_notes;

    void OnEcho(CMsgRequest & request) { request.SetResponseValues(request); }
    void OnThrow(CMsgRequest & request)
    {
        switch (request[_T("kind")].ToInteger())
        {
        case 0:
            ThrowAppException(87, _T("bad %s"), _T("thing"));
        case 1:
            AfxThrowInvalidArgException();
        default:
            throw 5;
        }
    }
    void OnNote(CMsgRequest & request)
    {
        std::scoped_lock const guard(m_lock);
        m_notes.push_back(request[_T("n")].ToInteger());
    }
    void OnSleep(CMsgRequest & request) { Sleep(request[_T("ms")]); }
};

class Tcp : public testing::Test
{
protected:
    void SetUp() override
    {
        m_pProvider = new CTestProvider;
        CMsgDispatcher::GetInstance()->RegisterProvider(_T("svc"), m_pProvider, 0);
        m_pListener = NewListener();
        Start();
    }
    void TearDown() override
    {
        m_pListener->StopListener();
        CMsgDispatcher::GetInstance()->GetRootTarget()->RemoveProvider(m_pListener, 1);
        CMsgDispatcher::GetInstance()->DeleteTarget(_T("svc"));
    }

    static CMsgTCPListener * NewListener()
    {
        auto * const listener = static_cast<CMsgTCPListener *>(
            CMsgDispatcher::GetInstance()->RegisterListener(_T(""), _T("tcp:127.0.0.1:0"), 0));
        EXPECT_NE(listener, nullptr);
        return listener;
    }
    void Start()
    {
        ASSERT_TRUE(m_pListener->StartListener());
        ASSERT_TRUE(m_pListener->WaitUntilListening(PATIENCE));
        m_nPort = m_pListener->GetListeningPort();
        m_strAddress.Format(_T("127.0.0.1:%u"), m_nPort);
        m_pClient = kvx::RefPtr<CMsgProvider>(CMsgTCPFactory().CreateProvider(m_strAddress));
    }

    CMsgResponse & Call(CMsgRequest & request, LPCTSTR command)
    {
        request.SetCommand(command);
        request.GetResponse().SetError(0, nullptr);
        m_pClient->Service(request);
        return request.GetResponse();
    }

    /// A plain socket to the service.
    CMsgSocket Dial() const
    {
        CMsgSocket socket;
        EXPECT_TRUE(socket.Create(winsock::SocketStream));
        EXPECT_TRUE(socket.Connect("127.0.0.1", m_nPort));
        return socket;
    }

    CTestProvider * m_pProvider = nullptr;
    CMsgTCPListener * m_pListener = nullptr;
    kvx::RefPtr<CMsgProvider> m_pClient;
    UINT m_nPort = 0;
    CString m_strAddress;
};
