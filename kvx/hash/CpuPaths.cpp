#include "kvx/hash/CpuPaths.h"

#include <cpuid.h>

namespace kvx::hash
{
namespace
{
/// Register sets that the system saves.
std::uint32_t GetSavedState()
{
    std::uint32_t low = 0;
    std::uint32_t high = 0;
    asm volatile("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    return low;
}

std::uint32_t AskCpu()
{
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    if (!__get_cpuid(1, &a, &b, &c, &d))
    {
        return 0;
    }
    auto const has = [](unsigned word, int bit) { return (word >> bit & 1) != 0; };
    std::uint32_t features = 0;
    auto const add = [&](bool bHas, std::uint32_t feature) { features |= bHas ? feature : 0; };
    add(has(c, 9), CPU_SSSE3);
    add(has(c, 19), CPU_SSE41);
    add(has(c, 1), CPU_PCLMUL);
    // One bit stands for AVX, the other for a system that lets the state be looked at.
    std::uint32_t const saved = has(c, 28) && has(c, 27) ? GetSavedState() : 0;
    constexpr std::uint32_t AVX_STATE = 0x06;
    constexpr std::uint32_t AVX512_STATE = 0xE6;
    if (__get_cpuid_count(7, 0, &a, &b, &c, &d))
    {
        add(has(b, 29) && has(features, 0) && has(features, 1), CPU_SHA);
        bool const bAvx = (saved & AVX_STATE) == AVX_STATE;
        add(bAvx && has(b, 5), CPU_AVX2);
        add(bAvx && has(c, 10), CPU_VPCLMUL);
        bool const bAvx512 = (saved & AVX512_STATE) == AVX512_STATE;
        add(bAvx512 && has(b, 16) && has(b, 17) && has(b, 30) && has(b, 31), CPU_AVX512);
    }
    return features;
}
} // namespace

std::uint32_t GetCpuFeatures()
{
    static std::uint32_t const s_features = AskCpu();
    return s_features;
}
} // namespace kvx::hash
