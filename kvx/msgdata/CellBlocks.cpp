#include "kvx/msgdata/CellBlocks.h"

#include "kvx/platform/mfc/TextReferences.h"

#include <algorithm>

namespace kvx
{
namespace
{
CellBlocks::Cells CopyCells(int block, CellBlocks::Cells const & cells)
{
    if (!cells)
    {
        return nullptr;
    }
    CellBlocks::Cells copy = CellBlocks::MakeCells(block);
    std::copy_n(cells.get(), CellBlocks::GetLength(block), copy.get());
    return copy;
}
} // namespace

CellBlocks::CellBlocks(CellBlocks const & other) : m_first(other.m_first)
{
    m_blocks.reserve(other.m_blocks.size());
    for (Cells const & cells : other.m_blocks)
    {
        m_blocks.push_back(CopyCells(static_cast<int>(m_blocks.size()), cells));
    }
    for (auto const & [block, cells] : other.m_far)
    {
        m_far.emplace(block, CopyCells(block, cells));
    }
}

CellBlocks::~CellBlocks()
{
    TextReferences references;
    references.Collect(std::span<CStringValue>(m_first));
    auto const collect = [&references](int block, Cells const & cells)
    {
        if (cells)
        {
            references.Collect(std::span(cells.get(), static_cast<std::size_t>(GetLength(block))));
        }
    };
    for (std::size_t i = 0; i < m_blocks.size(); ++i)
    {
        collect(static_cast<int>(i), m_blocks[i]);
    }
    for (auto const & [block, cells] : m_far)
    {
        collect(block, cells);
    }
}

CStringValue const * CellBlocks::FindFar(int block) const
{
    auto const found = m_far.find(block);
    return found != m_far.end() ? found->second.get() : nullptr;
}

CStringValue * CellBlocks::FindOrAdd(int block)
{
    CStringValue * const cells = Find(block);
    return cells ? cells : MemoryGuarded([&] { return Add(block, MakeCells(block)); });
}

CStringValue * CellBlocks::Add(int block, Cells cells)
{
    CStringValue * const added = cells.get();
    auto const at = static_cast<std::size_t>(block);
    std::size_t const reach = 2 * m_blocks.size() + 16; // beyond, the gap would weigh more than a node
    if (at >= reach)
    {
        m_far[block] = std::move(cells);
        return added;
    }
    if (at >= m_blocks.size())
    {
        m_blocks.resize(at + 1);
        // What was far is that no longer.
        for (auto it = m_far.begin(); it != m_far.end() && it->first < block; it = m_far.erase(it))
        {
            m_blocks[static_cast<std::size_t>(it->first)] = std::move(it->second);
        }
    }
    m_blocks[at] = std::move(cells);
    return added;
}
} // namespace kvx
