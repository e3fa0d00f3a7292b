#pragma once

#include "kvx/logging/LogManager.h"

#include <mutex>
#include <string>
#include <vector>

/// Keeps the lines that the library logs during its life, as "E text".
class KeptLog
{
public:
    KeptLog() : m_keeper(*this), m_awake(LOG_NONE)
    {
        CLogManager::GetInstance()->RegisterSink(&m_awake, 1); // nothing is logged without a queued sink
        CLogManager::GetInstance()->RegisterSink(&m_keeper, 0);
    }
    KeptLog(KeptLog const &) = delete;
    KeptLog & operator=(KeptLog const &) = delete;
    ~KeptLog()
    {
        CLogManager::GetInstance()->UnregisterSink(&m_keeper);
        CLogManager::GetInstance()->UnregisterSink(&m_awake);
    }

    /// What has come since the last call.
    std::vector<std::string> Take()
    {
        std::scoped_lock const guard(m_lock);
        return std::exchange(m_lines, {});
    }

private:
    class CKeeper : public CLogSink
    {
    public:
        explicit CKeeper(KeptLog & owner) : CLogSink(LOG_ALL), m_owner(owner) {}
        void Append(CLogEvent * event) override
        {
            std::scoped_lock const guard(m_owner.m_lock);
            std::string line(1, static_cast<char>(CLogSink::GetTypeChar(event->m_nType)));
            m_owner.m_lines.push_back(line + " " + kvx::ToUtf8(event->m_strText));
        }

    private:
        KeptLog & m_owner;
    };
    class CNoSink : public CLogSink
    {
    public:
        using CLogSink::CLogSink;
        void Append(CLogEvent *) override {}
    };
    static constexpr DWORD LOG_NONE = 0;

    std::mutex m_lock;
    std::vector<std::string> m_lines;
    CKeeper m_keeper;
    CNoSink m_awake;
};
