#include "kvx/foundation/AutoDelete.h"

#include "kvx/foundation/SortedTree.h"

#include <algorithm>
#include <functional>

bool kvx::KeepOnce(std::vector<CObject *> & objects)
{
    std::ranges::sort(objects, std::less<>());
    auto const end = std::unique(objects.begin(), objects.end());
    bool const bTwice = end != objects.end();
    objects.erase(end, objects.end());
    return bTwice;
}

CAutoDelete::Registration * CAutoDelete::FindRegistration(void * key)
{
    for (Registration & entry : m_first)
    {
        if (entry.pKey == key)
        {
            return &entry;
        }
    }
    auto const found = std::ranges::find(m_more, key, &Registration::pKey);
    return found == m_more.end() ? nullptr : &*found;
}

void CAutoDelete::Register(void * key, DeleteProc proc)
{
    if (!key)
    {
        return;
    }
    if (Registration * const entry = FindRegistration(key))
    {
        entry->proc = proc;
    }
    else if (Registration * const unused = m_more.empty() ? FindRegistration(nullptr) : nullptr)
    {
        *unused = {key, proc};
    }
    else
    {
        m_more.push_back({key, proc});
    }
}

void CAutoDelete::PerformAutoDelete(void * key, int bRemove)
{
    if (key)
    {
        if (Registration * const entry = FindRegistration(key))
        {
            entry->proc(key);
            if (bRemove)
            {
                *entry = {};
                std::erase_if(m_more, [](Registration const & r) { return !r.pKey; });
            }
        }
        return;
    }
    for (Registration const & entry : m_first)
    {
        if (entry.pKey)
        {
            entry.proc(entry.pKey);
        }
    }
    for (Registration const & entry : m_more)
    {
        entry.proc(entry.pKey);
    }
    if (bRemove)
    {
        m_first = {};
        m_more.clear();
    }
}

void CAutoDelete::PerformAutoDelete(CSortedTree & tree, int bRemove)
{
    PerformAutoDelete(static_cast<void *>(&tree), bRemove);
}

void CAutoDelete::DeleteList(void * key)
{
    auto & list = *static_cast<CObList *>(key);
    while (!list.IsEmpty())
    {
        delete list.RemoveHead();
    }
    list.RemoveAll();
}

void CAutoDelete::DeleteArray(void * key)
{
    auto & array = *static_cast<CObArray *>(key);
    for (auto i = array.GetSize() - 1; i >= 0; --i)
    {
        delete array.GetAt(i);
    }
    array.SetSize(0, -1);
}

void CAutoDelete::DeleteStringMap(void * key)
{
    auto & map = *static_cast<CMapStringToOb *>(key);
    kvx::DeleteValues<CString>(map);
    map.RemoveAll();
}

void CAutoDelete::DeleteWordMap(void * key)
{
    auto & map = *static_cast<CMapWordToOb *>(key);
    kvx::DeleteValues<WORD>(map);
    map.RemoveAll();
}

void CAutoDelete::DeleteSortedTree(void * key)
{
    auto & tree = *static_cast<CSortedTree *>(key);
    for (POSITION pos = tree.GetStartPosition(); pos;)
    {
        delete tree.GetNext(pos);
    }
    tree.RemoveAll();
}

void CAutoDelete::DeleteObject(void * key)
{
    delete static_cast<CObject *>(key);
}

CAutoObList::CAutoObList()
{
    RegisterAutoDelete(static_cast<CObList &>(*this));
}

CAutoObList::~CAutoObList()
{
    DeleteAll();
}

void CAutoObList::DeleteAll()
{
    std::vector<CObject *> objects;
    try
    {
        objects.reserve(static_cast<std::size_t>(GetCount()));
    }
    catch (std::bad_alloc const &) // what is destroyed needs none: each object once, and nulls for the rest
    {
        for (POSITION pos = GetHeadPosition(); pos;)
        {
            CObject const * const object = GetNext(pos);
            for (POSITION later = pos; later;)
            {
                if (CObject *& other = GetNext(later); other == object)
                {
                    other = nullptr;
                }
            }
        }
    }
    for (POSITION pos = objects.capacity() != 0 ? GetHeadPosition() : nullptr; pos;)
    {
        objects.push_back(GetNext(pos));
    }
    if (kvx::KeepOnce(objects))
    {
        RemoveAll();
        for (CObject * const object : objects)
        {
            AddTail(object);
        }
    }
    PerformAutoDelete(static_cast<CObList &>(*this), 0);
}

CAutoObArray::CAutoObArray()
{
    RegisterAutoDelete(static_cast<CObArray &>(*this));
}

CAutoObArray::~CAutoObArray()
{
    DeleteAll();
}

void CAutoObArray::DeleteAll()
{
    std::vector<CObject *> objects;
    try
    {
        objects.assign(GetData(), GetData() + GetSize());
    }
    catch (std::bad_alloc const &)
    {
        for (INT_PTR i = 0; i < GetSize(); ++i)
        {
            std::replace(GetData() + i + 1, GetData() + GetSize(), GetAt(i), static_cast<CObject *>(nullptr));
        }
    }
    if (kvx::KeepOnce(objects))
    {
        SetSize(static_cast<INT_PTR>(objects.size()), -1);
        std::ranges::copy(objects, GetData());
    }
    PerformAutoDelete(static_cast<CObArray &>(*this), 0);
}
