#pragma once

/// The table under CDictionary and CAttributeSet: named values in the order of their insertion.

#include "kvx/foundation/StringValue.h"
#include "kvx/platform/mfc/BlockPool.h"

namespace kvx
{
/// One pointer wide, and no memory while it is empty: there is one in every element of a document. Entries never move.
/// A few are found by walking, more by a hash table beside them. A name can outlive its value and keeps its place then;
/// such an entry holds an empty value.
///
/// Errors: CMemoryException *. Threads: one at a time.
class KVX_API ValueTable
{
public:
    struct Entry
    {
        CString strName;
        CStringValue value;
        Entry * pNext;
        UINT_PTR nPrev; ///< the address of the entry before, of the last one in the first; bit 0: only the name is left
    };

    ValueTable() = default;
    ~ValueTable() { Free(); }
    ValueTable(ValueTable const &) = delete;
    ValueTable & operator=(ValueTable const &) = delete;

    /// Those with a value.
    int GetCount() const { return m_pRep ? static_cast<int>(m_pRep->nValues) : 0; }
    Entry * GetFirst() const { return m_pRep ? m_pRep->pFirst : nullptr; }
    Entry * GetLast() const { return GetFirst() ? Before(m_pRep->pFirst) : nullptr; }
    /// Null before the first.
    Entry * GetPrev(Entry const * entry) const { return entry == m_pRep->pFirst ? nullptr : Before(entry); }

    /// Null if the name has no value.
    Entry * Find(CString const & name) const
    {
        Entry * const entry = FindName(name);
        return entry && HasValue(entry) ? entry : nullptr;
    }
    /// A name without a value gets one in its old place.
    Entry & FindOrAdd(CString const & name);
    void Remove(Entry * entry) noexcept;
    void RemoveAll() noexcept;
    /// All values; the names stay.
    void RemoveValues() noexcept;
    /// Room for so many, of use while the table is empty; in the pool, if there is one and it can give so much.
    void Reserve(int count, ObjectPieces * pool = nullptr);

private:
    struct Slot
    {
        Entry * pEntry;
        UINT nHash;
    };
    struct Block
    {
        Block * pNext;
    };
    /// What a table with few entries does without.
    struct Extra
    {
        Slot * pSlots = nullptr;
        UINT nSlots = 0; // a power of two, or 0
        UINT nUnused = 0;
        Entry * pUnused = nullptr; // of the newest block
        Block * pBlocks = nullptr; // newest first
    };
    struct Rep
    {
        Entry * pFirst;
        Entry * pFree; // linked by pNext
        Extra * pExtra;
        UINT nValues;
        UINT nEntries;
        WORD nUsed; // of the entries that lie behind this head
        WORD nCapacity;
    };

    static constexpr UINT FIRST_COUNT = 4;
    static constexpr UINT MAX_BLOCK = 1024;
    static constexpr UINT DIRECT_COUNT = 8;

    Rep * m_pRep = nullptr;

    static bool HasValue(Entry const * entry) { return (entry->nPrev & 1) == 0; }
    static Entry * Before(Entry const * entry)
    {
        return reinterpret_cast<Entry *>(entry->nPrev & ~static_cast<UINT_PTR>(1));
    }
    static void SetBefore(Entry * entry, Entry * before)
    {
        entry->nPrev = reinterpret_cast<UINT_PTR>(before) | (entry->nPrev & 1);
    }
    static Slot & FindSlot(Extra const & extra, UINT hash);
    static void FreeExtra(Extra * extra) noexcept;

    Entry * FindName(CString const & name) const;
    void * Allocate();
    Extra & GetExtra();
    void ReserveSlot();
    void Unlink(Entry * entry) noexcept;
    void ClearIndex(Entry const * entry) noexcept;
    void DestroyEntries() noexcept;
    void Free() noexcept;
};
} // namespace kvx
