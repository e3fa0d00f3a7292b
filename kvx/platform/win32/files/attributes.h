#pragma once

/// What is told about a file beside its contents: attributes, times, size.

#include "kvx/platform/win32/files.h"

#include <utility>

#include <sys/stat.h>

namespace kvx::win32
{

constexpr bool IsReadOnly(mode_t nMode)
{
    return (nMode & (S_IWUSR | S_IWGRP | S_IWOTH)) == 0;
}

/// The FILE_ATTRIBUTE_... of a mode.
DWORD AttributesOf(mode_t nMode);

FILETIME ToFileTime(struct statx_timestamp const & time);

/// statx for what Describe needs.
int Stat(int nFolder, char const * pszPath, int nFlags, struct statx & info);

/// Fills the fields that all information structures have in common.
template <typename Info>
void Describe(struct statx const & info, Info & target)
{
    target.dwFileAttributes = AttributesOf(info.stx_mode);
    auto const earlier = [](struct statx_timestamp const & a, struct statx_timestamp const & b)
    { return std::pair(a.tv_sec, a.tv_nsec) < std::pair(b.tv_sec, b.tv_nsec) ? a : b; };
    target.ftCreationTime =
        ToFileTime(info.stx_mask & STATX_BTIME ? info.stx_btime : earlier(info.stx_mtime, info.stx_ctime));
    target.ftLastAccessTime = ToFileTime(info.stx_atime);
    target.ftLastWriteTime = ToFileTime(info.stx_mtime);
    ULONGLONG const nSize = S_ISDIR(info.stx_mode) ? 0 : info.stx_size;
    target.nFileSizeHigh = static_cast<DWORD>(nSize >> 32);
    target.nFileSizeLow = static_cast<DWORD>(nSize);
}

} // namespace kvx::win32
