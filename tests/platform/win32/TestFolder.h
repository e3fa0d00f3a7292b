#pragma once

#include "kvx/platform/win32/codepages.h"
#include "kvx/platform/win32/paths.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <stdlib.h>

/// A folder of its own for each test, gone at the end.
class TestFolder : public testing::Test
{
protected:
    TestFolder()
    {
        char szPath[] = "/tmp/kvx-test-XXXXXX";
        m_strHost = mkdtemp(szPath);
    }

    ~TestFolder() override { std::filesystem::remove_all(m_strHost); }

    std::string Host(std::string const & strName) const { return m_strHost + "/" + strName; }
    /// The Windows-shaped path of an entry.
    std::u16string Path(std::u16string const & strName) const
    {
        return kvx::win32::FromHost(m_strHost) + u"\\" + strName;
    }

    void Put(std::string const & strName, std::string const & strText = "") const
    {
        std::ofstream(Host(strName), std::ios::binary) << strText;
    }

    std::string Get(std::string const & strName) const
    {
        std::ifstream file(Host(strName), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    std::string m_strHost;
};
