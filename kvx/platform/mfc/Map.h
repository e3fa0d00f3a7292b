#pragma once

#include "kvx/platform/mfc/Elements.h"
#include "kvx/platform/mfc/Plex.h"

#include <new>
#include <type_traits>
#include <utility>

namespace kvx
{
/// What every entry of a map begins with: its place in the order of insertion, and its hash.
struct MapLink
{
    MapLink * pNext;
    MapLink * pPrev;
    UINT nHash;
};

/// The table under every map: finds entries by hash, and keeps them in the order of insertion. It has open
/// addresses with the full hash beside each pointer, so that a look-up touches an entry only to confirm a
/// hit. Up to `DIRECT_COUNT` entries there is no table at all: the entries themselves are walked.
class KVX_API MapTable
{
public:
    constexpr MapTable() noexcept = default;
    ~MapTable() { FreeTable(); }
    MapTable(MapTable const &) = delete;
    MapTable & operator=(MapTable const &) = delete;

    INT_PTR GetCount() const { return m_nCount; }
    MapLink * GetFirst() const { return m_pFirst; }
    UINT GetHashTableSize() const { return m_nSlots > m_nHint ? m_nSlots : m_nHint; }
    void InitHashTable(UINT nHashSize, bool bAllocNow);

    template <class MATCH>
    MapLink * Find(UINT nHash, MATCH match) const
    {
        if (m_nSlots == 0)
        {
            for (auto * pLink = m_pFirst; pLink; pLink = pLink->pNext)
            {
                if (pLink->nHash == nHash && match(pLink))
                {
                    return pLink;
                }
            }
            return nullptr;
        }
        auto const nMask = m_nSlots - 1;
        for (auto i = nHash & nMask;; i = (i + 1) & nMask)
        {
            auto const & slot = m_pSlots[i];
            if (!slot.pLink)
            {
                return nullptr;
            }
            if (slot.nHash == nHash && match(slot.pLink))
            {
                return slot.pLink;
            }
        }
    }

    /// For a match that says enough by itself: with a few entries it is cheaper than the hash, which `hash` computes.
    template <class HASH, class MATCH>
    MapLink * FindByMatch(HASH hash, MATCH match) const
    {
        if (m_nSlots != 0)
        {
            return Find(hash(), match);
        }
        auto * pLink = m_pFirst;
        while (pLink && !match(pLink))
        {
            pLink = pLink->pNext;
        }
        return pLink;
    }

    /// Makes room for one more entry, so that `Link` can't fail.
    void Reserve()
    {
        if (m_nCount >= m_nLimit) [[unlikely]]
        {
            Grow();
        }
    }
    void Link(MapLink * pLink, UINT nHash) noexcept;
    void Unlink(MapLink * pLink) noexcept;
    /// Forgets all entries and gives the table back; its size goes back to what InitHashTable set.
    void RemoveAll() noexcept;

private:
    struct Slot
    {
        MapLink * pLink;
        UINT nHash;
    };

    static constexpr INT_PTR DIRECT_COUNT = 8;
    static constexpr UINT DEFAULT_SIZE = 17;

    Slot * m_pSlots = nullptr;
    UINT m_nSlots = 0; // a power of two, or 0
    UINT m_nHint = DEFAULT_SIZE;
    INT_PTR m_nCount = 0;
    INT_PTR m_nLimit = DIRECT_COUNT; // the count at which the table must grow
    MapLink * m_pFirst = nullptr;
    MapLink * m_pLast = nullptr;

    void Grow();
    void SetTable(std::size_t nSlots);
    void Enter(MapLink * pLink) noexcept;
    void FreeTable() noexcept;
};
} // namespace kvx

/// What all maps share; KEY is how a key is stored, LOOKUP how it is passed.
///
/// A walk gives the entries in the order in which their keys were first set. A position stays good until its
/// own entry is removed. Look-ups take constant time at any size. Values that are pointers are not owned.
///
/// Errors: a null position raises CInvalidArgException. Threads: the caller locks.
template <class KEY, class LOOKUP, class VALUE, class ARG_VALUE>
class AFX_TEMPLATE_API CMapBase : public CObject
{
public:
    struct CPair
    {
        KEY const key;
        VALUE value;
    };

    constexpr explicit CMapBase(INT_PTR nBlockSize = 10) : m_pool(nBlockSize) {}
    ~CMapBase() override { DestroyAll(); }
    CMapBase(CMapBase const &) = delete;
    CMapBase & operator=(CMapBase const &) = delete;

    INT_PTR GetCount() const { return m_table.GetCount(); }
    INT_PTR GetSize() const { return m_table.GetCount(); }
    BOOL IsEmpty() const { return m_table.GetCount() == 0; }

    /// Untouched if the key isn't there.
    BOOL Lookup(LOOKUP key, VALUE & rValue) const
    {
        auto const * pAssoc = Find(key, Hash(key));
        if (!pAssoc)
        {
            return FALSE;
        }
        rValue = pAssoc->value;
        return TRUE;
    }
    CPair const * PLookup(LOOKUP key) const { return Find(key, Hash(key)); }
    CPair * PLookup(LOOKUP key) { return Find(key, Hash(key)); }

