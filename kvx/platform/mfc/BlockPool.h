#pragma once

/// Memory for many small things that are made in a row and will mostly go together, as those of a document.

#include "kvx/platform/export.h"

#include <cstddef>
#include <cstdint>

namespace kvx
{
/// Cuts pieces from blocks of at most 32 KB. A block goes with the last of its pieces, and each of those may go on any
/// thread; so a piece that outlives the others keeps all of its block. Pieces are known by their address: they lie
/// where memory of their own never begins, `MARK` bytes behind a multiple of twice that.
///
/// Null when there is no memory. Threads: a pool is for one.
template <std::size_t MARK>
class BlockPool
{
public:
    static constexpr std::size_t LARGEST_PIECE = 1024;

    BlockPool() = default;
    BlockPool(BlockPool const &) = delete;
    BlockPool & operator=(BlockPool const &) = delete;
    ~BlockPool() { Retire(); }

    /// At most LARGEST_PIECE bytes, aligned to MARK.
    void * Allocate(std::size_t bytes) noexcept;
    /// False, and nothing is done, if it is no piece of a pool.
    static bool Free(void * memory) noexcept
    {
        bool const bPiece = (reinterpret_cast<std::uintptr_t>(memory) & MARK) != 0;
        if (bPiece)
        {
            FreePiece(memory);
        }
        return bPiece;
    }

private:
    struct Block
    {
        std::int32_t nRefs;
    };

    Block * m_pBlock = nullptr;
    char * m_pNext = nullptr;
    char * m_pEnd = nullptr;
    std::int32_t m_nCut = 0;
    std::size_t m_nNextSize = 2 * LARGEST_PIECE;

    void Retire() noexcept;
    static void FreePiece(void * memory) noexcept;
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
