#pragma once

/// The ways that an algorithm has through different instruction sets, and the choice among them at run time. Sources
/// that are compiled for an instruction set hold nothing but their way: no inline function of a header may come from
/// them.

#include <cstddef>
#include <cstdint>

namespace kvx::hash
{
/// What a processor offers, and its system saves when it changes threads.
inline constexpr std::uint32_t CPU_SSSE3 = 1;
inline constexpr std::uint32_t CPU_SSE41 = 2;
inline constexpr std::uint32_t CPU_PCLMUL = 4;
inline constexpr std::uint32_t CPU_SHA = 8; ///< with SSSE3 and SSE4.1
inline constexpr std::uint32_t CPU_AVX2 = 16;
inline constexpr std::uint32_t CPU_VPCLMUL = 32;
inline constexpr std::uint32_t CPU_AVX512 = 64; ///< F, DQ, BW and VL

/// The features of this processor, as bits. It is asked once.
std::uint32_t GetCpuFeatures();

template <class FUNCTION>
struct CpuPath
{
    char const * pszName;
    std::uint32_t nNeeds; // features
    FUNCTION pFunction;

    bool IsOpen() const { return (nNeeds & ~GetCpuFeatures()) == 0; }
};

/// The first path that this processor can go; the last one of a list needs nothing.
template <class FUNCTION, std::size_t COUNT>
FUNCTION ChoosePath(CpuPath<FUNCTION> const (&paths)[COUNT])
{
    for (CpuPath<FUNCTION> const & path : paths)
    {
        if (path.IsOpen())
        {
            return path.pFunction;
        }
    }
    return paths[COUNT - 1].pFunction;
}
} // namespace kvx::hash
