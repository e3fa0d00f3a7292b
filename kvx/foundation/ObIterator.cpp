#include "kvx/foundation/ObIterator.h"

#include "kvx/foundation/SortedTree.h"

namespace
{
// An array's position is the index plus 1.
POSITION IndexPosition(INT_PTR index)
{
    return reinterpret_cast<POSITION>(index + 1);
}

CObject * StepList(void * collection, POSITION & pos)
{
    return static_cast<CObList *>(collection)->GetNext(pos);
}

CObject * StepArray(void * collection, POSITION & pos)
{
    auto const & array = *static_cast<CObArray *>(collection);
    INT_PTR const index = reinterpret_cast<INT_PTR>(pos) - 1;
    pos = index + 1 < array.GetSize() ? IndexPosition(index + 1) : nullptr;
    return index < array.GetSize() ? array.GetAt(index) : nullptr;
}

template <class MAP, class KEY>
CObject * StepMap(void * collection, POSITION & pos)
{
    KEY key{};
    CObject * object = nullptr;
    static_cast<MAP *>(collection)->GetNextAssoc(pos, key, object);
    return object;
}

CObject * StepCollection(void * collection, POSITION & pos)
{
    auto const & objects = *static_cast<CObCollection *>(collection);
    if (pos == BEFORE_START_POSITION)
    {
        pos = objects.GetStartPosition();
    }
    return pos ? objects.GetNext(pos) : nullptr;
}

CObject * StepTree(void * collection, POSITION & pos)
{
    return dynamic_cast<CObject *>(static_cast<CSortedTree *>(collection)->GetNext(pos));
}
} // namespace

CObIterator::CObIterator(CObList const & list, POSITION pos)
    : CObIterator(list, pos ? pos : list.GetHeadPosition(), &StepList)
{
}

CObIterator::CObIterator(CObArray const & array, POSITION pos)
    : CObIterator(array, pos ? pos : (array.GetSize() > 0 ? IndexPosition(0) : nullptr), &StepArray)
{
}

CObIterator::CObIterator(CMapStringToOb const & map, POSITION pos)
    : CObIterator(map, pos ? pos : map.GetStartPosition(), &StepMap<CMapStringToOb, CString>)
{
}

CObIterator::CObIterator(CObStringLookup const & lookup, POSITION pos)
    : CObIterator(lookup, pos ? pos : lookup.GetStartPosition(), &StepMap<CObStringLookup, CString>)
{
}

CObIterator::CObIterator(CObIntegerLookup const & lookup, POSITION pos)
    : CObIterator(lookup, pos ? pos : lookup.GetStartPosition(), &StepMap<CObIntegerLookup, INT_PTR>)
{
}

CObIterator::CObIterator(CObCollection const & collection, POSITION pos)
    : CObIterator(collection, pos ? pos : BEFORE_START_POSITION, &StepCollection)
{
}

CObIterator::CObIterator(CSortedTree const & tree, POSITION pos)
    : CObIterator(tree, pos ? pos : tree.GetStartPosition(), &StepTree)
{
}
