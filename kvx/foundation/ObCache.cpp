#include "kvx/foundation/ObCache.h"

CObCache::CObCache(CreateProc proc) : m_pCreate(proc)
{
    RegisterAutoDelete(m_all);
}

CObCache::~CObCache()
{
    PerformAutoDelete(nullptr, 0);
}

CObject * CObCache::Create()
{
    return m_pCreate ? m_pCreate() : nullptr;
}

CObject * CObCache::Allocate()
{
    CSingleLock guard(*this, TRUE);
    if (!m_free.IsEmpty())
    {
        if (CObject * const object = m_free.RemoveTail())
        {
            return object;
        }
    }
    CObject * const object = Create();
    if (object)
    {
        m_all.AddTail(object);
    }
    return object;
}

void CObCache::Insert(CObject * object, int inUse)
{
    CSingleLock guard(*this, TRUE);
    m_all.AddTail(object);
    if (!inUse)
    {
        m_free.AddTail(object);
    }
}

void CObCache::Return(CObject * object)
{
    CSingleLock guard(*this, TRUE);
    m_free.AddTail(object);
}

void CObCache::ReturnAll()
{
    CSingleLock guard(*this, TRUE);
    m_free.RemoveAll();
    for (POSITION pos = m_all.GetHeadPosition(); pos;)
    {
        m_free.AddTail(m_all.GetNext(pos));
    }
}

void CObCache::Remove(CObject * object)
{
    CSingleLock guard(*this, TRUE);
    for (CObList * const list : {&m_free, &m_all})
    {
        while (POSITION const pos = list->Find(object))
        {
            list->RemoveAt(pos);
        }
    }
}

void CObCache::RemoveAll(int deleteObjects)
{
    CSingleLock guard(*this, TRUE);
    m_free.RemoveAll();
    if (deleteObjects)
    {
        PerformAutoDelete(m_all, 0);
    }
    m_all.RemoveAll();
}

int CObCache::IsIdle() const
{
    CSingleLock guard(*this, TRUE);
    return m_free.GetCount() == m_all.GetCount();
}

int CObCache::GetFreeCount() const
{
    CSingleLock guard(*this, TRUE);
    return static_cast<int>(m_free.GetCount());
}

int CObCache::GetTotalCount() const
{
    CSingleLock guard(*this, TRUE);
    return static_cast<int>(m_all.GetCount());
}
