#pragma once

/// The Win32 subset for POSIX hosts, topic by topic. docs/porting.md lists every call.

#include "kvx/platform/win32/codepages.h"
#include "kvx/platform/win32/console.h"
#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/files.h"
#include "kvx/platform/win32/identifiers.h"
#include "kvx/platform/win32/interlocked.h"
#include "kvx/platform/win32/modules.h"
#include "kvx/platform/win32/pipes.h"
#include "kvx/platform/win32/processes.h"
#include "kvx/platform/win32/profiles.h"
#include "kvx/platform/win32/registry.h"
#include "kvx/platform/win32/security.h"
#include "kvx/platform/win32/sockets.h"
#include "kvx/platform/win32/sync.h"
#include "kvx/platform/win32/system.h"
#include "kvx/platform/win32/threads.h"
#include "kvx/platform/win32/time.h"
#include "kvx/platform/win32/types.h"
#include "kvx/platform/win32/urls.h"
#include "kvx/platform/win32/windows.h"