    /// The value of the key, made zero or by default if it isn't there.
    VALUE & operator[](LOOKUP key) { return FindOrAdd(key)->value; }
    void SetAt(LOOKUP key, ARG_VALUE newValue)
    {
        // The new value may lie in this map; entries never move, so that does no harm.
        FindOrAdd(key)->value = newValue;
    }

    /// FALSE: there was no such key.
    BOOL RemoveKey(LOOKUP key)
    {
        auto * pAssoc = Find(key, Hash(key));
        if (!pAssoc)
        {
            return FALSE;
        }
        m_table.Unlink(pAssoc);
        pAssoc->~CAssoc();
        if (m_table.GetCount() == 0)
        {
            m_pool.Reset();
        }
        else
        {
            m_pool.Free(pAssoc);
        }
        return TRUE;
    }
    void RemoveAll()
    {
        DestroyAll();
        m_table.RemoveAll();
        m_pool.Reset();
    }

    /// BEFORE_START_POSITION, or null if the map is empty.
    POSITION GetStartPosition() const { return IsEmpty() ? nullptr : BEFORE_START_POSITION; }
    /// The entry at the position, which moves on and becomes null behind the last.
    void GetNextAssoc(POSITION & rNextPosition, KEY & rKey, VALUE & rValue) const
    {
        auto const * pAssoc = Step(rNextPosition);
        rKey = pAssoc->key;
        rValue = pAssoc->value;
    }

    CPair const * PGetFirstAssoc() const { return First(); }
    CPair * PGetFirstAssoc() { return First(); }
    CPair const * PGetNextAssoc(CPair const * pAssoc) const { return Next(pAssoc); }
    CPair * PGetNextAssoc(CPair const * pAssoc) { return Next(pAssoc); }

    /// How many keys to expect. The table grows in any case; 0 leaves the default.
    void InitHashTable(UINT nHashSize, BOOL bAllocNow = TRUE) { m_table.InitHashTable(nHashSize, bAllocNow != FALSE); }
    UINT GetHashTableSize() const { return m_table.GetHashTableSize(); }

    /// A count, then key and value of each entry in order. Reading adds to what the map holds.
    void Serialize(CArchive & ar) override
    {
        if (ar.IsStoring())
        {
            ar.WriteCount(static_cast<DWORD_PTR>(GetCount()));
            for (auto * pAssoc = First(); pAssoc; pAssoc = static_cast<CAssoc *>(pAssoc->pNext))
            {
                SerializeElements<KEY>(ar, const_cast<KEY *>(&pAssoc->key), 1);
                SerializeElements<VALUE>(ar, &pAssoc->value, 1);
            }
            return;
        }
        for (auto nLeft = ar.ReadCount(); nLeft > 0; --nLeft)
        {
            KEY key{};
            VALUE value{};
            SerializeElements<KEY>(ar, &key, 1);
            SerializeElements<VALUE>(ar, &value, 1);
            FindOrAdd(key)->value = std::move(value);
        }
    }

protected:
    using Key = std::remove_reference_t<LOOKUP>;

    struct CAssoc : CPair, kvx::MapLink
    {
    };

    static UINT Hash(Key const & key)
    {
        if constexpr (std::is_same_v<Key, CStringKey>)
        {
            return kvx::HashText(key.GetView().data(), key.GetView().size());
        }
        else if constexpr (std::is_reference_v<LOOKUP>)
        {
            return HashKey<LOOKUP>(const_cast<LOOKUP>(key));
        }
        else
        {
            return HashKey<LOOKUP>(key);
        }
    }
    CAssoc * Find(Key const & key, UINT nHash) const
    {
        return static_cast<CAssoc *>(m_table.Find(nHash,
                                                  [&key](kvx::MapLink const * pLink)
                                                  {
                                                      auto const & stored = static_cast<CAssoc const *>(pLink)->key;
                                                      if constexpr (std::is_same_v<Key, CStringKey>)
                                                      {
                                                          return stored == key;
                                                      }
                                                      else
                                                      {
                                                          return CompareElements<KEY>(&stored, &key) != 0;
                                                      }
                                                  }));
    }
    /// The entry whose key is the lower-case form of the text.
    CAssoc * FindLower(CStringKey::View text) const
    {
        return static_cast<CAssoc *>(m_table.FindByMatch(
            [text] { return kvx::HashLowerText(text.data(), text.size()); }, [text](kvx::MapLink const * pLink)
            { return kvx::IsLowerOf(static_cast<CAssoc const *>(pLink)->key, text); }));
    }
    CAssoc * First() const { return static_cast<CAssoc *>(m_table.GetFirst()); }

private:
    static_assert(alignof(CAssoc) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);

    kvx::MapTable m_table;
    CPlexPool m_pool;

