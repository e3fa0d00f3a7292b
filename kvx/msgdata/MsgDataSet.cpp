#include "kvx/msgdata/MsgDataSet.h"

#include "kvx/platform/mfc/TextReferences.h"
#include "kvx/transport/MsgStream.h"

#include <algorithm>
#include <array>
#include <utility>

namespace
{
using Cells = kvx::CellBlocks::Cells;

// Bytes of the memory that the short texts of a column share when they are read: a cell that somebody keeps keeps no
// more than that.
constexpr std::size_t FIRST_TEXTS = 512;
constexpr std::size_t MOST_TEXTS = 4096;
} // namespace

CMsgDataSet::CMsgDataSet(LONG & rowCount, int ordinal, LPCTSTR name)
    : m_strName(name), m_nOrdinal(ordinal), m_rowCount(rowCount)
{
}

CMsgDataSet::CMsgDataSet(LONG & rowCount, int ordinal, CMsgDataSet const & other)
    : m_strName(other.m_strName), m_cells(other.m_cells), m_nOrdinal(ordinal), m_rowCount(rowCount)
{
}

CStringValue CMsgDataSet::GetData(POSITION pos) const
{
    int const index = pos ? kvx::RowIndex(pos) : 0;
    int const block = kvx::CellBlocks::GetBlock(index);
    CStringValue const * const cells = m_cells.Find(block);
    return cells ? cells[index - kvx::CellBlocks::GetStart(block)] : EMPTY_DATA;
}

int CMsgDataSet::Read(CMsgStream & stream)
{
    DWORD count = 0;
    if (!stream.Read(m_strName) || !stream.Read(count))
    {
        return 0;
    }
    if (count > static_cast<DWORD>(std::numeric_limits<LONG>::max()))
    {
        SetLastError(ERROR_INVALID_DATA);
        return 0;
    }
    kvx::TextPool pool(FIRST_TEXTS, MOST_TEXTS);
    Cells empty; // of the largest length: serves for the next rows
    for (int block = 0; count > 0; ++block)
    {
        auto const length = static_cast<std::size_t>(kvx::CellBlocks::GetLength(block));
        bool const bLargest = length == kvx::CellBlocks::LARGEST;
        Cells cells = bLargest && empty ? std::move(empty) : std::make_unique<CStringValue[]>(length);
        auto const run = std::span(cells.get(), std::min<std::size_t>(count, length));
        if (!stream.ReadTexts(run, &pool))
        {
            return 0;
        }
        count -= static_cast<DWORD>(run.size());
        if (std::ranges::all_of(run, [](CStringValue const & cell) { return cell.IsEmpty(); }))
        {
            empty = bLargest ? std::move(cells) : nullptr;
        }
        else if (CStringValue * const known = m_cells.Find(block))
        {
            for (std::size_t i = 0; i < run.size(); ++i)
            {
                if (!run[i].IsEmpty())
                {
                    known[i] = std::move(run[i]);
                }
            }
        }
        else
        {
            m_cells.Add(block, std::move(cells));
        }
    }
    return 1;
}

int CMsgDataSet::Write(CMsgStream & stream) const
{
    if (!stream.Write(m_strName) || !stream.Write(static_cast<DWORD>(m_rowCount)))
    {
        return 0;
    }
    static std::array<CStringValue, kvx::CellBlocks::LARGEST> const NONE; // for a block that doesn't exist
    LONG left = m_rowCount;
    for (int block = 0; left > 0; ++block)
    {
        CStringValue const * const cells = m_cells.Find(block);
        auto const run = std::min(left, LONG{kvx::CellBlocks::GetLength(block)});
        if (!stream.WriteTexts(std::span(cells ? cells : NONE.data(), static_cast<std::size_t>(run))))
        {
            return 0;
        }
        left -= run;
    }
    return 1;
}
