#pragma once

/// Trees of folders, walked and emptied with the host's own means: as fast as it goes, as deep as the host lets folders
/// nest, whatever bytes the names are, and never through a symbolic link below the folder that was named.

#include "kvx/platform/export.h"
#include "kvx/platform/host.h"

#include <functional>
#include <string_view>

namespace kvx
{
struct FolderTreeEntry
{
    std::basic_string_view<WCHAR> folder; ///< the path of its folder, with a separator at its end
    std::basic_string_view<WCHAR> name;
    bool bFolder; ///< a real one: links to folders are files here
};

/// Calls `visit` for each file of the folder whose name matches `pattern`, and for each folder in it; with `bRecursive`
/// also for what is in those, right behind each. What comes and goes meanwhile may be missed. The system's code for the
/// last folder that couldn't be read, or 0. Any thread.
KVX_API DWORD VisitFolderTree(std::basic_string_view<WCHAR> folder, LPCWSTR pattern, bool bRecursive,
                              std::function<void(FolderTreeEntry const &)> const & visit);

/// Deletes all that is in the folder, read-only files too, but what is open in a way that forbids it. Whatever can't be
/// deleted stays, with the folders on the way to it. A link instead of the folder is followed only with `bThroughLink`.
/// Any thread.
KVX_API void EmptyFolderTree(std::basic_string_view<WCHAR> folder, bool bThroughLink);
} // namespace kvx
