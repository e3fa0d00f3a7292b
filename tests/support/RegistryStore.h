#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

/// One registry store for the test program, in a folder that goes with it.
class RegistryStore : public testing::Environment
{
public:
    static std::string GetPath() { return sm_strFolder + "/registry.db"; }

    void SetUp() override
    {
        char szPath[] = "/tmp/kvx-registry-XXXXXX";
        sm_strFolder = mkdtemp(szPath);
        setenv("KVX_REGISTRY", GetPath().c_str(), 1);
    }
    void TearDown() override { std::filesystem::remove_all(sm_strFolder); }

private:
    static inline std::string sm_strFolder;
};
[[maybe_unused]] inline auto * const g_pRegistryStore = testing::AddGlobalTestEnvironment(new RegistryStore);
