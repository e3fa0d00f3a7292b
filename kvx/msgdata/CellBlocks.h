#pragma once

/// Where a column keeps its cells.

#include "kvx/foundation/StringValue.h"

#include <array>
#include <bit>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace kvx
{
/// A sparse sequence of cells by index, from 0. Cells lie in blocks of neighbours, small ones first, the first of all
/// in the object itself: a missing block costs next to nothing, a filled sequence is dense. The address of a cell stays
/// as it is until the object goes.
///
/// Threads: one at a time; several may use the const operations at once.
class KVX_API CellBlocks
{
public:
    using Cells = std::unique_ptr<CStringValue[]>;

    /// The most cells of a block.
    static constexpr int LARGEST = 128;

    CellBlocks() = default;
    /// Shares the texts.
    CellBlocks(CellBlocks const & other);
    CellBlocks & operator=(CellBlocks const &) = delete;
    ~CellBlocks();

    /// The block that a cell is in, and of a block the index of its first cell and its length.
    static int GetBlock(int index)
    {
        return index < FIRST     ? 0
               : index < LARGEST ? std::bit_width(static_cast<unsigned>(index)) - FIRST_WIDTH
                                 : LARGE_BLOCKS + index / LARGEST;
    }
    static int GetStart(int block)
    {
        return block == 0 ? 0 : block <= LARGE_BLOCKS ? FIRST / 2 << block : (block - LARGE_BLOCKS) * LARGEST;
    }
    static int GetLength(int block)
    {
        return block == 0 ? FIRST : block <= LARGE_BLOCKS ? FIRST / 2 << block : LARGEST;
    }

    /// The cell, made with its block if that is missing.
    CStringValue & At(int index)
    {
        if (index < FIRST)
        {
            return m_first[static_cast<std::size_t>(index)];
        }
        int const block = GetBlock(index);
        auto const at = static_cast<std::size_t>(block);
        CStringValue * const cells = at < m_blocks.size() && m_blocks[at] ? m_blocks[at].get() : FindOrAdd(block);
        return cells[index - GetStart(block)];
    }
    /// The cells of a block; null if it is missing, as the first never is.
    CStringValue * Find(int block) { return const_cast<CStringValue *>(std::as_const(*this).Find(block)); }
    CStringValue const * Find(int block) const
    {
        auto const at = static_cast<std::size_t>(block);
        return block == 0             ? m_first.data()
               : at < m_blocks.size() ? m_blocks[at].get()
               : m_far.empty()        ? nullptr
                                      : FindFar(block);
    }
    static Cells MakeCells(int block)
    {
        return std::make_unique<CStringValue[]>(static_cast<std::size_t>(GetLength(block)));
    }
    /// Takes over the cells of a block that is missing.
    CStringValue * Add(int block, Cells cells);

private:
    static constexpr int FIRST = 16;
    static constexpr int FIRST_WIDTH = 4;  // bits of the first block's indices
    static constexpr int LARGE_BLOCKS = 3; // the first block of full length, less 1

    std::array<CStringValue, FIRST> m_first;
    // By number, with few gaps, and null in the first block's place; and those that lie far beyond.
    std::vector<Cells> m_blocks;
    std::map<int, Cells> m_far;

    CStringValue * FindOrAdd(int block);
    CStringValue const * FindFar(int block) const;
};
} // namespace kvx
