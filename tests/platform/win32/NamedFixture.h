#pragma once

#include "Handle.h"
#include "WideTestFolder.h"

class Named : public WideTestFolder
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
