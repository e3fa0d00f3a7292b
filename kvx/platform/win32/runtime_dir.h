#pragma once

#include "kvx/platform/win32/unique_fd.h"

#include <string>

namespace kvx::win32
{

/// The path of the user's private folder for things that live while processes do (named objects, pipes), without a
/// separator at its end: KVX_RUNTIME_DIR (a relative one begins in the folder that was current at its first use), else
/// "kvx" in XDG_RUNTIME_DIR if that is this user's own, else /tmp/kvx-<uid>. Makes the folder if it isn't there. Empty
/// with last error ERROR_BAD_ENVIRONMENT when it is a link, belongs to somebody else, or is open to others; or the
/// system's reason.
std::string GetRuntimeFolder();

/// The same folder, opened, so that what is done below it can't be led elsewhere.
UniqueFd OpenRuntimeFolder() noexcept;

} // namespace kvx::win32
