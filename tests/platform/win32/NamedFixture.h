#pragma once

#include "Handle.h"
#include "tests/support/TestFolder.h"

/// This program in another role, which a test of the name "...Role.Run" takes from KVX_ROLE.
class Child : public host::Process
{
public:
    explicit Child(std::string const & strRole)
        : Process({host::GetProgram(), "--gtest_filter=*Role.*"}, host::Stdout::Pipe, {{"KVX_ROLE", strRole}})
    {
    }
    /// Until the thread sleeps that the child reports.
    void WaitUntilAsleep() const { host::WaitUntilAsleep({std::stoul(ReadReport())}); }
};

/// Names of a test's own.
class Named : public TestFolder
{
protected:
    Named() { host::SetVariable("KVX_RUNTIME_DIR", m_strHost.c_str()); }
    ~Named() override { host::SetVariable("KVX_RUNTIME_DIR", nullptr); }

    static Handle Create(LPCTSTR pName, bool bManual = false, bool bSignalled = false)
    {
        return CreateEventW(nullptr, bManual, bSignalled, pName);
    }
    static Handle Open(LPCTSTR pName) { return OpenEventW(SYNCHRONIZE | EVENT_MODIFY_STATE, FALSE, pName); }
    static bool Exists(LPCTSTR pName) { return Open(pName) != nullptr; }

    std::filesystem::path const m_folder = m_strHost;
};
