#pragma once

/// What stands in folders under which name, so that a name in another case is found, or known to be missing, without
/// reading its folder again.

#include "kvx/platform/export.h"

#include <optional>
#include <string>
#include <string_view>

namespace kvx::win32
{

enum class NameLookup
{
    Found,
    Missing,
    NoFolder ///< errno tells why
};

/// Looks a name up in a folder without regard to case. `strFound` becomes the name as it stands there: the very one, or
/// of those that differ in case the first by its bytes. The answer takes in all that this or any other process did to
/// the folder before the call.
///
/// Folders are remembered, the latest 128 of them with a million names in all, and kept current by notifications of the
/// kernel and by the times of their last change. Where neither can be relied on the folder is read each time: on file
/// systems that others may change (networks, FUSE, the kernel's own), and while a folder that can't be watched changes.
/// Any thread; a forked process starts without what its parent remembered.
KVX_API NameLookup FindName(char const * pszFolder, std::string_view name, std::string & strFound);

/// The same answer for one system call, if this thread has last looked for something in this folder that wasn't there
/// as it was written, and the folder is remembered and unchanged; else none. Whoever looks for one such name mostly
/// looks for more, and need not ask the system for each of them first.
KVX_API std::optional<NameLookup> RecallName(char const * pszFolder, std::string_view name, std::string & strFound);

} // namespace kvx::win32
