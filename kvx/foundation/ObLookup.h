#pragma once

/// Look-ups of objects by number or by text, each with its own lock, and a look-up of texts by number.
///
/// Threads: single operations lock. Counts and walks don't: the caller of a walk holds the lock through the conversion
/// to CSyncObject *.

#include "kvx/foundation/AutoDelete.h"
#include "kvx/foundation/Lockable.h"

class KVX_API CObIntegerLookup : public CObject, public CLockable
{
    DECLARE_SERIAL(CObIntegerLookup)

public:
    /// With `autoDelete` the objects are deleted at destruction, each once. A hash size of 0 is the default one.
    explicit CObIntegerLookup(int autoDelete = 0, UINT hashSize = 0);
    ~CObIntegerLookup() override { RemoveAll(m_bAutoDelete); }

    void InitHashTable(UINT hashSize, int allocateNow) { m_map.InitHashTable(hashSize, allocateNow); }
    /// Stores, and lets go of the object that was there.
    void SetAt(INT_PTR key, CObject * object);
    int Lookup(INT_PTR key, CObject *& object) const;
    CObject * Lookup(INT_PTR key) const;
    /// The object, which the caller now owns, or null.
    CObject * RemoveKey(INT_PTR key);
    void RemoveAll(int deleteObjects);

    int GetCount() const { return static_cast<int>(m_map.GetCount()); }
    int IsEmpty() const { return m_map.IsEmpty(); }
    POSITION GetStartPosition() const { return m_map.GetStartPosition(); }
    void GetNextAssoc(POSITION & pos, INT_PTR & key, CObject *& object) const { m_map.GetNextAssoc(pos, key, object); }

    void Serialize(CArchive & archive) override;

private:
    int m_bAutoDelete;
    CMap<INT_PTR, INT_PTR const &, CObject *, CObject * const &> m_map{10};
};

class KVX_API CObStringLookup : public CObject, public CLockable, public CAutoDelete
{
    DECLARE_SERIAL(CObStringLookup)

public:
    explicit CObStringLookup(int autoDelete = 0, UINT hashSize = 0);
    ~CObStringLookup() override { PerformAutoDelete(nullptr, 0); }

    void InitHashTable(UINT hashSize, int allocateNow) { m_map.InitHashTable(hashSize, allocateNow); }
    void SetAt(LPCTSTR key, CObject * object);
    int Lookup(LPCTSTR key, CObject *& object) const;
    CObject * Lookup(LPCTSTR key) const;
    CObject * RemoveKey(LPCTSTR key);
    void RemoveAll(int deleteObjects);

    int GetCount() const { return static_cast<int>(m_map.GetCount()); }
    int IsEmpty() const { return m_map.IsEmpty(); }
    POSITION GetStartPosition() const { return m_map.GetStartPosition(); }
    void GetNextAssoc(POSITION & pos, CString & key, CObject *& object) const { m_map.GetNextAssoc(pos, key, object); }

    void Serialize(CArchive & archive) override;

private:
    CMapStringToOb m_map{10};
};

class KVX_API CIntToStrLookup : public CObject, public CLockable
{
public:
    explicit CIntToStrLookup(UINT hashSize = 0);

    void SetAt(int key, CString const & text);
    int Lookup(int key, CString & text) const;
    int RemoveKey(int key);
    void RemoveAll();

    int GetCount() const { return static_cast<int>(m_map.GetCount()); }
    POSITION GetStartPosition() const { return m_map.GetStartPosition(); }
    void GetNextAssoc(POSITION & pos, int & key, CString & text) const { m_map.GetNextAssoc(pos, key, text); }

private:
    CMap<int, int const &, CString, CString const &> m_map{10};
};
