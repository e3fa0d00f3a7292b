#pragma once

/// One iterator over every collection of objects.
///
///     CIterator<CMsgTarget> it(target->IterateChildren());
///     while (CMsgTarget * child = it.Next()) ...
///
/// Threads: no lock; whoever walks a look-up or a cache holds its lock.

#include "kvx/foundation/ObLookup.h"

class CSortedTree;

/// A collection of one's own that iterators can walk.
class KVX_API CObCollection : public CObject
{
public:
    virtual POSITION GetStartPosition() const = 0;
    virtual CObject * GetNext(POSITION & pos) const = 0;
};

/// A position in some collection. A null start position means the collection's start.
class KVX_API CObIterator
{
public:
    using StepProc = CObject * (*)(void * collection, POSITION & pos);

    CObIterator() = default;
    CObIterator(CObList const & list, POSITION pos = nullptr);
    CObIterator(CObArray const & array, POSITION pos = nullptr);
    CObIterator(CMapStringToOb const & map, POSITION pos = nullptr);
    CObIterator(CObStringLookup const & lookup, POSITION pos = nullptr);
    CObIterator(CObIntegerLookup const & lookup, POSITION pos = nullptr);
    CObIterator(CObCollection const & collection, POSITION pos = nullptr);
    /// The elements of the tree must be objects (CObject) besides being sortable; others are passed as null.
    CObIterator(CSortedTree const & tree, POSITION pos = nullptr);
    virtual ~CObIterator() = default;

    POSITION GetPosition() const { return m_pos; }

protected:
    /// The element at the position, which moves on; null at the end or without a collection.
    CObject * Step() { return m_pos && m_pStep && m_pCollection ? m_pStep(m_pCollection, m_pos) : nullptr; }

private:
    POSITION m_pos = nullptr;
    void * m_pCollection = nullptr;
    StepProc m_pStep = nullptr;

    template <class C>
    CObIterator(C const & collection, POSITION pos, StepProc step)
        : m_pos(pos), m_pCollection(const_cast<C *>(&collection)), m_pStep(step)
    {
    }
};

/// The same, typed. Begins before the first element.
template <class T>
class CIterator : public CObIterator
{
public:
    CIterator() = default;
    CIterator(CObIterator const & other) : CObIterator(other) {}
    template <class C>
    explicit CIterator(C const & collection, POSITION pos = nullptr) : CObIterator(collection, pos)
    {
    }

    /// The next element, which becomes the current one; null behind the last.
    T * Next() { return m_pCurrent = static_cast<T *>(Step()); }
    CIterator & operator++()
    {
        Next();
        return *this;
    }
    T * GetCurrent() const { return m_pCurrent; }
    T * operator->() const { return m_pCurrent; }
    operator T *() const { return m_pCurrent; }

private:
    T * m_pCurrent = nullptr;
};
