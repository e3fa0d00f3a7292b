#pragma once

#include "tests/support/Host.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

/// One registry store for the test program, in a folder that goes with it. Windows has one registry: there the tests
/// must keep to keys of their own.
class RegistryStore : public testing::Environment
{
public:
    static std::string GetPath() { return sm_strFolder + "/registry.db"; }

    void SetUp() override
    {
        sm_strFolder = host::MakeFolder("kvx-registry");
        host::SetVariable("KVX_REGISTRY", GetPath().c_str());
    }
    void TearDown() override { host::RemoveFolder(sm_strFolder); }

private:
    static inline std::string sm_strFolder;
};
[[maybe_unused]] inline auto * const g_pRegistryStore = testing::AddGlobalTestEnvironment(new RegistryStore);
