#include "kvx/platform/mfc/Map.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <exception>
#include <memory>
#include <random>

namespace
{
constexpr UINT MIN_SLOTS = 32;
constexpr UINT KEPT_SLOTS = 256;
constexpr UINT MAX_SLOTS = 0x80000000;
constexpr UINT MAX_HINT = 0x40000000;

constinit std::atomic<std::uint64_t> g_nSeed = 0;

std::uint64_t MakeSeed()
{
    std::uint64_t nSeed;
    try
    {
        std::random_device device;
        nSeed = (static_cast<std::uint64_t>(device()) << 32) | device();
    }
    catch (std::exception const &)
    {
        nSeed = static_cast<std::uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                reinterpret_cast<UINT_PTR>(&nSeed);
    }
    nSeed |= 1;
    std::uint64_t nExpected = 0;
    return g_nSeed.compare_exchange_strong(nExpected, nSeed) ? nSeed : nExpected;
}

inline std::uint64_t GetSeed()
{
    auto const nSeed = g_nSeed.load(std::memory_order_relaxed);
    return nSeed != 0 ? nSeed : MakeSeed();
}

/// Both halves of the product, folded into one: every bit of the factors reaches every bit of the result.
inline std::uint64_t Mix(std::uint64_t a, std::uint64_t b)
{
#if defined(__SIZEOF_INT128__)
    __extension__ using Wide = unsigned __int128;
    auto const product = static_cast<Wide>(a) * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
#else
    std::uint64_t const aLow = static_cast<std::uint32_t>(a), aHigh = a >> 32;
    std::uint64_t const bLow = static_cast<std::uint32_t>(b), bHigh = b >> 32;
    auto const cross = aHigh * bLow + (aLow * bLow >> 32);
    auto const cross2 = aLow * bHigh + static_cast<std::uint32_t>(cross);
    return (a * b) ^ (aHigh * bHigh + (cross >> 32) + (cross2 >> 32));
#endif
}

template <class T>
inline std::uint64_t Load(char const * p)
{
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

inline UINT Fold(std::uint64_t n)
{
    return static_cast<UINT>(n ^ (n >> 32));
}

constexpr std::uint64_t SPREAD = 0xD6E8FEB86659FD93;

/// Of a text whose units go through `fold`, up to four at once.
template <class FOLD>
inline UINT HashUnits(WCHAR const * pText, std::size_t nLength, FOLD const & fold)
{
    auto const nSeed = GetSeed();
    auto const nSecond = std::rotl(nSeed, 29) ^ SPREAD;
    auto const * p = reinterpret_cast<char const *>(pText);
    auto const nBytes = nLength * sizeof(WCHAR);
    auto nState = nSeed;
    std::uint64_t a = 0;
    std::uint64_t b = 0;
    if (nBytes > 16)
    {
        auto const * const pTail = p + nBytes - 16;
        for (; p < pTail; p += 16)
        {
            nState = Mix(fold(Load<std::uint64_t>(p)) ^ nSecond, fold(Load<std::uint64_t>(p + 8)) ^ nState);
        }
        a = fold(Load<std::uint64_t>(pTail));
        b = fold(Load<std::uint64_t>(pTail + 8));
    }
    else if (nBytes >= 8)
    {
        a = fold(Load<std::uint64_t>(p));
        b = fold(Load<std::uint64_t>(p + nBytes - 8));
    }
    else if (nBytes >= 4)
    {
        a = fold(Load<std::uint32_t>(p));
        b = fold(Load<std::uint32_t>(p + nBytes - 4));
    }
    else if (nBytes != 0)
    {
        a = fold(Load<std::uint16_t>(p));
    }
    return Fold(Mix(Mix(a ^ nSecond, b ^ nState), nSecond ^ nBytes));
}
} // namespace

namespace kvx
{
UINT HashText(WCHAR const * pText, std::size_t nLength) noexcept
{
    return HashUnits(pText, nLength, [](std::uint64_t units) { return units; });
}

UINT HashLowerText(WCHAR const * pText, std::size_t nLength) noexcept
{
    return HashUnits(pText, nLength, [](std::uint64_t units) { return ToLowerFour(units); });
}

UINT HashInteger(ULONGLONG nValue) noexcept
{
    auto const nSeed = GetSeed();
    return Fold(Mix(nValue ^ nSeed, SPREAD ^ std::rotl(nSeed, 29)));
}

void MapTable::InitHashTable(UINT nHashSize, bool bAllocNow)
{
    if (nHashSize == 0)
    {
        return;
    }
    m_nHint = std::min(nHashSize, MAX_HINT);
    auto const nSlots = std::bit_ceil(std::max(m_nHint, MIN_SLOTS));
    if (bAllocNow && nSlots > m_nSlots)
    {
        SetTable(nSlots);
    }
}

void MapTable::Link(MapLink * pLink, UINT nHash) noexcept
{
    pLink->nHash = nHash;
    pLink->pNext = nullptr;
    pLink->pPrev = m_pLast;
    (m_pLast ? m_pLast->pNext : m_pFirst) = pLink;
    m_pLast = pLink;
    ++m_nCount;
    if (m_nSlots != 0)
    {
        Enter(pLink);
    }
}

void MapTable::Unlink(MapLink * pLink) noexcept
{
    (pLink->pPrev ? pLink->pPrev->pNext : m_pFirst) = pLink->pNext;
    (pLink->pNext ? pLink->pNext->pPrev : m_pLast) = pLink->pPrev;
    --m_nCount;
    if (m_nSlots == 0)
    {
        return;
    }

    auto const nMask = m_nSlots - 1;
    auto nHole = pLink->nHash & nMask;
    while (m_pSlots[nHole].pLink != pLink)
    {
        nHole = (nHole + 1) & nMask;
    }
    // Entries behind the hole move into it unless that would put them before their own place. So no mark of
    // removal stays behind, and a map with much coming and going keeps its speed.
    for (auto i = (nHole + 1) & nMask; m_pSlots[i].pLink; i = (i + 1) & nMask)
    {
        auto const nFromHome = (i - m_pSlots[i].nHash) & nMask;
        if (nFromHome >= ((i - nHole) & nMask))
        {
            m_pSlots[nHole] = m_pSlots[i];
            nHole = i;
        }
    }
    m_pSlots[nHole].pLink = nullptr;
}

void MapTable::RemoveAll() noexcept
{
    m_pFirst = m_pLast = nullptr;
    m_nCount = 0;
    if (m_nSlots <= KEPT_SLOTS)
    {
        std::fill_n(m_pSlots, m_nSlots, Slot{});
        return;
    }
    FreeTable();
    m_pSlots = nullptr;
    m_nSlots = 0;
    m_nLimit = DIRECT_COUNT;
}

void MapTable::Grow()
{
    if (m_nSlots >= MAX_SLOTS)
    {
        AfxThrowMemoryException();
    }
    SetTable(m_nSlots == 0 ? std::bit_ceil(std::max(m_nHint, MIN_SLOTS)) : std::size_t{m_nSlots} * 2);
}

void MapTable::SetTable(std::size_t nSlots)
{
    if (nSlots > static_cast<std::size_t>(-1) / sizeof(Slot))
    {
        AfxThrowMemoryException();
    }
    auto * pSlots = static_cast<Slot *>(AfxAllocate(nSlots * sizeof(Slot)));
    std::uninitialized_value_construct_n(pSlots, nSlots);
    FreeTable();
    m_pSlots = pSlots;
    m_nSlots = static_cast<UINT>(nSlots);
    m_nLimit = static_cast<INT_PTR>(nSlots / 8 * 5);
    for (auto * pLink = m_pFirst; pLink; pLink = pLink->pNext)
    {
        Enter(pLink);
    }
}

void MapTable::Enter(MapLink * pLink) noexcept
{
    auto const nMask = m_nSlots - 1;
    auto i = pLink->nHash & nMask;
    while (m_pSlots[i].pLink)
    {
        i = (i + 1) & nMask;
    }
    m_pSlots[i] = {pLink, pLink->nHash};
}

void MapTable::FreeTable() noexcept
{
    if (m_pSlots)
    {
        AfxFree(m_pSlots);
    }
}
} // namespace kvx
