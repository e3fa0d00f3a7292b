#pragma once

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgProvider.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

inline CMsgDispatcher & Dispatcher()
{
    return *CMsgDispatcher::GetInstance();
}

/// Does what the test says, and notes its end.
class CTestProvider : public CMsgProvider
{
public:
    explicit CTestProvider(std::function<void(CMsgRequest &)> serve = {}, std::string * end = nullptr, char sign = '!')
        : m_serve(std::move(serve)), m_pEnd(end), m_cSign(sign)
    {
        ++sm_nAlive;
    }
    ~CTestProvider() override
    {
        --sm_nAlive;
        if (m_pEnd)
        {
            *m_pEnd += m_cSign;
        }
    }
    void Service(CMsgRequest & request) override
    {
        if (m_serve)
        {
            m_serve(request);
        }
    }
    int StartProvider() override
    {
        ++m_nStarted;
        return m_nStartResult;
    }
    int StopProvider() override
    {
        ++sm_nStopped;
        return 1;
    }

    static inline int sm_nAlive = 0;
    static inline int sm_nStopped = 0;
    int m_nStarted = 0;
    int m_nStartResult = 1;

private:
    std::function<void(CMsgRequest &)> m_serve;
    std::string * m_pEnd;
    char m_cSign;
};

/// Tests work below the target "t", which goes at their end.
class CleanTree
{
public:
    CleanTree() = default;
    CleanTree(CleanTree const &) = delete;
    CleanTree & operator=(CleanTree const &) = delete;
    ~CleanTree() { Dispatcher().DeleteTarget(_T("t")); }
};
