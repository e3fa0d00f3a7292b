#pragma once

#include "kvx/platform/mfc/Exception.h"

/// Nodes of one size for a collection, cut from blocks. A freed node is the next one given out, so that a
/// collection at work allocates nothing. Blocks double in size up to about a thousand nodes.
class KVX_API CPlexPool
{
public:
    constexpr explicit CPlexPool(INT_PTR nBlockSize) noexcept
        : m_nNextCount(nBlockSize > 0 && nBlockSize < MAX_NODES ? static_cast<UINT>(nBlockSize) : DEFAULT_NODES)
    {
    }
    ~CPlexPool() { FreeBlocks(nullptr); }
    CPlexPool(CPlexPool const &) = delete;
    CPlexPool & operator=(CPlexPool const &) = delete;

    /// The size must be the same in every call on a pool, and a multiple of the size of a pointer.
    void * Allocate(std::size_t nNodeSize)
    {
        if (m_pFree)
        {
            auto * pNode = m_pFree;
            m_pFree = pNode->pNext;
            return pNode;
        }
        if (m_pUnused == m_pEnd)
        {
            AddBlock(nNodeSize);
        }
        auto * pNode = m_pUnused;
        m_pUnused += nNodeSize;
        return pNode;
    }

    void Free(void * pNode) noexcept
    {
        auto * pFree = static_cast<FreeNode *>(pNode);
        pFree->pNext = m_pFree;
        m_pFree = pFree;
    }

    /// All nodes are free again. One block of moderate size is kept for the next ones.
    void Reset() noexcept;

private:
    struct FreeNode
    {
        FreeNode * pNext;
    };
    struct alignas(__STDCPP_DEFAULT_NEW_ALIGNMENT__) Block
    {
        Block * pNext;
        std::size_t nBytes; // without this head
    };

    static constexpr INT_PTR MAX_NODES = 1024;
    static constexpr UINT DEFAULT_NODES = 10;

    FreeNode * m_pFree = nullptr;
    BYTE * m_pUnused = nullptr;
    BYTE * m_pEnd = nullptr;
    Block * m_pBlocks = nullptr; // newest first
    UINT m_nNextCount;

    void AddBlock(std::size_t nNodeSize);
    void FreeBlocks(Block * pKeep) noexcept;
};
