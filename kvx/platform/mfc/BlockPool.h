#pragma once

/// Memory for many small things that are made in a row and will mostly go together, as those of a document.

#include "kvx/platform/export.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace kvx
{
/// Cuts pieces from blocks, each twice as large as the one before up to a bound. A block goes with the last of its
/// pieces, and each of those may go on any thread; so a piece that outlives the others keeps all of its block. Pieces
/// are known by their address: they lie where memory of their own never begins, `MARK` bytes behind a multiple of twice
/// that.
///
/// Null when there is no memory. Threads: a pool is for one.
template <std::size_t MARK>
class BlockPool
{
public:
    static constexpr std::size_t LARGEST_PIECE = 1024;
    static constexpr std::size_t LARGEST_BLOCK = 32768;

    BlockPool() = default;
    /// Bytes of the first block and of the largest, at most LARGEST_BLOCK. No piece may need more than the first has
    /// room for.
    BlockPool(std::size_t firstBlock, std::size_t largestBlock) : m_nNextSize(firstBlock), m_nLargest(largestBlock) {}
    BlockPool(BlockPool const &) = delete;
    BlockPool & operator=(BlockPool const &) = delete;
    ~BlockPool() { Retire(); }

    /// At most LARGEST_PIECE bytes, aligned to MARK.
    void * Allocate(std::size_t bytes) noexcept;
    /// False, and nothing is done, if it is no piece of a pool.
    static bool Free(void * memory) noexcept
    {
        bool const bPiece = IsPiece(memory);
        if (bPiece)
        {
            Release(BlockOf(memory), 1);
        }
        return bPiece;
    }

private:
    struct Block
    {
        std::int32_t nRefs;
    };

public:
    /// Frees pieces one after the other, and gives back those of one block together.
    class Frees
    {
    public:
        Frees() = default;
        Frees(Frees const &) = delete;
        Frees & operator=(Frees const &) = delete;
        ~Frees() { GiveBack(); }

        /// As BlockPool::Free. The memory may stay until another block's piece comes, or this object goes.
        bool Free(void * memory) noexcept
        {
            if (!IsPiece(memory))
            {
                return false;
            }
            Block * const block = BlockOf(memory);
            if (block != m_pBlock)
            {
                GiveBack();
                m_pBlock = block;
            }
            ++m_nCount;
            return true;
        }

    private:
        Block * m_pBlock = nullptr;
        std::int32_t m_nCount = 0;

        void GiveBack() noexcept
        {
            if (m_pBlock)
            {
                Release(m_pBlock, m_nCount);
                m_nCount = 0;
            }
        }
    };

private:
    Block * m_pBlock = nullptr;
    char * m_pNext = nullptr;
    char * m_pEnd = nullptr;
    std::int32_t m_nCut = 0;
    std::size_t m_nNextSize = 2 * LARGEST_PIECE;
    std::size_t m_nLargest = LARGEST_BLOCK;

    static bool IsPiece(void const * memory) noexcept { return (reinterpret_cast<std::uintptr_t>(memory) & MARK) != 0; }
    /// Before each piece stands its distance from the block.
    static Block * BlockOf(void * memory) noexcept
    {
        auto * const piece = static_cast<char *>(memory);
        std::uint32_t distance = 0;
        std::memcpy(&distance, piece - sizeof(distance), sizeof(distance));
        return reinterpret_cast<Block *>(piece - distance);
    }
    void Retire() noexcept;
    static void Release(Block * block, std::int32_t count) noexcept;
};

/// For what is aligned to 4 at most.
using SmallPieces = BlockPool<4>;
/// For objects that hold pointers. (Where these have 4 bytes, memory of its own is aligned to 8.)
using ObjectPieces = BlockPool<sizeof(void *)>;

KVX_INSTANCES(class, BlockPool<4>);
#if __SIZEOF_POINTER__ == 8
KVX_INSTANCES(class, BlockPool<8>);
#endif
} // namespace kvx
