#pragma once

/// A red-black tree of CSortable objects, with positions like those of the other collections.

#include "kvx/foundation/Stringable.h"

/// The tree does not own its elements unless it is registered with CAutoDelete. Equal elements stand behind those that
/// came before. Positions stay valid until their element is removed; a removal may also take the position of the
/// successor, so don't remove during a walk.
///
/// Insert without duplicates compares with every node on its way but the root: a duplicate of the root's element is
/// taken. This is how the tree is meant to be.
class KVX_API CSortedTree : public CObject
{
public:
    using CompareProc = int (*)(CSortable const *, CSortable const *);

    /// Asks the first element's Compare.
    static int DefaultCompareProc(CSortable const * first, CSortable const * second) { return first->Compare(second); }

    explicit CSortedTree(CompareProc proc = &DefaultCompareProc);
    /// An empty tree with the default procedure; elements are not copied.
    CSortedTree(CSortedTree const & other);
    /// Does nothing.
    CSortedTree & operator=(CSortedTree const &) { return *this; }
    ~CSortedTree() override;

    /// Gives the former procedure; doesn't sort again.
    CompareProc SetCompareProc(CompareProc proc) { return std::exchange(m_pCompare, proc); }

    /// Null if the element was refused as a duplicate.
    POSITION Insert(CSortable * element, int allowDuplicates);
    /// For an element of which the caller knows that no other comes behind it: compares nothing.
    POSITION InsertLast(CSortable * element);
    POSITION Find(CSortable const & key) const { return Find(&key); }
    POSITION Find(CSortable const * key) const;
    CSortable * Lookup(CSortable const & key) const { return GetAt(Find(&key)); }
    CSortable * Lookup(CSortable const * key) const { return GetAt(Find(key)); }
    CSortable * GetAt(POSITION pos) const;
    POSITION GetStartPosition() const;
    /// The element at the position, which moves on; null ends a walk.
    CSortable * GetNext(POSITION & pos) const;
    /// The sentinel when the tree is empty.
    POSITION GetRoot() const { return ToPosition(m_pRoot); }

    int Remove(CSortable * element);
    int RemoveAt(POSITION & pos);
    /// Lets go of all elements.
    void RemoveAll();
    int GetCount() const { return m_nCount; }
    int IsEmpty() const { return m_pRoot == m_pNil; }

private:
    struct CNode
    {
        CNode * pLeft = nullptr;
        CNode * pRight = nullptr;
        CNode * pParent = nullptr;
        int nColour = BLACK;
        CSortable * pElement = nullptr;

        static void * operator new(std::size_t nBytes) { return AfxAllocate(nBytes); }
        static void operator delete(void * p) noexcept { AfxFree(p); }
    };
    static constexpr int BLACK = 0;
    static constexpr int RED = 1;

    int m_nCount = 0;
    CNode * m_pRoot;
    mutable CNode m_nil; // the sentinel: stands in for every empty child; its parent is written during a removal
    CNode * const m_pNil = &m_nil;
    CompareProc m_pCompare;

    static POSITION ToPosition(CNode * node) { return reinterpret_cast<POSITION>(node); }
    static CNode * ToNode(POSITION pos) { return reinterpret_cast<CNode *>(pos); }

    POSITION AddNode(CSortable * element, CNode * parent, CNode *& slot);
    CNode * Leftmost(CNode * node) const;
    CNode * Successor(CNode * node) const;
    void Rotate(CNode * node, CNode * CNode::*down, CNode * CNode::*up);
    void InsertFixup(CNode * node);
    void DeleteFixup(CNode * node);
};
