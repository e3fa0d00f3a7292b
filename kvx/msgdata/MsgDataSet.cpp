#include "kvx/msgdata/MsgDataSet.h"

#include "kvx/platform/mfc/TextReferences.h"
#include "kvx/transport/MsgStream.h"

#include <algorithm>
#include <array>
#include <utility>

namespace
{
bool IsEmpty(std::span<CStringValue const> cells)
{
    return std::ranges::all_of(cells, [](CStringValue const & cell) { return cell.IsEmpty(); });
}
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
    kvx::MessageTexts texts;
    return Read(stream, texts);
}

int CMsgDataSet::Read(CMsgStream & stream, kvx::MessageTexts & texts)
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
    kvx::CellBlocks::Cells spare;
    for (int block = 0; count > 0; ++block)
    {
        int const length = kvx::CellBlocks::GetLength(block);
        auto const run = std::min<std::size_t>(count, static_cast<std::size_t>(length));
        count -= static_cast<DWORD>(run);
        CStringValue * const known = m_cells.Find(block);
        if (known && IsEmpty({known, run}))
        {
            if (!stream.ReadTexts({known, run}, &texts))
            {
                return 0;
            }
            continue;
        }
        if (!spare)
        {
            spare = std::make_unique<CStringValue[]>(kvx::CellBlocks::LARGEST);
        }
        std::span const cells(spare.get(), run);
        if (!stream.ReadTexts(cells, &texts))
        {
            return 0;
        }
        if (IsEmpty(cells))
        {
            continue;
        }
        if (!known && length == kvx::CellBlocks::LARGEST)
        {
            m_cells.Add(block, std::move(spare));
            continue;
        }
        CStringValue * const target = known ? known : m_cells.Add(block, kvx::CellBlocks::MakeCells(block));
        for (std::size_t i = 0; i < run; ++i)
        {
            if (!cells[i].IsEmpty())
            {
                target[i] = std::exchange(cells[i], CStringValue());
            }
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
