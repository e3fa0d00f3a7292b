#pragma once

/// A free list of objects: handed out, taken back, and handed out again as they were left.

#include "kvx/foundation/AutoDelete.h"
#include "kvx/foundation/Lockable.h"

#include <vector>

/// Owns every object that it ever handed out or was given, free or in use, and deletes them all in its destructor.
/// Nothing resets an object on its way.
/// Threads: every operation locks; a walk doesn't, and its caller holds the lock (CSingleLock on the cache).
class KVX_API CObCache : public CObject, public CLockable, public CAutoDelete
{
public:
    using CreateProc = CObject * (*)();

    CObCache() : CObCache(nullptr) {}
    explicit CObCache(CreateProc proc);
    ~CObCache() override;

    void SetCreateProc(CreateProc proc) { m_pCreate = proc; }
    /// A new object by the creation procedure; null without one.
    virtual CObject * Create();

    /// The object returned last, else a new one, else null.
    CObject * Allocate();
    /// Takes over an object; it is free unless `inUse` is non-zero.
    void Insert(CObject * object, int inUse);
    /// Makes an object free, without a test that it came from here or is free already.
    void Return(CObject * object);
    /// Makes all objects free.
    void ReturnAll();
    /// Hands an object over to the caller.
    void Remove(CObject * object);
    /// Forgets all objects; they are deleted with a non-zero argument.
    void RemoveAll(int deleteObjects);

    /// 1 if no object is out.
    int IsIdle() const;
    int GetFreeCount() const;
    int GetTotalCount() const;

    POSITION GetStartPosition() const { return m_all.GetHeadPosition(); }
    POSITION GetStartFreePosition() const { return m_free.empty() ? nullptr : reinterpret_cast<POSITION>(1); }
    CObject * GetNext(POSITION & pos) const { return m_all.GetNext(pos); }
    CObject * GetNextFree(POSITION & pos) const;

private:
    // The last one is handed out next. It has room for all, so that an object can be returned whatever happens. A
    // position in it is the index plus 1.
    std::vector<CObject *> m_free;
    CObList m_all{10};
    CreateProc m_pCreate;

    void Add(CObject * object);
};

/// A cache of T that makes its objects itself.
template <class T>
class CCache : public CObCache
{
public:
    CCache() : CObCache(&CreateT) {}

    T * Allocate() { return static_cast<T *>(CObCache::Allocate()); }

private:
    static CObject * CreateT() { return new T; }
};
