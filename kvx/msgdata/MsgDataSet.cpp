#include "kvx/msgdata/MsgDataSet.h"

#include "kvx/transport/MsgStream.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <span>

namespace
{
constexpr int BLOCK_ROWS = 32;

int RowIndex(POSITION pos)
{
    INT_PTR const row = reinterpret_cast<INT_PTR>(pos);
    if (row < 1 || row > std::numeric_limits<int>::max())
    {
        AfxThrowInvalidArgException();
    }
    return static_cast<int>(row) - 1;
}
} // namespace

/// The cells of 32 neighbouring rows.
class CMsgDataSet::CDataBlock : public CSortable
{
public:
    explicit CDataBlock(int number) : m_nNumber(number) {}

    int Compare(CSortable const * other) const override
    {
        int const number = static_cast<CDataBlock const *>(other)->m_nNumber;
        return m_nNumber < number ? -1 : m_nNumber > number;
    }

    bool IsEmpty() const
    {
        return std::ranges::all_of(m_cells, [](CStringValue const & cell) { return cell.IsEmpty(); });
    }
    /// The cells of the other block, which it loses, replace those here.
    void TakeCells(CDataBlock & other)
    {
        for (std::size_t i = 0; i < m_cells.size(); ++i)
        {
            if (!other.m_cells[i].IsEmpty())
            {
                m_cells[i] = other.m_cells[i];
                other.m_cells[i].Empty();
            }
        }
    }

    int m_nNumber;
    std::array<CStringValue, BLOCK_ROWS> m_cells;
};

CMsgDataSet::CMsgDataSet(LONG & rowCount, int ordinal, LPCTSTR name)
    : m_strName(name), m_nOrdinal(ordinal), m_rowCount(rowCount)
{
}

CMsgDataSet::CMsgDataSet(LONG & rowCount, int ordinal, CMsgDataSet const & other)
    : m_strName(other.m_strName), m_nOrdinal(ordinal), m_rowCount(rowCount)
{
    for (POSITION pos = other.m_blocks.GetStartPosition(); pos;)
    {
        AddBlock(new CDataBlock(*static_cast<CDataBlock *>(other.m_blocks.GetNext(pos))));
    }
}

CMsgDataSet::~CMsgDataSet()
{
    kvx::TextReferences references;
    for (POSITION pos = m_blocks.GetStartPosition(); pos;)
    {
        auto * const block = static_cast<CDataBlock *>(m_blocks.GetNext(pos));
        for (CStringValue & cell : block->m_cells)
        {
            references.Collect(cell);
        }
        delete block;
    }
}

CMsgDataSet::CDataBlock * CMsgDataSet::FindBlock(int number) const
{
    if (number > m_nHighest)
    {
        return nullptr;
    }
    struct Key : CSortable
    {
        int nNumber;
        explicit Key(int n) : nNumber(n) {}
        int Compare(CSortable const * other) const override
        {
            int const theirs = static_cast<CDataBlock const *>(other)->m_nNumber;
            return nNumber < theirs ? -1 : nNumber > theirs;
        }
    };
    return static_cast<CDataBlock *>(m_blocks.Lookup(Key(number)));
}

void CMsgDataSet::AddBlock(CDataBlock * block)
{
    if (block->m_nNumber > m_nHighest)
    {
        m_nHighest = block->m_nNumber;
        m_blocks.InsertLast(block);
    }
    else
    {
        m_blocks.Insert(block, 1);
    }
}

CMsgDataSet::CDataBlock & CMsgDataSet::FindOrAddBlock(int number)
{
    CDataBlock * block = FindBlock(number);
    if (!block)
    {
        block = new CDataBlock(number);
        AddBlock(block);
    }
    m_pLast = block;
    return *block;
}

CStringValue & CMsgDataSet::GetData(POSITION & pos)
{
    if (!pos)
    {
        pos = reinterpret_cast<POSITION>(INT_PTR{1});
    }
    int const index = RowIndex(pos);
    int const number = index / BLOCK_ROWS;
    CDataBlock & block = m_pLast && m_pLast->m_nNumber == number ? *m_pLast : FindOrAddBlock(number);
    if (index >= m_rowCount)
    {
        m_rowCount = index + 1;
    }
    return block.m_cells[static_cast<std::size_t>(index % BLOCK_ROWS)];
}

CStringValue CMsgDataSet::GetData(POSITION pos) const
{
    int const index = pos ? RowIndex(pos) : 0;
    CDataBlock const * const block = FindBlock(index / BLOCK_ROWS);
    return block ? block->m_cells[static_cast<std::size_t>(index % BLOCK_ROWS)] : EMPTY_DATA;
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
    std::unique_ptr<CDataBlock> block;
    for (DWORD index = 0; index < count; index += BLOCK_ROWS)
    {
        if (!block)
        {
            block = std::make_unique<CDataBlock>(0);
        }
        block->m_nNumber = static_cast<int>(index / BLOCK_ROWS);
        auto const cells = std::span(block->m_cells).first(std::min<std::size_t>(count - index, BLOCK_ROWS));
        if (!stream.ReadTexts(cells))
        {
            return 0;
        }
        if (block->IsEmpty())
        {
            continue; // serves for the next rows
        }
        if (CDataBlock * const known = FindBlock(block->m_nNumber))
        {
            known->TakeCells(*block);
        }
        else
        {
            AddBlock(block.release());
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
    static std::array<CStringValue, BLOCK_ROWS> const NONE; // for a block that doesn't exist
    POSITION next = m_blocks.GetStartPosition();
    CDataBlock const * block = static_cast<CDataBlock *>(m_blocks.GetNext(next));
    for (LONG index = 0; index < m_rowCount;)
    {
        while (block && block->m_nNumber < index / BLOCK_ROWS)
        {
            block = static_cast<CDataBlock *>(m_blocks.GetNext(next));
        }
        LONG const run = std::min(m_rowCount - index, LONG{BLOCK_ROWS});
        bool const bHere = block && block->m_nNumber == index / BLOCK_ROWS;
        if (!stream.WriteTexts(std::span(bHere ? block->m_cells : NONE).first(static_cast<std::size_t>(run))))
        {
            return 0;
        }
        index += run;
    }
    return 1;
}
