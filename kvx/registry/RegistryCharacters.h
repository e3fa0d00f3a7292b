#pragma once

/// The data of values as characters, and sizes as the registry counts them.

#include "kvx/platform/host.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

namespace kvx
{
inline DWORD ToSize(std::size_t bytes)
{
    return static_cast<DWORD>(std::min<std::size_t>(bytes, 0xFFFFFFFF));
}

/// Without a last byte that is none.
inline std::vector<WCHAR> ToCharacters(std::span<BYTE const> bytes)
{
    std::vector<WCHAR> characters(bytes.size() / sizeof(WCHAR));
    if (!characters.empty())
    {
        std::memcpy(characters.data(), bytes.data(), characters.size() * sizeof(WCHAR));
    }
    return characters;
}
} // namespace kvx
