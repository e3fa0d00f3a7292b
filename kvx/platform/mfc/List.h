#pragma once

#include "kvx/platform/mfc/Elements.h"
#include "kvx/platform/mfc/Plex.h"

#include <algorithm>
#include <new>
#include <type_traits>
#include <utility>

/// A doubly linked list. A position stays good until its own element is removed. Elements that are
/// pointers are not owned.
///
/// Errors: a null position, and the head or tail of an empty list, raise CInvalidArgException. Threads: the
/// caller locks.
template <class TYPE, class ARG_TYPE = TYPE const &>
class AFX_TEMPLATE_API CList : public CObject
{
public:
    /// Memory is taken for that many elements at first, and for more as the list grows.
    constexpr explicit CList(INT_PTR nBlockSize = 10) : m_pool(nBlockSize) {}
    ~CList() override { DestroyAll(); }
    CList(CList const &) = delete;
    CList & operator=(CList const &) = delete;

    INT_PTR GetCount() const { return m_nCount; }
    INT_PTR GetSize() const { return m_nCount; }
    BOOL IsEmpty() const { return m_nCount == 0; }

    TYPE & GetHead() { return Checked(m_pHead)->data; }
    TYPE const & GetHead() const { return Checked(m_pHead)->data; }
    TYPE & GetTail() { return Checked(m_pTail)->data; }
    TYPE const & GetTail() const { return Checked(m_pTail)->data; }

    TYPE RemoveHead() { return Take(Checked(m_pHead)); }
    TYPE RemoveTail() { return Take(Checked(m_pTail)); }

    POSITION AddHead(ARG_TYPE newElement) { return ToPosition(Insert(newElement, nullptr, m_pHead)); }
    POSITION AddTail(ARG_TYPE newElement) { return ToPosition(Insert(newElement, m_pTail, nullptr)); }
    /// Puts copies of all elements of the other list (which may be this one) before or behind these, in
    /// their order.
    void AddHead(CList * pNewList)
    {
        auto const * pNode = Given(pNewList).m_pTail;
        for (auto n = pNewList->m_nCount; n > 0; --n, pNode = pNode->pPrev)
        {
            Insert(pNode->data, nullptr, m_pHead);
        }
    }
    void AddTail(CList * pNewList)
    {
        auto const * pNode = Given(pNewList).m_pHead;
        for (auto n = pNewList->m_nCount; n > 0; --n, pNode = pNode->pNext)
        {
            Insert(pNode->data, m_pTail, nullptr);
        }
    }

    void RemoveAll()
    {
        DestroyAll();
        m_pHead = m_pTail = nullptr;
        m_nCount = 0;
        m_pool.Reset();
    }

    POSITION GetHeadPosition() const { return ToPosition(m_pHead); }
    POSITION GetTailPosition() const { return ToPosition(m_pTail); }
    /// The element at the position, which moves on and becomes null behind the last (before the first).
    TYPE & GetNext(POSITION & rPosition) { return Step(rPosition, &CNode::pNext); }
    TYPE const & GetNext(POSITION & rPosition) const { return Step(rPosition, &CNode::pNext); }
    TYPE & GetPrev(POSITION & rPosition) { return Step(rPosition, &CNode::pPrev); }
    TYPE const & GetPrev(POSITION & rPosition) const { return Step(rPosition, &CNode::pPrev); }

    TYPE & GetAt(POSITION position) { return ToNode(position)->data; }
    TYPE const & GetAt(POSITION position) const { return ToNode(position)->data; }
    void SetAt(POSITION position, ARG_TYPE newElement) { ToNode(position)->data = newElement; }
    void RemoveAt(POSITION position) { Remove(ToNode(position)); }

    /// With a null position, at the head or at the tail.
    POSITION InsertBefore(POSITION position, ARG_TYPE newElement)
    {
        auto * pNode = position ? ToNode(position) : m_pHead;
        return ToPosition(Insert(newElement, pNode ? pNode->pPrev : nullptr, pNode));
    }
    POSITION InsertAfter(POSITION position, ARG_TYPE newElement)
    {
        auto * pNode = position ? ToNode(position) : m_pTail;
        return ToPosition(Insert(newElement, pNode, pNode ? pNode->pNext : nullptr));
    }

    /// The first equal element behind the position (null: from the head), or null.
    POSITION Find(ARG_TYPE searchValue, POSITION startAfter = nullptr) const
    {
        using Value = std::remove_reference_t<ARG_TYPE>;
        Value const * const pValue = std::addressof(searchValue);
        return FindIf([pValue](TYPE const & data) { return CompareElements<TYPE>(&data, pValue) != 0; }, startAfter);
    }
    /// The position of the element with that index from 0; null if there is none.
    POSITION FindIndex(INT_PTR nIndex) const
    {
        if (nIndex < 0 || nIndex >= m_nCount)
        {
            return nullptr;
        }
        auto * pNode = m_pHead;
        if (nIndex <= m_nCount / 2)
        {
            for (; nIndex > 0; --nIndex)
            {
                pNode = pNode->pNext;
            }
        }
        else
        {
            pNode = m_pTail;
            for (nIndex = m_nCount - 1 - nIndex; nIndex > 0; --nIndex)
            {
                pNode = pNode->pPrev;
            }
        }
        return ToPosition(pNode);
    }

