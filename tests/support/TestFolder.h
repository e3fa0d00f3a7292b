#pragma once

#include "kvx/platform/mfc/Afx.h"

#include "tests/support/Host.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

/// A folder of its own for each test, gone at the end.
class TestFolder : public testing::Test
{
protected:
    TestFolder() = default;
    ~TestFolder() override { host::RemoveFolder(m_strHost); }

    std::string Host(std::string const & name) const { return m_strHost + "/" + name; }
    /// The Windows-shaped path of an entry.
    CString Path(CString const & name) const
    {
        CString path = kvx::FromUtf8(m_strHost);
        path.Replace('/', '\\');
        return (m_strHost.starts_with("/") ? _T("Z:") + path : path) + _T("\\") + name;
    }

    void Put(std::string const & name, std::string const & text = "") const
    {
        std::ofstream(host::ToPath(Host(name)), std::ios::binary) << text;
    }

    std::string Get(std::string const & name) const
    {
        std::ifstream file(host::ToPath(Host(name)), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::string const m_strHost = host::MakeFolder("kvx-test");
};
