#pragma once

#include "kvx/platform/export.h"
#include "kvx/platform/host.h"

#include <string>

/// What the host says about its system, for display: "Linux", "6.1.0-18-amd64", "x86_64".
struct HostInfo
{
    std::basic_string<WCHAR> strSystem;
    std::basic_string<WCHAR> strRelease;
    std::basic_string<WCHAR> strMachine;
};

/// Any thread. A text that the host doesn't give is empty.
KVX_API HostInfo GetHostInfo();

/// How many threads this process has, the calling one included; a guess on the high side where the host doesn't tell.
KVX_API DWORD CountThreads();
