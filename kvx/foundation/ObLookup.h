#pragma once

/// Look-ups of objects by number or by text, each with its own lock, and a look-up of texts by number.
///
/// Threads: single operations lock. Counts and walks don't: the caller of a walk holds the lock through the conversion
/// to CSyncObject *.

#include "kvx/foundation/AutoDelete.h"
#include "kvx/foundation/Lockable.h"

namespace kvx
{
/// What all look-ups can do: a map of KEY, which operations take as ARG, to VALUE.
template <class MAP, class KEY, class ARG, class VALUE>
class LockedMap : public CObject, public CLockable
{
public:
    void InitHashTable(UINT hashSize, int allocateNow) { m_map.InitHashTable(hashSize, allocateNow); }
    /// Stores, and lets go of what was there.
    void SetAt(ARG key, VALUE const & value)
    {
        CSingleLock guard(*this, TRUE);
        m_map.SetAt(key, value);
    }
    int Lookup(ARG key, VALUE & value) const
    {
        CSingleLock guard(*this, TRUE);
        return m_map.Lookup(key, value);
    }

    int GetCount() const { return static_cast<int>(m_map.GetCount()); }
    int IsEmpty() const { return m_map.IsEmpty(); }
    POSITION GetStartPosition() const { return m_map.GetStartPosition(); }
    void GetNextAssoc(POSITION & pos, KEY & key, VALUE & value) const { m_map.GetNextAssoc(pos, key, value); }

protected:
    MAP m_map{10};

    /// A hash size of 0 is the default one.
    explicit LockedMap(UINT hashSize)
    {
        if (hashSize > 0)
        {
            m_map.InitHashTable(hashSize, FALSE);
        }
    }
};

template <class MAP, class KEY, class ARG>
class LockedObMap : public LockedMap<MAP, KEY, ARG, CObject *>
{
    using Base = LockedMap<MAP, KEY, ARG, CObject *>;

public:
    using Base::Lookup;
    CObject * Lookup(ARG key) const
    {
        CObject * object = nullptr;
        return Lookup(key, object) ? object : nullptr;
    }
    /// The object, which the caller now owns, or null.
    CObject * RemoveKey(ARG key)
    {
        CSingleLock guard(*this, TRUE);
        CObject * object = nullptr;
        this->m_map.Lookup(key, object);
        this->m_map.RemoveKey(key);
        return object;
    }
    void RemoveAll(int deleteObjects)
    {
        CSingleLock guard(*this, TRUE);
        if (deleteObjects)
        {
            DeleteValues<KEY>(this->m_map);
        }
        this->m_map.RemoveAll();
    }

protected:
    using Base::Base;
};
} // namespace kvx

class KVX_API CObIntegerLookup
    : public kvx::LockedObMap<CMap<INT_PTR, INT_PTR const &, CObject *, CObject * const &>, INT_PTR, INT_PTR>
{
    DECLARE_SERIAL(CObIntegerLookup)

public:
    /// With `autoDelete` the objects are deleted at destruction, each once.
    explicit CObIntegerLookup(int autoDelete = 0, UINT hashSize = 0);
    ~CObIntegerLookup() override { RemoveAll(m_bAutoDelete); }

    void Serialize(CArchive & archive) override;

private:
    int m_bAutoDelete;
};

class KVX_API CObStringLookup : public kvx::LockedObMap<CMapStringToOb, CString, LPCTSTR>, public CAutoDelete
{
    DECLARE_SERIAL(CObStringLookup)

public:
    explicit CObStringLookup(int autoDelete = 0, UINT hashSize = 0);
    ~CObStringLookup() override { PerformAutoDelete(nullptr, 0); }

    void Serialize(CArchive & archive) override;
};

class KVX_API CIntToStrLookup
    : public kvx::LockedMap<CMap<int, int const &, CString, CString const &>, int, int, CString>
{
public:
    explicit CIntToStrLookup(UINT hashSize = 0) : LockedMap(hashSize) {}

    int RemoveKey(int key);
    void RemoveAll();
};
