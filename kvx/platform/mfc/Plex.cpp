#include "kvx/platform/mfc/Plex.h"

#include <algorithm>
#include <new>

namespace
{
constexpr std::size_t KEPT_BYTES = 4096;
}

void CPlexPool::AddBlock(std::size_t nNodeSize)
{
    auto const nBytes = nNodeSize * m_nNextCount;
    auto * pBlock = new (AfxAllocate(sizeof(Block) + nBytes)) Block{m_pBlocks, nBytes};
    m_pBlocks = pBlock;
    m_pUnused = reinterpret_cast<BYTE *>(pBlock + 1);
    m_pEnd = m_pUnused + nBytes;
    m_nNextCount = std::min<UINT>(m_nNextCount * 2, MAX_NODES);
}

void CPlexPool::FreeBlocks(Block * pKeep) noexcept
{
    for (auto * pBlock = m_pBlocks; pBlock;)
    {
        auto * pNext = pBlock->pNext;
        if (pBlock != pKeep)
        {
            AfxFree(pBlock);
        }
        pBlock = pNext;
    }
    m_pBlocks = pKeep;
    if (pKeep)
    {
        pKeep->pNext = nullptr;
    }
}

void CPlexPool::Reset() noexcept
{
    auto * pKeep = m_pBlocks;
    while (pKeep && pKeep->nBytes > KEPT_BYTES)
    {
        pKeep = pKeep->pNext;
    }
    FreeBlocks(pKeep);
    m_pFree = nullptr;
    m_pUnused = pKeep ? reinterpret_cast<BYTE *>(pKeep + 1) : nullptr;
    m_pEnd = pKeep ? m_pUnused + pKeep->nBytes : nullptr;
}
