#include "kvx/foundation/ObCache.h"

#include <memory>

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

/// Also makes room for it among the free ones.
void CObCache::Add(CObject * object)
{
    kvx::MemoryGuarded(
        [this]
        {
            auto const nAll = static_cast<std::size_t>(m_all.GetCount()) + 1;
            if (m_free.capacity() < nAll)
            {
                m_free.reserve(nAll + nAll / 2);
            }
        });
    m_all.AddTail(object);
}

CObject * CObCache::Allocate()
{
    CSingleLock guard(*this, TRUE);
    if (!m_free.empty())
    {
        CObject * const object = m_free.back();
        m_free.pop_back();
        if (object)
        {
            return object;
        }
    }
    std::unique_ptr<CObject> object(Create());
    if (object)
    {
        Add(object.get());
    }
    return object.release();
}

void CObCache::Insert(CObject * object, int inUse)
{
    CSingleLock guard(*this, TRUE);
    Add(object);
    if (!inUse)
    {
        m_free.push_back(object);
    }
}

void CObCache::Return(CObject * object)
{
    CSingleLock guard(*this, TRUE);
    m_free.push_back(object);
}

void CObCache::ReturnAll()
{
    CSingleLock guard(*this, TRUE);
    m_free.clear();
    for (POSITION pos = m_all.GetHeadPosition(); pos;)
    {
        m_free.push_back(m_all.GetNext(pos));
    }
}

CObject * CObCache::GetNextFree(POSITION & pos) const
{
    auto const index = reinterpret_cast<UINT_PTR>(pos);
    if (index < 1 || index > m_free.size())
    {
        AfxThrowInvalidArgException();
    }
    pos = index < m_free.size() ? reinterpret_cast<POSITION>(index + 1) : nullptr;
    return m_free[index - 1];
}

void CObCache::Remove(CObject * object)
{
    CSingleLock guard(*this, TRUE);
    std::erase(m_free, object);
    while (POSITION const pos = m_all.Find(object))
    {
        m_all.RemoveAt(pos);
    }
}

void CObCache::RemoveAll(int deleteObjects)
{
    CSingleLock guard(*this, TRUE);
    m_free.clear();
    if (deleteObjects)
    {
        PerformAutoDelete(m_all, 0);
    }
    m_all.RemoveAll();
}

int CObCache::IsIdle() const
{
    CSingleLock guard(*this, TRUE);
    return m_free.size() == static_cast<std::size_t>(m_all.GetCount());
}

int CObCache::GetFreeCount() const
{
    CSingleLock guard(*this, TRUE);
    return static_cast<int>(m_free.size());
}

int CObCache::GetTotalCount() const
{
    CSingleLock guard(*this, TRUE);
    return static_cast<int>(m_all.GetCount());
}
