#include "kvx/foundation/SortedTree.h"

CSortedTree::CSortedTree(CompareProc proc) : m_pRoot(&m_nil), m_pCompare(proc) {}

CSortedTree::CSortedTree(CSortedTree const &) : CSortedTree(&DefaultCompareProc) {}

CSortedTree::~CSortedTree()
{
    RemoveAll();
}

POSITION CSortedTree::Insert(CSortable * element, int allowDuplicates)
{
    CNode * parent = nullptr;
    int order = 0;
    for (CNode * node = m_pRoot; node != m_pNil;)
    {
        parent = node;
        order = m_pCompare(element, node->pElement);
        node = order < 0 ? node->pLeft : node->pRight;
        if (!allowDuplicates && node != m_pNil && m_pCompare(element, node->pElement) == 0)
        {
            return nullptr;
        }
    }
    return AddNode(element, parent, !parent ? m_pRoot : order < 0 ? parent->pLeft : parent->pRight);
}

POSITION CSortedTree::InsertLast(CSortable * element)
{
    CNode * parent = nullptr;
    for (CNode * node = m_pRoot; node != m_pNil; node = node->pRight)
    {
        parent = node;
    }
    return AddNode(element, parent, parent ? parent->pRight : m_pRoot);
}

/// `slot` is the place below `parent`.
POSITION CSortedTree::AddNode(CSortable * element, CNode * parent, CNode *& slot)
{
    auto * const node = new CNode{m_pNil, m_pNil, parent, RED, element};
    slot = node;
    InsertFixup(node);
    ++m_nCount;
    return ToPosition(node);
}

POSITION CSortedTree::Find(CSortable const * key) const
{
    if (!key)
    {
        return nullptr;
    }
    for (CNode * node = m_pRoot; node != m_pNil;)
    {
        int const order = m_pCompare(key, node->pElement);
        if (order == 0)
        {
            return ToPosition(node);
        }
        node = order < 0 ? node->pLeft : node->pRight;
    }
    return nullptr;
}

CSortable * CSortedTree::GetAt(POSITION pos) const
{
    return pos ? ToNode(pos)->pElement : nullptr;
}

POSITION CSortedTree::GetStartPosition() const
{
    return IsEmpty() ? nullptr : ToPosition(Leftmost(m_pRoot));
}

CSortable * CSortedTree::GetNext(POSITION & pos) const
{
    CNode * const node = ToNode(pos);
    if (!node || node == m_pNil)
    {
        pos = nullptr;
        return nullptr;
    }
    pos = ToPosition(Successor(node));
    return node->pElement;
}

CSortedTree::CNode * CSortedTree::Leftmost(CNode * node) const
{
    while (node->pLeft != m_pNil)
    {
        node = node->pLeft;
    }
    return node;
}

CSortedTree::CNode * CSortedTree::Successor(CNode * node) const
{
    if (node->pRight != m_pNil)
    {
        return Leftmost(node->pRight);
    }
    CNode * parent = node->pParent;
    while (parent && node == parent->pRight)
    {
        node = parent;
        parent = node->pParent;
    }
    return parent;
}

int CSortedTree::Remove(CSortable * element)
{
    POSITION pos = Find(element);
    return RemoveAt(pos);
}

int CSortedTree::RemoveAt(POSITION & pos)
{
    CNode * const node = ToNode(pos);
    if (!node || node == m_pNil)
    {
        return 0;
    }
    CNode * const unlinked = node->pLeft == m_pNil || node->pRight == m_pNil ? node : Successor(node);
    CNode * const child = unlinked->pLeft != m_pNil ? unlinked->pLeft : unlinked->pRight;
    child->pParent = unlinked->pParent;
    if (!unlinked->pParent)
    {
        m_pRoot = child;
    }
    else if (unlinked == unlinked->pParent->pLeft)
    {
        unlinked->pParent->pLeft = child;
    }
    else
    {
        unlinked->pParent->pRight = child;
    }
    if (unlinked != node)
    {
        node->pElement = unlinked->pElement;
    }
    if (unlinked->nColour == BLACK)
    {
        DeleteFixup(child);
    }
    delete unlinked;
    --m_nCount;
    return 1;
}

void CSortedTree::RemoveAll()
{
    // Post-order without recursion: a node goes when both of its children have gone.
    for (CNode * node = m_pRoot; node && node != m_pNil;)
    {
        if (node->pLeft != m_pNil)
        {
            node = node->pLeft;
        }
        else if (node->pRight != m_pNil)
        {
            node = node->pRight;
        }
        else
        {
            CNode * const parent = node->pParent;
            if (parent)
            {
                (parent->pLeft == node ? parent->pLeft : parent->pRight) = m_pNil;
            }
            delete node;
            node = parent;
        }
    }
    m_pRoot = m_pNil;
    m_nCount = 0;
}

/// Lets `node` sink to its `down` side; the child on its `up` side takes its place.
void CSortedTree::Rotate(CNode * node, CNode * CNode::*down, CNode * CNode::*up)
{
    CNode * const riser = node->*up;
    node->*up = riser->*down;
    if (riser->*down != m_pNil)
    {
        (riser->*down)->pParent = node;
    }
    riser->pParent = node->pParent;
    if (!node->pParent)
    {
        m_pRoot = riser;
    }
    else if (node == node->pParent->pLeft)
    {
        node->pParent->pLeft = riser;
    }
    else
    {
        node->pParent->pRight = riser;
    }
    riser->*down = node;
    node->pParent = riser;
}

void CSortedTree::InsertFixup(CNode * node)
{
    while (node != m_pRoot && node->pParent->nColour == RED)
    {
        CNode * const grandparent = node->pParent->pParent;
        bool const bLeft = node->pParent == grandparent->pLeft;
        auto const near = bLeft ? &CNode::pLeft : &CNode::pRight;
        auto const far = bLeft ? &CNode::pRight : &CNode::pLeft;
        CNode * const uncle = grandparent->*far;
        if (uncle->nColour == RED)
        {
            node->pParent->nColour = BLACK;
            uncle->nColour = BLACK;
            grandparent->nColour = RED;
            node = grandparent;
            continue;
        }
        if (node == node->pParent->*far)
        {
            node = node->pParent;
            Rotate(node, near, far);
        }
        node->pParent->nColour = BLACK;
        grandparent->nColour = RED;
        Rotate(grandparent, far, near);
    }
    m_pRoot->nColour = BLACK;
}

void CSortedTree::DeleteFixup(CNode * node)
{
    while (node != m_pRoot && node->nColour == BLACK)
    {
        CNode * const parent = node->pParent;
        bool const bLeft = node == parent->pLeft;
        auto const near = bLeft ? &CNode::pLeft : &CNode::pRight;
        auto const far = bLeft ? &CNode::pRight : &CNode::pLeft;
        CNode * sibling = parent->*far;
        if (sibling->nColour == RED)
        {
            sibling->nColour = BLACK;
            parent->nColour = RED;
            Rotate(parent, near, far);
            sibling = parent->*far;
        }
        if ((sibling->*near)->nColour == BLACK && (sibling->*far)->nColour == BLACK)
        {
            sibling->nColour = RED;
            node = parent;
            continue;
        }
        if ((sibling->*far)->nColour == BLACK)
        {
            (sibling->*near)->nColour = BLACK;
            sibling->nColour = RED;
            Rotate(sibling, far, near);
            sibling = parent->*far;
        }
        sibling->nColour = parent->nColour;
        parent->nColour = BLACK;
        (sibling->*far)->nColour = BLACK;
        Rotate(parent, near, far);
        node = m_pRoot;
    }
    node->nColour = BLACK;
}
