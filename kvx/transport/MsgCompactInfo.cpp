#include "kvx/transport/MsgCompactInfo.h"

#include "kvx/platform/mfc/StaticLock.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace
{
constexpr std::size_t FIRST_SLOTS = 64;
constexpr std::size_t KEPT_SLOTS = 1024; // by a connection that waits for its next message
constexpr std::size_t KEPT_TEXTS = 512;
constexpr DWORD LAST_BASE = 0x40000000; // leaves room for as many texts as memory can hold
} // namespace

/// The tables of large messages. They would weigh on idle connections; so the next large message of any has them.
class CMsgStream::CCompactInfo::SpareIndices
{
public:
    /// An empty one if there is none.
    Index Take()
    {
        std::scoped_lock const guard(m_lock);
        return m_nCount > 0 ? std::move(m_indices[--m_nCount]) : Index();
    }
    void Return(Index index)
    {
        if (index.slots.size() <= LARGEST)
        {
            std::scoped_lock const guard(m_lock);
            if (m_nCount < m_indices.size())
            {
                m_indices[m_nCount++] = std::move(index);
            }
        }
    }

private:
    static constexpr std::size_t LARGEST = 1 << 17; // slots: 1 MiB

    CStaticLock m_lock;
    std::size_t m_nCount = 0;
    std::array<Index, 4> m_indices;
};

CMsgStream::CCompactInfo::SpareIndices & CMsgStream::CCompactInfo::GetSpareIndices()
{
    static SpareIndices & spare = *new SpareIndices; // connections may come to their end until the process has ended
    return spare;
}

int CMsgStream::CCompactInfo::FindOrAddByContent(CString const & text, bool bStays, Recent & recent)
{
    if (m_index.slots.size() < 2 * (m_texts.size() + 1))
    {
        Grow();
    }
    CString::View const view = text;
    DWORD const hash = kvx::HashText(view.data(), view.size());
    std::size_t const mask = m_index.slots.size() - 1;
    std::size_t at = hash & mask;
    for (; m_index.slots[at].nNumber > m_index.nBase; at = (at + 1) & mask)
    {
        Slot const & slot = m_index.slots[at];
        if (slot.nHash == hash)
        {
            DWORD const number = slot.nNumber - m_index.nBase - 1;
            if (kvx::TextReferences::GetView(m_texts[number]) == view)
            {
                if (bStays)
                {
                    recent = {kvx::TextReferences::GetHead(text), slot.nNumber};
                }
                return static_cast<int>(number);
            }
        }
    }
    Add(text, bStays);
    m_index.slots[at] = {hash, m_index.nBase + static_cast<DWORD>(m_texts.size())};
    recent = {m_texts.back(), m_index.slots[at].nNumber};
    return -1;
}

/// The slot for a text that isn't there.
std::size_t CMsgStream::CCompactInfo::FindFree(DWORD hash) const
{
    std::size_t const mask = m_index.slots.size() - 1;
    std::size_t at = hash & mask;
    while (m_index.slots[at].nNumber > m_index.nBase)
    {
        at = (at + 1) & mask;
    }
    return at;
}

void CMsgStream::CCompactInfo::Grow()
{
    std::size_t const size = std::max(FIRST_SLOTS, 2 * m_index.slots.size());
    Index larger;
    if (size > KEPT_SLOTS)
    {
        larger = GetSpareIndices().Take();
    }
    if (larger.slots.size() < size)
    {
        larger = {std::vector<Slot>(size), 0};
    }
    Index const old = std::exchange(m_index, std::move(larger));
    for (Slot const & slot : old.slots)
    {
        if (slot.nNumber > old.nBase)
        {
            m_index.slots[FindFree(slot.nHash)] = {slot.nHash, slot.nNumber - old.nBase + m_index.nBase};
        }
    }
    m_recent = {};
}

void CMsgStream::CCompactInfo::Restock(Stock & stock, DWORD number)
{
    constexpr int MOST = 64;
    m_bStocks = true;
    int const count = stock.nNumber == number ? std::clamp(2 * stock.nTaken, 1, MOST) : 1;
    if (stock.nLeft > 0)
    {
        kvx::TextReferences::Remove(m_texts[stock.nNumber], stock.nLeft);
    }
    kvx::TextReferences::Add(m_texts[number], count);
    stock = {number, count, count};
}

void CMsgStream::CCompactInfo::ReturnStocks()
{
    for (Stock & stock : m_stocks)
    {
        if (stock.nLeft > 0)
        {
            kvx::TextReferences::Remove(m_texts[stock.nNumber], stock.nLeft);
        }
        stock = {};
    }
    m_bStocks = false;
}

void CMsgStream::CCompactInfo::Reset()
{
    if (m_bStocks)
    {
        ReturnStocks();
    }
    m_held.clear();
    m_index.nBase += static_cast<DWORD>(m_texts.size());
    m_texts.clear();
    if (m_texts.capacity() > KEPT_TEXTS)
    {
        m_texts = {};
        m_held = {};
    }
    if (m_index.nBase > LAST_BASE)
    {
        m_index = {};
        m_recent = {};
    }
    else if (m_index.slots.size() > KEPT_SLOTS)
    {
        GetSpareIndices().Return(std::exchange(m_index, Index()));
        m_recent = {};
    }
}
