#pragma once

/// What stands for folders in path templates, for the code of this folder. All in lower case.

#include "kvx/platform/host.h"

#include <span>

/// A token and its folder, by the identifier that SHGetFolderPath takes.
struct PathToken
{
    LPCTSTR token;
    int folder;
};

/// A token for a folder of each user's profile, and the registry's name of that folder.
struct ProfileTemplate
{
    LPCTSTR valueName;
    LPCTSTR token;
};

/// In the order in which they are tried.
std::span<PathToken const> GetPathTokens();
std::span<ProfileTemplate const> GetProfileTemplates();
/// Those of folders that no program should clear.
std::span<LPCTSTR const> GetProtectedTokens();
