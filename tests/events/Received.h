#pragma once

#include "tests/support/Patience.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgProvider.h"
#include "kvx/transport/MsgTCPFactory.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

inline CMsgDispatcher & Dispatcher()
{
    return *CMsgDispatcher::GetInstance();
}

/// Notes the commands and the parameter "n" of all that arrives below its target.
class CReceiver : public CMsgProvider
{
public:
    void Service(CMsgRequest & request) override
    {
        CSingleLock guard(&m_lock, TRUE);
        std::string line = kvx::ToUtf8(request.GetCommand()) + "=" + kvx::ToUtf8(request[_T("n")]);
        ++m_counts[line];
        m_lines.push_back(std::move(line));
        request.SetHandled(1);
        m_event.SetEvent();
    }
    /// Waits until so many lines have come, and gives all.
    std::vector<std::string> WaitFor(std::size_t count)
    {
        for (;;)
        {
            {
                CSingleLock guard(&m_lock, TRUE);
                if (m_lines.size() >= count)
                {
                    return m_lines;
                }
            }
            if (!m_event.Lock(PATIENCE))
            {
                return {"nothing came"};
            }
        }
    }
    int Count(std::string const & line)
    {
        CSingleLock guard(&m_lock, TRUE);
        return m_counts[line];
    }

private:
    CCriticalSection m_lock;
    CEvent m_event;
    std::vector<std::string> m_lines;
    std::map<std::string, int> m_counts;
};

/// A receiver on a target, which goes with this object.
class Receiving
{
public:
    explicit Receiving(LPCTSTR target) : m_strTarget(target) { Dispatcher().RegisterProvider(target, m_pReceiver, 0); }
    Receiving(Receiving const &) = delete;
    Receiving & operator=(Receiving const &) = delete;
    ~Receiving() { Dispatcher().DeleteTarget(m_strTarget); }
    CReceiver * operator->() const { return m_pReceiver; }

private:
    CString m_strTarget;
    CReceiver * m_pReceiver = new CReceiver;
};

/// A listener on the loop-back device for a target, which goes with this object.
class Listening
{
public:
    explicit Listening(LPCTSTR target, UINT port = 0) : m_strTarget(target)
    {
        CString config;
        config.Format(_T("tcp:127.0.0.1:%d"), port);
        m_pListener = Dispatcher().RegisterListener(target, config, 1);
        EXPECT_TRUE(m_pListener && m_pListener->WaitUntilListening(PATIENCE)) << GetLastError();
    }
    Listening(LPCTSTR target, CString const & config)
        : m_strTarget(target), m_strConnection(config), m_pListener(Dispatcher().RegisterListener(target, config, 1))
    {
        EXPECT_TRUE(m_pListener && m_pListener->WaitUntilListening(PATIENCE)) << GetLastError();
    }
    Listening(Listening const &) = delete;
    Listening & operator=(Listening const &) = delete;
    ~Listening()
    {
        m_pListener->StopListener();
        Dispatcher().GetRootTarget()->LookupTarget(m_strTarget)->RemoveProvider(m_pListener, 1);
        Dispatcher().DeleteTarget(m_strTarget);
    }
    UINT GetPort() const { return static_cast<CMsgTCPListener *>(m_pListener)->GetListeningPort(); }
    CString GetConnection() const
    {
        CString config = m_strConnection;
        if (!config.IsEmpty())
        {
            return config;
        }
        config.Format(_T("tcp:127.0.0.1:%d"), GetPort());
        return config;
    }

private:
    CString m_strTarget;
    CString m_strConnection; // empty for TCP
    CMsgListener * m_pListener;
};