    static CAssoc * Next(CPair const * pPair)
    {
        if (!pPair)
        {
            AfxThrowInvalidArgException();
        }
        return static_cast<CAssoc *>(static_cast<CAssoc const *>(pPair)->pNext);
    }
    CAssoc * Step(POSITION & rPosition) const
    {
        auto * pAssoc = rPosition == BEFORE_START_POSITION ? First() : reinterpret_cast<CAssoc *>(rPosition);
        if (!pAssoc) [[unlikely]]
        {
            AfxThrowInvalidArgException();
        }
        rPosition = reinterpret_cast<POSITION>(static_cast<CAssoc *>(pAssoc->pNext));
        return pAssoc;
    }

    CAssoc * FindOrAdd(Key const & key)
    {
        auto const nHash = Hash(key);
        if (auto * pAssoc = Find(key, nHash))
        {
            return pAssoc;
        }
        m_table.Reserve();
        void * pMemory = m_pool.Allocate(sizeof(CAssoc));
        CAssoc * pAssoc;
        try
        {
            pAssoc = new (pMemory) CAssoc{{ToKey(key), VALUE{}}, {}};
        }
        catch (...)
        {
            m_pool.Free(pMemory);
            throw;
        }
        m_table.Link(pAssoc, nHash);
        return pAssoc;
    }
    static KEY ToKey(Key const & key)
    {
        if constexpr (std::is_same_v<Key, CStringKey>)
        {
            return key.ToString();
        }
        else
        {
            return KEY(key);
        }
    }

    void DestroyAll()
    {
        if constexpr (!std::is_trivially_destructible_v<CPair>)
        {
            for (auto * pAssoc = First(); pAssoc;)
            {
                std::exchange(pAssoc, static_cast<CAssoc *>(pAssoc->pNext))->~CAssoc();
            }
        }
    }
};

template <class KEY, class ARG_KEY, class VALUE, class ARG_VALUE>
class AFX_TEMPLATE_API CMap : public CMapBase<KEY, ARG_KEY, VALUE, ARG_VALUE>
{
public:
    using CMapBase<KEY, ARG_KEY, VALUE, ARG_VALUE>::CMapBase;
};

/// Maps with texts as keys, case-sensitive. Look-ups make no CString.
template <class VALUE, class ARG_VALUE>
class AFX_TEMPLATE_API CMapStringBase : public CMapBase<CString, CStringKey, VALUE, ARG_VALUE>
{
    using Base = CMapBase<CString, CStringKey, VALUE, ARG_VALUE>;

public:
    using Base::Base;

    /// The key as the map holds it, good as long as its entry.
    BOOL LookupKey(CStringKey key, LPCTSTR & rKey) const
    {
        auto const * pPair = this->PLookup(key);
        if (pPair)
        {
            rKey = pPair->key.GetString();
        }
        return pPair != nullptr;
    }

    /// For a map whose keys are in lower case: looks up the lower-case form of the text, which isn't made for it.
    auto const * PLookupLower(CStringKey::View text) const
    {
        return static_cast<typename Base::CPair const *>(this->FindLower(text));
    }
};

class KVX_API CMapStringToPtr : public CMapStringBase<void *, void *>
{
    DECLARE_DYNAMIC(CMapStringToPtr)

public:
    constexpr explicit CMapStringToPtr(INT_PTR nBlockSize = 10) : CMapStringBase(nBlockSize) {}
};

class KVX_API CMapStringToOb : public CMapStringBase<CObject *, CObject *>
{
    DECLARE_SERIAL(CMapStringToOb)

public:
    constexpr explicit CMapStringToOb(INT_PTR nBlockSize = 10) : CMapStringBase(nBlockSize) {}
};

class KVX_API CMapStringToString : public CMapStringBase<CString, CString const &>
{
    DECLARE_SERIAL(CMapStringToString)

public:
    constexpr explicit CMapStringToString(INT_PTR nBlockSize = 10) : CMapStringBase(nBlockSize) {}
};

class KVX_API CMapPtrToPtr : public CMapBase<void *, void *, void *, void *>
{
    DECLARE_DYNAMIC(CMapPtrToPtr)

public:
    constexpr explicit CMapPtrToPtr(INT_PTR nBlockSize = 10) : CMapBase(nBlockSize) {}
};

class KVX_API CMapPtrToWord : public CMapBase<void *, void *, WORD, WORD>
{
    DECLARE_DYNAMIC(CMapPtrToWord)

public:
    constexpr explicit CMapPtrToWord(INT_PTR nBlockSize = 10) : CMapBase(nBlockSize) {}
};

class KVX_API CMapWordToOb : public CMapBase<WORD, WORD, CObject *, CObject *>
{
    DECLARE_SERIAL(CMapWordToOb)

public:
    constexpr explicit CMapWordToOb(INT_PTR nBlockSize = 10) : CMapBase(nBlockSize) {}
};

class KVX_API CMapWordToPtr : public CMapBase<WORD, WORD, void *, void *>
{
    DECLARE_DYNAMIC(CMapWordToPtr)

public:
    constexpr explicit CMapWordToPtr(INT_PTR nBlockSize = 10) : CMapBase(nBlockSize) {}
};
