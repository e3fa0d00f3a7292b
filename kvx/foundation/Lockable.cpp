#include "kvx/foundation/Lockable.h"

int CLockable::Lock(DWORD) const
{
    m_lock.Lock();
    return 1;
}

int CLockable::Unlock() const
{
    m_lock.Unlock();
    return 1;
}

CMRSWLockable::CReadLock::CReadLock(CMRSWLockable * lock) : m_pLock(lock)
{
    CSingleLock guard(*m_pLock, TRUE);
    m_pLock->m_nReaders.fetch_add(1);
}

CMRSWLockable::CReadLock::~CReadLock()
{
    m_pLock->m_nReaders.fetch_sub(1);
}

CMRSWLockable::CWriteLock::CWriteLock(CMRSWLockable * lock) : m_pLock(lock)
{
    m_pLock->Lock();
    while (m_pLock->m_nReaders.load() > 0)
    {
        Sleep(10);
    }
}

CMRSWLockable::CWriteLock::~CWriteLock()
{
    m_pLock->Unlock();
}
