#include "kvx/foundation/ObLookup.h"

IMPLEMENT_SERIAL(CObIntegerLookup, CObject, 1)
IMPLEMENT_SERIAL(CObStringLookup, CObject, 1)

CObIntegerLookup::CObIntegerLookup(int autoDelete, UINT hashSize) : m_bAutoDelete(autoDelete)
{
    if (hashSize > 0)
    {
        m_map.InitHashTable(hashSize, FALSE);
    }
}

void CObIntegerLookup::SetAt(INT_PTR key, CObject * object)
{
    CSingleLock guard(*this, TRUE);
    m_map.SetAt(key, object);
}

int CObIntegerLookup::Lookup(INT_PTR key, CObject *& object) const
{
    CSingleLock guard(*this, TRUE);
    return m_map.Lookup(key, object);
}

CObject * CObIntegerLookup::Lookup(INT_PTR key) const
{
    CObject * object = nullptr;
    return Lookup(key, object) ? object : nullptr;
}

CObject * CObIntegerLookup::RemoveKey(INT_PTR key)
{
    CSingleLock guard(*this, TRUE);
    CObject * object = nullptr;
    m_map.Lookup(key, object);
    m_map.RemoveKey(key);
    return object;
}

void CObIntegerLookup::RemoveAll(int deleteObjects)
{
    CSingleLock guard(*this, TRUE);
    if (deleteObjects)
    {
        kvx::DeleteValues<INT_PTR>(m_map);
    }
    m_map.RemoveAll();
}

void CObIntegerLookup::Serialize(CArchive & archive)
{
    CSingleLock guard(*this, TRUE);
    // A count, then 32-bit keys and objects, whatever the width of a key in memory.
    if (archive.IsStoring())
    {
        archive.WriteCount(static_cast<DWORD_PTR>(m_map.GetCount()));
        INT_PTR key = 0;
        CObject * object = nullptr;
        for (POSITION pos = m_map.GetStartPosition(); pos;)
        {
            m_map.GetNextAssoc(pos, key, object);
            archive << static_cast<LONG>(key);
            archive.WriteObject(object);
        }
        return;
    }
    for (DWORD_PTR count = archive.ReadCount(); count > 0; --count)
    {
        LONG key = 0;
        archive >> key;
        m_map.SetAt(key, archive.ReadObject(nullptr));
    }
}

CObStringLookup::CObStringLookup(int autoDelete, UINT hashSize)
{
    if (hashSize > 0)
    {
        m_map.InitHashTable(hashSize, FALSE);
    }
    if (autoDelete)
    {
        RegisterAutoDelete(m_map);
    }
}

void CObStringLookup::SetAt(LPCTSTR key, CObject * object)
{
    CSingleLock guard(*this, TRUE);
    m_map.SetAt(key, object);
}

int CObStringLookup::Lookup(LPCTSTR key, CObject *& object) const
{
    CSingleLock guard(*this, TRUE);
    return m_map.Lookup(key, object);
}

CObject * CObStringLookup::Lookup(LPCTSTR key) const
{
    CObject * object = nullptr;
    return Lookup(key, object) ? object : nullptr;
}

CObject * CObStringLookup::RemoveKey(LPCTSTR key)
{
    CSingleLock guard(*this, TRUE);
    CObject * object = nullptr;
    m_map.Lookup(key, object);
    m_map.RemoveKey(key);
    return object;
}

void CObStringLookup::RemoveAll(int deleteObjects)
{
    CSingleLock guard(*this, TRUE);
    if (deleteObjects)
    {
        kvx::DeleteValues<CString>(m_map);
    }
    m_map.RemoveAll();
}

void CObStringLookup::Serialize(CArchive & archive)
{
    CSingleLock guard(*this, TRUE);
    m_map.Serialize(archive);
}

CIntToStrLookup::CIntToStrLookup(UINT hashSize)
{
    if (hashSize > 0)
    {
        m_map.InitHashTable(hashSize, FALSE);
    }
}

void CIntToStrLookup::SetAt(int key, CString const & text)
{
    CSingleLock guard(*this, TRUE);
    m_map.SetAt(key, text);
}

int CIntToStrLookup::Lookup(int key, CString & text) const
{
    CSingleLock guard(*this, TRUE);
    return m_map.Lookup(key, text);
}

int CIntToStrLookup::RemoveKey(int key)
{
    CSingleLock guard(*this, TRUE);
    return m_map.RemoveKey(key);
}

void CIntToStrLookup::RemoveAll()
{
    CSingleLock guard(*this, TRUE);
    m_map.RemoveAll();
}
