#pragma once

#include "kvx/platform/host.h"

/// How long a test waits for what has to come, in milliseconds: a healthy run never needs it.
inline constexpr DWORD PATIENCE = 20000;
