#pragma once

/// Locks that classes inherit.

#include "kvx/platform/mfc/Afx.h"

#include <atomic>

/// A base with one critical section, re-entrant for the thread that holds it. A copy of the object gets a lock of
/// its own. Mostly used through a CSingleLock on the conversion to CSyncObject *.
class KVX_API CLockable
{
public:
    CLockable() = default;
    CLockable(CLockable const &) {}
    CLockable & operator=(CLockable const &) { return *this; }
    virtual ~CLockable() = default;

    /// Always blocks until it has the lock, whatever the time-out; gives 1.
    int Lock(DWORD timeout = INFINITE) const;
    int Unlock() const;
    operator CSyncObject *() const { return &m_lock; }

private:
    mutable CCriticalSection m_lock;
};

/// Many readers or one writer.
///
/// A reader only passes the critical section on its way in; a writer holds it and waits until the readers that
/// are inside have left, looking every 10 milliseconds. So a writer holds off new readers and doesn't starve, a
/// writer may read on the same thread, and a thread that holds a read guard must not ask for the write guard.
class KVX_API CMRSWLockable : public CLockable
{
public:
    CMRSWLockable() = default;
    CMRSWLockable(CMRSWLockable const & other) : CLockable(other), m_nReaders(other.m_nReaders.load()) {}

    /// Guards live on the stack. A copy takes nothing, but releases as well: don't copy them.
    class KVX_API CReadLock
    {
    public:
        explicit CReadLock(CMRSWLockable * lock);
        virtual ~CReadLock();

    private:
        CMRSWLockable * m_pLock;
    };

    class KVX_API CWriteLock
    {
    public:
        explicit CWriteLock(CMRSWLockable * lock);
        virtual ~CWriteLock();

    private:
        CMRSWLockable * m_pLock;
    };

private:
    std::atomic<LONG> m_nReaders{0};
};
