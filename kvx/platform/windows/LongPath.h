#pragma once

#include "kvx/platform/host.h"

#include <string>
#include <string_view>

namespace kvx::windows
{
/// In front of a path it has names mean themselves, whatever they end in and however deep they lie.
inline constexpr std::wstring_view LONG_PREFIX = L"\\\\?\\";

/// Without slashes, "." and ".."; empty with the last error.
inline std::wstring GetFullPath(std::wstring const & path)
{
    std::wstring full(32768, L'\0');
    DWORD const length = GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr);
    full.resize(length < full.size() ? length : 0);
    return full;
}

/// A full path with the prefix, which may have it already.
inline std::wstring AddLongPrefix(std::wstring const & full)
{
    if (full.starts_with(LONG_PREFIX))
    {
        return full;
    }
    return full.starts_with(L"\\\\") ? L"\\\\?\\UNC" + full.substr(1) : std::wstring(LONG_PREFIX) + full;
}
} // namespace kvx::windows
