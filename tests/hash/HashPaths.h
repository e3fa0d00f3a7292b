#pragma once

#include "kvx/hash/CpuPaths.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

/// The paths that this processor can go.
template <class FUNCTION, std::size_t COUNT>
std::vector<kvx::hash::CpuPath<FUNCTION>> OpenPaths(kvx::hash::CpuPath<FUNCTION> const (&paths)[COUNT])
{
    std::vector<kvx::hash::CpuPath<FUNCTION>> open;
    for (auto const & path : paths)
    {
        if (path.IsOpen())
        {
            open.push_back(path);
        }
    }
    EXPECT_EQ(open.back().nNeeds, 0u);
    return open;
}

/// Bytes without a pattern, the same in every run.
inline std::vector<std::uint8_t> SomeBytes(std::size_t size)
{
    std::vector<std::uint8_t> bytes(size);
    std::uint32_t state = 2463534242;
    for (std::uint8_t & byte : bytes)
    {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<std::uint8_t>(state >> 11);
    }
    return bytes;
}
