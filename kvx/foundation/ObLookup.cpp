#include "kvx/foundation/ObLookup.h"

IMPLEMENT_SERIAL(CObIntegerLookup, CObject, 1)
IMPLEMENT_SERIAL(CObStringLookup, CObject, 1)

CObIntegerLookup::CObIntegerLookup(int autoDelete, UINT hashSize) : LockedObMap(hashSize), m_bAutoDelete(autoDelete) {}

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

CObStringLookup::CObStringLookup(int autoDelete, UINT hashSize) : LockedObMap(hashSize)
{
    if (autoDelete)
    {
        RegisterAutoDelete(m_map);
    }
}

void CObStringLookup::Serialize(CArchive & archive)
{
    CSingleLock guard(*this, TRUE);
    m_map.Serialize(archive);
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