    /// A count, then the elements from the head on. Reading adds to what the list holds.
    void Serialize(CArchive & ar) override
    {
        if (ar.IsStoring())
        {
            ar.WriteCount(static_cast<DWORD_PTR>(m_nCount));
            for (auto * pNode = m_pHead; pNode; pNode = pNode->pNext)
            {
                SerializeElements<TYPE>(ar, &pNode->data, 1);
            }
            return;
        }
        for (auto nLeft = ar.ReadCount(); nLeft > 0; --nLeft)
        {
            TYPE element{};
            SerializeElements<TYPE>(ar, &element, 1);
            AddTail(element);
        }
    }

protected:
    struct CNode
    {
        CNode * pNext;
        CNode * pPrev;
        TYPE data;
    };

    template <class TEST>
    POSITION FindIf(TEST test, POSITION startAfter) const
    {
        for (auto * pNode = startAfter ? ToNode(startAfter)->pNext : m_pHead; pNode; pNode = pNode->pNext)
        {
            if (test(pNode->data))
            {
                return ToPosition(pNode);
            }
        }
        return nullptr;
    }

private:
    static_assert(alignof(CNode) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__);

    CNode * m_pHead = nullptr;
    CNode * m_pTail = nullptr;
    INT_PTR m_nCount = 0;
    CPlexPool m_pool;

    static POSITION ToPosition(CNode * pNode) { return reinterpret_cast<POSITION>(pNode); }
    static CNode * ToNode(POSITION position) { return Checked(reinterpret_cast<CNode *>(position)); }
    static CNode * Checked(CNode * pNode)
    {
        if (!pNode) [[unlikely]]
        {
            AfxThrowInvalidArgException();
        }
        return pNode;
    }
    static CList & Given(CList * pList)
    {
        if (!pList)
        {
            AfxThrowInvalidArgException();
        }
        return *pList;
    }
    static TYPE & Step(POSITION & rPosition, CNode * CNode::*pLink)
    {
        auto * pNode = ToNode(rPosition);
        rPosition = ToPosition(pNode->*pLink);
        return pNode->data;
    }

    CNode * Insert(ARG_TYPE newElement, CNode * pPrev, CNode * pNext)
    {
        void * pMemory = m_pool.Allocate(sizeof(CNode));
        CNode * pNode;
        if constexpr (std::is_nothrow_constructible_v<TYPE, ARG_TYPE>)
        {
            pNode = new (pMemory) CNode{pNext, pPrev, TYPE(newElement)};
        }
        else
        {
            try
            {
                pNode = new (pMemory) CNode{pNext, pPrev, TYPE(newElement)};
            }
            catch (...)
            {
                m_pool.Free(pMemory);
                throw;
            }
        }
        (pPrev ? pPrev->pNext : m_pHead) = pNode;
        (pNext ? pNext->pPrev : m_pTail) = pNode;
        ++m_nCount;
        return pNode;
    }

    TYPE Take(CNode * pNode)
    {
        TYPE data(std::move(pNode->data));
        Remove(pNode);
        return data;
    }

    void Remove(CNode * pNode)
    {
        (pNode->pPrev ? pNode->pPrev->pNext : m_pHead) = pNode->pNext;
        (pNode->pNext ? pNode->pNext->pPrev : m_pTail) = pNode->pPrev;
        --m_nCount;
        pNode->~CNode();
        if (m_nCount == 0)
        {
            m_pool.Reset();
        }
        else
        {
            m_pool.Free(pNode);
        }
    }

    void DestroyAll()
    {
        if constexpr (!std::is_trivially_destructible_v<TYPE>)
        {
            for (auto * pNode = m_pHead; pNode;)
            {
                std::exchange(pNode, pNode->pNext)->~CNode();
            }
        }
    }
};

class KVX_API CObList : public CList<CObject *, CObject *>
{
    DECLARE_SERIAL(CObList)

public:
    constexpr explicit CObList(INT_PTR nBlockSize = 10) : CList(nBlockSize) {}
};

/// Has no form in an archive.
class KVX_API CPtrList : public CList<void *, void *>
{
    DECLARE_DYNAMIC(CPtrList)

public:
    constexpr explicit CPtrList(INT_PTR nBlockSize = 10) : CList(nBlockSize) {}
};

class KVX_API CStringList : public CList<CString, CString const &>
{
    DECLARE_SERIAL(CStringList)

public:
    constexpr explicit CStringList(INT_PTR nBlockSize = 10) : CList(nBlockSize) {}

    POSITION Find(CStringKey searchValue, POSITION startAfter = nullptr) const
    {
        return FindIf([&](CString const & str) { return str == searchValue; }, startAfter);
    }
};
