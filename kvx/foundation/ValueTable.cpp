#include "kvx/foundation/ValueTable.h"

#include <algorithm>
#include <bit>
#include <new>

namespace kvx
{
namespace
{
UINT Hash(CString const & name)
{
    return HashText(name.GetString(), static_cast<std::size_t>(name.GetLength()));
}
} // namespace

ValueTable::Slot & ValueTable::FindSlot(Extra const & extra, UINT hash)
{
    UINT const mask = extra.nSlots - 1;
    UINT i = hash & mask;
    while (extra.pSlots[i].pEntry)
    {
        i = (i + 1) & mask;
    }
    return extra.pSlots[i];
}

ValueTable::Entry * ValueTable::FindName(CString const & name) const
{
    if (!m_pRep)
    {
        return nullptr;
    }
    Extra const * const extra = m_pRep->pExtra;
    if (!extra || extra->nSlots == 0)
    {
        Entry * entry = m_pRep->pFirst;
        while (entry && !(entry->strName == name))
        {
            entry = entry->pNext;
        }
        return entry;
    }
    UINT const hash = Hash(name);
    UINT const mask = extra->nSlots - 1;
    for (UINT i = hash & mask; extra->pSlots[i].pEntry; i = (i + 1) & mask)
    {
        Slot const & slot = extra->pSlots[i];
        if (slot.nHash == hash && slot.pEntry->strName == name)
        {
            return slot.pEntry;
        }
    }
    return nullptr;
}

void ValueTable::Reserve(int count, ObjectPieces * pool)
{
    if (!m_pRep)
    {
        UINT const capacity = std::clamp(static_cast<UINT>(std::max(count, 1)), 1U, MAX_BLOCK);
        std::size_t const bytes = sizeof(Rep) + capacity * sizeof(Entry);
        void * const piece = pool && bytes <= ObjectPieces::LARGEST_PIECE ? pool->Allocate(bytes) : nullptr;
        m_pRep = static_cast<Rep *>(piece ? piece : AfxAllocate(bytes));
        *m_pRep = {nullptr, nullptr, nullptr, 0, 0, 0, static_cast<WORD>(capacity)};
    }
}

ValueTable::Extra & ValueTable::GetExtra()
{
    if (!m_pRep->pExtra)
    {
        m_pRep->pExtra = new (AfxAllocate(sizeof(Extra))) Extra;
    }
    return *m_pRep->pExtra;
}

void * ValueTable::Allocate()
{
    Reserve(FIRST_COUNT);
    Rep & rep = *m_pRep;
    if (rep.pFree)
    {
        Entry * const entry = rep.pFree;
        rep.pFree = entry->pNext;
        return entry;
    }
    if (rep.nUsed < rep.nCapacity)
    {
        return reinterpret_cast<Entry *>(m_pRep + 1) + rep.nUsed++;
    }
    Extra & extra = GetExtra();
    if (extra.nUnused == 0)
    {
        UINT const count = std::clamp(rep.nEntries, FIRST_COUNT, MAX_BLOCK);
        auto * const block = static_cast<Block *>(AfxAllocate(sizeof(Block) + count * sizeof(Entry)));
        block->pNext = extra.pBlocks;
        extra.pBlocks = block;
        extra.pUnused = reinterpret_cast<Entry *>(block + 1);
        extra.nUnused = count;
    }
    --extra.nUnused;
    return extra.pUnused++;
}

/// Makes sure that the hash table, if there is to be one, takes one entry more.
void ValueTable::ReserveSlot()
{
    UINT const entries = m_pRep ? m_pRep->nEntries : 0;
    UINT const slots = entries > 0 && m_pRep->pExtra ? m_pRep->pExtra->nSlots : 0;
    if (entries < DIRECT_COUNT || entries < slots / 8 * 5)
    {
        return;
    }
    std::size_t const wanted = std::bit_ceil(std::size_t{entries} * 3);
    Extra & extra = GetExtra();
    auto * const fresh = static_cast<Slot *>(AfxAllocate(wanted * sizeof(Slot)));
    std::fill_n(fresh, wanted, Slot{nullptr, 0});
    AfxFree(extra.pSlots);
    extra.pSlots = fresh;
    extra.nSlots = static_cast<UINT>(wanted);
    for (Entry * entry = m_pRep->pFirst; entry; entry = entry->pNext)
    {
        UINT const hash = Hash(entry->strName);
        FindSlot(extra, hash) = {entry, hash};
    }
}

ValueTable::Entry & ValueTable::FindOrAdd(CString const & name)
{
    if (Entry * const known = FindName(name))
    {
        m_pRep->nValues += HasValue(known) ? 0 : 1;
        known->nPrev &= ~static_cast<UINT_PTR>(1);
        return *known;
    }
    ReserveSlot();
    auto * const entry = new (Allocate()) Entry{name, {}, nullptr, 0};
    Rep & rep = *m_pRep;
    if (rep.pFirst)
    {
        Entry * const last = Before(rep.pFirst);
        last->pNext = entry;
        SetBefore(entry, last);
    }
    else
    {
        rep.pFirst = entry;
    }
    SetBefore(rep.pFirst, entry);
    ++rep.nEntries;
    ++rep.nValues;
    if (rep.pExtra && rep.pExtra->nSlots != 0)
    {
        UINT const hash = Hash(entry->strName);
        FindSlot(*rep.pExtra, hash) = {entry, hash};
    }
    return *entry;
}

void ValueTable::Unlink(Entry * entry) noexcept
{
    Rep & rep = *m_pRep;
    Entry * const before = Before(entry);
    if (entry->pNext)
    {
        SetBefore(entry->pNext, before);
    }
    else if (entry != rep.pFirst)
    {
        SetBefore(rep.pFirst, before);
    }
    (entry == rep.pFirst ? rep.pFirst : before->pNext) = entry->pNext;
}

/// Entries behind the hole move into it unless that would put them before their own place, so that no mark of the
/// removal stays.
void ValueTable::ClearIndex(Entry const * entry) noexcept
{
    Extra const * const extra = m_pRep->pExtra;
    if (!extra || extra->nSlots == 0)
    {
        return;
    }
    UINT const mask = extra->nSlots - 1;
    UINT hole = Hash(entry->strName) & mask;
    while (extra->pSlots[hole].pEntry != entry)
    {
        hole = (hole + 1) & mask;
    }
    for (UINT i = (hole + 1) & mask; extra->pSlots[i].pEntry; i = (i + 1) & mask)
    {
        if (((i - extra->pSlots[i].nHash) & mask) >= ((i - hole) & mask))
        {
            extra->pSlots[hole] = extra->pSlots[i];
            hole = i;
        }
    }
    extra->pSlots[hole].pEntry = nullptr;
}

void ValueTable::Remove(Entry * entry) noexcept
{
    ClearIndex(entry);
    Unlink(entry);
    --m_pRep->nEntries;
    m_pRep->nValues -= HasValue(entry) ? 1 : 0;
    entry->~Entry();
    entry->pNext = m_pRep->pFree;
    m_pRep->pFree = entry;
}

void ValueTable::DestroyEntries() noexcept
{
    for (Entry * entry = GetFirst(); entry;)
    {
        std::exchange(entry, entry->pNext)->~Entry();
    }
}

void ValueTable::FreeExtra(Extra * extra) noexcept
{
    if (!extra)
    {
        return;
    }
    while (extra->pBlocks)
    {
        AfxFree(std::exchange(extra->pBlocks, extra->pBlocks->pNext));
    }
    AfxFree(extra->pSlots);
    AfxFree(extra);
}

void ValueTable::RemoveAll() noexcept
{
    if (m_pRep)
    {
        DestroyEntries();
        FreeExtra(m_pRep->pExtra);
        *m_pRep = {nullptr, nullptr, nullptr, 0, 0, 0, m_pRep->nCapacity};
    }
}

void ValueTable::RemoveValues() noexcept
{
    for (Entry * entry = GetFirst(); entry; entry = entry->pNext)
    {
        entry->value.Empty();
        entry->nPrev |= 1;
    }
    if (m_pRep)
    {
        m_pRep->nValues = 0;
    }
}

void ValueTable::Free() noexcept
{
    if (m_pRep)
    {
        DestroyEntries();
        FreeExtra(m_pRep->pExtra);
        if (!ObjectPieces::Free(m_pRep))
        {
            AfxFree(m_pRep);
        }
    }
}
} // namespace kvx
