#pragma once

#include <cstdint>

namespace kvx
{

/// The 64-bit hash FNV-1a of Fowler, Noll and Vo, which tells names apart that nobody chose to be alike.
class Fnv
{
public:
    constexpr void Add(std::uint64_t nUnit) noexcept { m_nHash = (m_nHash ^ nUnit) * 0x100000001B3; }
    constexpr std::uint64_t Get() const noexcept { return m_nHash; }

private:
    std::uint64_t m_nHash = 0xCBF29CE484222325;
};

} // namespace kvx
