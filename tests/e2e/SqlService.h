#pragma once

/// A service with a database, which this process can call too.

#include "Service.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgRequest.h"
#include "kvx/msgdata/MsgResults.h"

#include <filesystem>

class Sql : public testing::Test
{
protected:
    std::filesystem::path m_folder = host::MakeFolder("kvx-sql");
    std::string m_database = "db=" + (m_folder / "a.sqlite").string();
    std::unique_ptr<Service> m_service;

    ~Sql() override
    {
        CMsgDispatcher::GetInstance()->DeleteTarget(_T("there"));
        if (m_service)
        {
            EXPECT_EQ(m_service->Stop(), 0);
        }
        std::filesystem::remove_all(m_folder);
    }
    void Serve(Strings const & options = {})
    {
        m_service = std::make_unique<Service>(Join({"--sql", m_database}, options));
        CMsgDispatcher * const dispatcher = CMsgDispatcher::GetInstance();
        dispatcher->DeleteTarget(_T("there"));
        CString const road = _T("forward:") + kvx::FromUtf8(m_service->strAddress);
        ASSERT_TRUE(dispatcher->RegisterProvider(_T("there"), road, 1));
    }
    Response Run(std::string const & sql, Strings const & params = {}) const
    {
        return m_service->Call(Join({"db.exec_sql", "sql=" + sql}, params));
    }
    /// By this process itself: fast, and no matter how long the texts are.
    static CMsgResults Ask(std::string const & sql, std::string const & null = {})
    {
        CMsgRequest request;
        request[_T("sql")] = kvx::FromUtf8(sql);
        request[_T("null")] = kvx::FromUtf8(null);
        request.Execute(_T("there.db.exec_sql"));
        return request.GetResponse();
    }
    /// Whether the statement waits for others.
    bool IsHeldUp(std::string const & sql) const { return CodeOf(sql, {"--timeout", "300"}) == 1460; }
    long long CodeOf(std::string const & sql, Strings const & params = {}) const { return Run(sql, params).nCode; }
};
