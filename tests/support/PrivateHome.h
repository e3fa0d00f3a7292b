#pragma once

#include "kvx/platform/mfc/Afx.h"

#include "tests/support/Host.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

/// A home and a current folder of the test program's own, which go with it; so does drive C: where the host has none.
class PrivateHome : public testing::Environment
{
public:
    /// What begins with "c/" lies on drive C:.
    static std::string Host(std::string const & name)
    {
        return name.starts_with("c/") ? sm_strDrive + name.substr(1) : sm_strFolder + "/" + name;
    }
    static void Put(std::string const & name, std::string const & text = "")
    {
        auto const path = host::ToPath(Host(name));
        if (!std::filesystem::exists(path))
        {
            sm_put.push_back(Host(name));
        }
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << text;
    }

    void SetUp() override
    {
        sm_strFolder = host::MakeFolder("kvx-home");
        std::filesystem::create_directories(Host("bin"));
        std::filesystem::current_path(sm_strFolder);
        sm_strDrive = host::TakeHome(sm_strFolder);
    }
    void TearDown() override
    {
        for (std::string const & name : sm_put) // where drive C: isn't the test's own
        {
            std::error_code ignored;
            std::filesystem::remove(host::ToPath(name), ignored);
        }
        std::filesystem::current_path("/");
        host::RemoveFolder(sm_strFolder);
    }

private:
    static inline std::string sm_strFolder;
    static inline std::string sm_strDrive;
    static inline Strings sm_put;
};
[[maybe_unused]] inline auto * const g_pPrivateHome = testing::AddGlobalTestEnvironment(new PrivateHome);
