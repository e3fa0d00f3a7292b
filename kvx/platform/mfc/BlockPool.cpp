#include "kvx/platform/mfc/BlockPool.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ext/atomicity.h>
#include <new>
#include <utility>

namespace kvx
{
namespace
{
// What a block counts while pieces are cut from it: more than there can be.
constexpr std::int32_t OPEN_REFS = 1 << 20;
} // namespace

template <std::size_t MARK>
void BlockPool<MARK>::Release(Block * block, std::int32_t count) noexcept
{
    // Nobody else can raise the count, so the last owner needs no locked operation.
    if (__atomic_load_n(&block->nRefs, __ATOMIC_ACQUIRE) == count ||
        __gnu_cxx::__exchange_and_add_dispatch(&block->nRefs, -count) == count)
    {
        std::free(block);
    }
}

template <std::size_t MARK>
void * BlockPool<MARK>::Allocate(std::size_t bytes) noexcept
{
    constexpr std::size_t STEP = 2 * MARK;
    std::size_t const size = (MARK + bytes + STEP - 1) / STEP * STEP;
    if (static_cast<std::size_t>(m_pEnd - m_pNext) < size)
    {
        Retire();
        auto * const memory = static_cast<char *>(std::malloc(m_nNextSize));
        if (!memory)
        {
            return nullptr;
        }
        m_pBlock = new (memory) Block{OPEN_REFS};
        m_pNext = memory + STEP;
        m_pEnd = memory + m_nNextSize;
        m_nNextSize = std::min(m_nNextSize * 2, m_nLargest);
    }
    char * const piece = m_pNext + MARK;
    auto const distance = static_cast<std::uint32_t>(piece - reinterpret_cast<char *>(m_pBlock));
    std::memcpy(piece - sizeof(distance), &distance, sizeof(distance));
    m_pNext += size;
    ++m_nCut;
    return piece;
}

template <std::size_t MARK>
void BlockPool<MARK>::Retire() noexcept
{
    if (m_pBlock)
    {
        Release(std::exchange(m_pBlock, nullptr), OPEN_REFS - std::exchange(m_nCut, 0));
    }
    m_pNext = nullptr;
    m_pEnd = nullptr;
}

template class BlockPool<4>;
#if __SIZEOF_POINTER__ == 8
template class BlockPool<8>;
#endif
} // namespace kvx
