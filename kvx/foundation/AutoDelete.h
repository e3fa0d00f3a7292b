#pragma once

/// Owned collections: a mix-in that empties and deletes what it has registered, and two collections that do so with
/// themselves.

#include "kvx/platform/mfc/Afx.h"

#include <array>
#include <vector>

class CSortedTree;

namespace kvx
{
/// Leaves each object once, in another order if it must; true if one stood there more often. An archive restores what
/// was shared, also in a collection that owns its objects.
KVX_API bool KeepOnce(std::vector<CObject *> & objects);

/// The same without any memory, which what is destroyed may not need: the map holds nulls behind it.
template <class MAP>
void DeleteValuesInPlace(MAP & map)
{
    for (auto * pair = map.PGetFirstAssoc(); pair; pair = map.PGetNextAssoc(pair))
    {
        CObject * const object = std::exchange(pair->value, nullptr);
        for (auto * other = object ? map.PGetNextAssoc(pair) : nullptr; other; other = map.PGetNextAssoc(other))
        {
            if (other->value == object)
            {
                other->value = nullptr;
            }
        }
        delete object;
    }
}

/// Deletes the objects of a map, each once. They stay in the map.
template <class KEY, class MAP>
void DeleteValues(MAP & map)
{
    KEY key{};
    CObject * object = nullptr;
    std::vector<CObject *> objects;
    try
    {
        objects.reserve(static_cast<std::size_t>(map.GetCount()));
    }
    catch (std::bad_alloc const &)
    {
        DeleteValuesInPlace(map);
        return;
    }
    for (POSITION pos = map.GetStartPosition(); pos;)
    {
        map.GetNextAssoc(pos, key, object);
        objects.push_back(object);
    }
    if (KeepOnce(objects))
    {
        for (CObject * const once : objects)
        {
            delete once;
        }
        return;
    }
    for (POSITION pos = map.GetStartPosition(); pos;) // an object may take others from the map as it goes
    {
        map.GetNextAssoc(pos, key, object);
        delete object;
    }
}
} // namespace kvx

/// Registry of things to be emptied. The owner registers its collections in its constructor and calls
/// PerformAutoDelete in its destructor, while they still live; this class's own destructor deletes nothing.
/// Threads: no lock.
class KVX_API CAutoDelete
{
public:
    CAutoDelete() = default;
    /// A copy is another owner: it has registered nothing.
    CAutoDelete(CAutoDelete const &) {}
    CAutoDelete & operator=(CAutoDelete const &) { return *this; }
    virtual ~CAutoDelete() = default;

    /// A later registration of the same address replaces the earlier one.
    void RegisterAutoDelete(CObList & list) { Register(&list, &DeleteList); }
    void RegisterAutoDelete(CObArray & array) { Register(&array, &DeleteArray); }
    void RegisterAutoDelete(CMapStringToOb & map) { Register(&map, &DeleteStringMap); }
    void RegisterAutoDelete(CMapWordToOb & map) { Register(&map, &DeleteWordMap); }
    /// Deletes the elements through CSortable.
    void RegisterAutoDelete(CSortedTree & tree) { Register(&tree, &DeleteSortedTree); }
    /// For an object that is deleted once, at the end.
    void RegisterAutoDelete(CObject * object) { Register(object, &DeleteObject); }

    /// Deletes the elements of one registered address, or of all with null, in order of registration. With
    /// `bRemove` the registration goes too. An address that isn't registered is ignored.
    void PerformAutoDelete(void * key, int bRemove);
    void PerformAutoDelete(CObList & list, int bRemove) { PerformAutoDelete(static_cast<void *>(&list), bRemove); }
    void PerformAutoDelete(CObArray & array, int bRemove) { PerformAutoDelete(static_cast<void *>(&array), bRemove); }
    void PerformAutoDelete(CMapStringToOb & map, int bRemove) { PerformAutoDelete(static_cast<void *>(&map), bRemove); }
    void PerformAutoDelete(CMapWordToOb & map, int bRemove) { PerformAutoDelete(static_cast<void *>(&map), bRemove); }
    void PerformAutoDelete(CSortedTree & tree, int bRemove);

private:
    using DeleteProc = void (*)(void *);

    struct Registration
    {
        void * pKey = nullptr;
        DeleteProc proc = nullptr;
    };

    // Nearly every owner has one or two collections, and many owners are made for every message: those two
    // need no memory of their own.
    std::array<Registration, 2> m_first;
    std::vector<Registration> m_more;

    void Register(void * key, DeleteProc proc);
    Registration * FindRegistration(void * key);

    static void DeleteList(void * list);
    static void DeleteArray(void * array);
    static void DeleteStringMap(void * map);
    static void DeleteWordMap(void * map);
    static void DeleteSortedTree(void * tree);
    static void DeleteObject(void * object);
};

/// A list that owns its objects. RemoveHead and its kin hand an object over; DeleteAll and the destructor delete, also
/// an object that stands there twice.
class KVX_API CAutoObList : public CObList, public CAutoDelete
{
public:
    CAutoObList();
    ~CAutoObList() override;
    void DeleteAll();
};

/// The same as an array; elements are deleted from the last to the first.
class KVX_API CAutoObArray : public CObArray, public CAutoDelete
{
public:
    CAutoObArray();
    ~CAutoObArray() override;
    void DeleteAll();
};
