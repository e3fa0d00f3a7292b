#pragma once

#include "kvx/platform/mfc/Afx.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

/// A home, a drive C: and a current folder of the test program's own, which go with it.
class PrivateHome : public testing::Environment
{
public:
    static std::string Host(std::string const & name) { return sm_strFolder + "/" + name; }
    /// Below drive C:, which is the folder "c".
    static void Put(std::string const & name, std::string const & text = "")
    {
        std::filesystem::create_directories(std::filesystem::path(Host(name)).parent_path());
        std::ofstream(Host(name), std::ios::binary) << text;
    }

    void SetUp() override
    {
        char szPath[] = "/tmp/kvx-home-XXXXXX";
        sm_strFolder = mkdtemp(szPath);
        std::filesystem::create_directories(Host("home/.config"));
        std::filesystem::create_directories(Host("bin"));
        std::filesystem::current_path(sm_strFolder);
        setenv("KVX_DRIVE_C", Host("c").c_str(), 1);
        setenv("HOME", Host("home").c_str(), 1);
        setenv("TMPDIR", Host("tmp").c_str(), 1);
        setenv("PATH", (Host("bin") + "::/usr/bin").c_str(), 1);
        for (char const * const name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "TEMP", "TMP", "PATHEXT",
                                        "SystemRoot", "ProgramFiles", "CommonProgramFiles"})
        {
            unsetenv(name);
        }
    }
    void TearDown() override
    {
        std::filesystem::current_path("/");
        std::filesystem::remove_all(sm_strFolder);
    }

private:
    static inline std::string sm_strFolder;
};
[[maybe_unused]] inline auto * const g_pPrivateHome = testing::AddGlobalTestEnvironment(new PrivateHome);
