#include "kvx/msgdata/MsgDataSet.h"

#include "kvx/transport/MsgStream.h"

#include <limits>

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

    bool Has(int index) const { return (m_nPresent >> index & 1) != 0; }
    void Mark(int index) { m_nPresent |= 1u << index; }

    int m_nNumber;
    std::uint32_t m_nPresent = 0;
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
        m_blocks.Insert(new CDataBlock(*static_cast<CDataBlock *>(other.m_blocks.GetNext(pos))), 1);
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
    if (m_blocks.IsEmpty())
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

CMsgDataSet::CDataBlock & CMsgDataSet::GetBlock(int number)
{
    if (!m_pLast || m_pLast->m_nNumber != number)
    {
        m_pLast = FindBlock(number);
        if (!m_pLast)
        {
            m_pLast = new CDataBlock(number);
            m_blocks.Insert(m_pLast, 1);
        }
    }
    return *m_pLast;
}

CStringValue & CMsgDataSet::GetData(POSITION & pos)
{
    if (!pos)
    {
        pos = reinterpret_cast<POSITION>(INT_PTR{1});
    }
    int const index = RowIndex(pos);
    CDataBlock & block = GetBlock(index / BLOCK_ROWS);
    block.Mark(index % BLOCK_ROWS);
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
    CString text;
    for (DWORD index = 0; index < count; ++index)
    {
        if (!stream.Read(text))
        {
            return 0;
        }
        if (!text.IsEmpty())
        {
            CDataBlock & block = GetBlock(static_cast<int>(index / BLOCK_ROWS));
            block.Mark(static_cast<int>(index % BLOCK_ROWS));
            block.m_cells[index % BLOCK_ROWS] = std::move(text);
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
    POSITION next = m_blocks.GetStartPosition();
    CDataBlock const * block = static_cast<CDataBlock *>(m_blocks.GetNext(next));
    for (LONG index = 0; index < m_rowCount; ++index)
    {
        while (block && block->m_nNumber < index / BLOCK_ROWS)
        {
            block = static_cast<CDataBlock *>(m_blocks.GetNext(next));
        }
        bool const bHere = block && block->m_nNumber == index / BLOCK_ROWS;
        CString const & text = bHere ? block->m_cells[static_cast<std::size_t>(index % BLOCK_ROWS)] : EMPTY_DATA;
        if (!stream.Write(text))
        {
            return 0;
        }
    }
    return 1;
}
