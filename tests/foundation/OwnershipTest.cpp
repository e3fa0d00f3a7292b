#include "kvx/foundation/AutoDelete.h"
#include "kvx/foundation/AutoHandle.h"
#include "kvx/foundation/Dictionary.h"
#include "kvx/foundation/ObCache.h"
#include "kvx/foundation/ObIterator.h"
#include "kvx/foundation/RefCounter.h"

#include <gmock/gmock.h>

#include <vector>

using testing::ElementsAre;

namespace
{
std::vector<int> g_deleted;

class CItem : public CRefObject
{
public:
    explicit CItem(int number) : m_nNumber(number) {}
    ~CItem() override { g_deleted.push_back(m_nNumber); }
    int m_nNumber;
};

std::vector<int> TakeDeleted()
{
    return std::exchange(g_deleted, {});
}

std::vector<void *> g_closed;

int WINAPI CountClose(void * handle)
{
    g_closed.push_back(handle);
    return 1;
}

void * Handle(INT_PTR value)
{
    return reinterpret_cast<void *>(value);
}

class CItems : public CObCollection
{
public:
    POSITION GetStartPosition() const override { return m_list.GetHeadPosition(); }
    CObject * GetNext(POSITION & pos) const override { return m_list.GetNext(pos); }
    CObList m_list;
};
} // namespace

TEST(RefCounter, TheLastReleaseDeletes)
{
    auto * item = new CItem(1);
    EXPECT_EQ(item->AddRef() + item->AddRef(), 3u);
    EXPECT_EQ(CItem(*item).GetRef(), 0u);
    {
        CItem assigned(2);
        assigned = *item;
        EXPECT_EQ(assigned.GetRef(), 2u);
    }
    EXPECT_EQ(item->Release(1), 1u);
    EXPECT_EQ(item->Release(0), 0u);
    TakeDeleted();
    EXPECT_EQ(item->Release(1), 0xFFFFFFFF); // one too many deletes as well
    EXPECT_THAT(TakeDeleted(), ElementsAre(1));
}

TEST(AutoDelete, EmptiesWhatItHasRegistered)
{
    {
        CAutoObArray array;
        for (int i = 0; i < 3; ++i)
        {
            array.Add(new CItem(i));
        }
        array.Add(nullptr);
        array.DeleteAll();
        EXPECT_THAT(TakeDeleted(), ElementsAre(2, 1, 0));
        EXPECT_EQ(array.GetSize(), 0);
        CAutoObList list;
        list.AddTail(new CItem(5));
        list.DeleteAll();
        list.AddTail(new CItem(6));
        list.AddTail(new CItem(7));
        delete list.RemoveHead(); // handed over
        EXPECT_THAT(TakeDeleted(), ElementsAre(5, 6));
    }
    EXPECT_THAT(TakeDeleted(), ElementsAre(7));
}

TEST(AutoDelete, ManyRegistrations)
{
    CAutoDelete owner;
    CObList lists[3];
    CMapStringToOb strings;
    CMapWordToOb words;
    for (int i = 0; i < 3; ++i)
    {
        owner.RegisterAutoDelete(lists[i]);
        lists[i].AddTail(new CItem(i));
    }
    owner.RegisterAutoDelete(strings);
    owner.RegisterAutoDelete(words);
    owner.RegisterAutoDelete(new CItem(9));
    strings.SetAt(_T("x"), new CItem(7));
    words.SetAt(1, new CItem(8));
    CObList unknown;
    owner.PerformAutoDelete(unknown, 1);
    owner.PerformAutoDelete(lists[1], 1);
    EXPECT_THAT(TakeDeleted(), ElementsAre(1));
    owner.RegisterAutoDelete(lists[1]);
    lists[1].AddTail(new CItem(11));
    owner.PerformAutoDelete(nullptr, 1);
    EXPECT_THAT(TakeDeleted(), testing::UnorderedElementsAre(0, 2, 7, 8, 9, 11));
    owner.PerformAutoDelete(nullptr, 1);
    EXPECT_TRUE(g_deleted.empty());
}

TEST(AutoHandle, ClosesWithoutAskingAndCopiesWithoutClosing)
{
    {
        CAutoHandle a(Handle(1), &CountClose);
        a = Handle(2);
        CAutoHandle b(Handle(3), &CountClose);
        a = b;
        EXPECT_TRUE(a == Handle(3) && Handle(3) == b && a.IsEqual(b));
        CAutoHandle const none(INVALID_HANDLE_VALUE, &CountClose);
    }
    EXPECT_THAT(std::exchange(g_closed, {}), ElementsAre(Handle(1), INVALID_HANDLE_VALUE, Handle(3), Handle(3)));
}

TEST(ObCache, HandsOutTheLastOneReturned)
{
    {
        CObCache cache([]() -> CObject * { return new CItem(0); });
        CObject * const a = cache.Allocate();
        CObject * const b = cache.Allocate();
        EXPECT_FALSE(cache.IsIdle());
        cache.Return(a);
        cache.Return(b);
        EXPECT_TRUE(cache.IsIdle());
        EXPECT_EQ(cache.Allocate(), b);
        cache.Return(a); // a second time
        EXPECT_EQ(cache.GetFreeCount(), 2);
        cache.ReturnAll();
        EXPECT_EQ(cache.Allocate(), b);
        cache.Remove(a);
        EXPECT_EQ(cache.GetFreeCount() + 10 * cache.GetTotalCount(), 10);
        delete a;
        TakeDeleted();
    }
    EXPECT_THAT(TakeDeleted(), ElementsAre(0));
    CObCache empty;
    EXPECT_EQ(empty.Allocate(), nullptr);
    empty.Insert(new CItem(1), 1);
    empty.Insert(new CItem(2), 0);
    EXPECT_EQ(empty.GetFreeCount(), 1);
    empty.RemoveAll(1);
    EXPECT_THAT(TakeDeleted(), ElementsAre(1, 2));
}

TEST(ObLookup, OwnsOnlyWhatItIsToldTo)
{
    {
        CObStringLookup texts(1);
        CObIntegerLookup numbers(1, 17);
        for (int i = 0; i < 2; ++i)
        {
            CString key;
            key.Format(_T("k%d"), i);
            texts.SetAt(key, new CItem(i));
            numbers.SetAt(i, new CItem(10 + i));
        }
        CItem * const old = static_cast<CItem *>(texts.Lookup(_T("k1")));
        texts.SetAt(_T("k1"), new CItem(2));
        EXPECT_TRUE(g_deleted.empty());
        delete old;
        delete texts.RemoveKey(_T("k0"));
        delete numbers.RemoveKey(0);
        EXPECT_EQ(numbers.RemoveKey(0), nullptr);
        EXPECT_THAT(TakeDeleted(), ElementsAre(1, 0, 10));
        numbers.RemoveAll(1);
        EXPECT_THAT(TakeDeleted(), ElementsAre(11));
        CObject * object = nullptr;
        EXPECT_FALSE(numbers.Lookup(1, object));
        EXPECT_TRUE(texts.Lookup(_T("k1"), object) && texts.GetCount() == 1);
    }
    EXPECT_THAT(TakeDeleted(), ElementsAre(2));
}

TEST(ObLookup, WhatAnArchiveSharesIsDeletedOnce)
{
    auto const reload = [](auto & from, auto & to)
    {
        CMemFile file;
        CArchive out(&file, CArchive::store);
        from.Serialize(out);
        out.Close();
        file.SeekToBegin();
        CArchive in(&file, CArchive::load);
        to.Serialize(in);
    };
    CDictionary shared;
    CObStringLookup texts;
    CObIntegerLookup numbers;
    CObList list;
    CObArray array;
    for (int i = 0; i < 2; ++i)
    {
        texts.SetAt(i ? _T("a") : _T("b"), &shared);
        numbers.SetAt(i, &shared);
        list.AddTail(&shared);
        array.Add(&shared);
    }
    CObStringLookup ownTexts(1);
    CObIntegerLookup ownNumbers(1);
    CAutoObList ownList;
    CAutoObArray ownArray;
    reload(texts, ownTexts);
    reload(numbers, ownNumbers);
    reload(list, ownList);
    reload(array, ownArray);
    EXPECT_EQ(ownTexts.Lookup(_T("a")), ownTexts.Lookup(_T("b")));
    EXPECT_EQ(ownNumbers.GetCount() + ownList.GetCount() + ownArray.GetSize(), 6);
}

TEST(ObIterator, WalksEveryCollection)
{
    CItem a(1), b(2);
    CObList list;
    CObArray array;
    CMapStringToOb map;
    CObStringLookup texts;
    CObIntegerLookup numbers;
    CItems items;
    auto const walk = [](CObIterator const & start)
    {
        std::vector<int> seen;
        for (CIterator<CItem> it(start); it.Next();)
        {
            seen.push_back(it->m_nNumber);
        }
        return seen;
    };
    auto const all = [&]
    {
        std::vector<std::vector<int>> seen;
        for (CObIterator const & it : {CObIterator(list), CObIterator(array), CObIterator(map), CObIterator(texts),
                                       CObIterator(numbers), CObIterator(items)})
        {
            seen.push_back(walk(it));
        }
        return seen;
    };
    EXPECT_THAT(all(), testing::Each(testing::IsEmpty()));
    for (CItem * const item : {&a, &b})
    {
        list.AddTail(item);
        array.Add(item);
        map.SetAt(item == &a ? _T("a") : _T("b"), item);
        texts.SetAt(item == &a ? _T("a") : _T("b"), item);
        numbers.SetAt(item->m_nNumber, item);
        items.m_list.AddTail(item);
    }
    EXPECT_THAT(all(), testing::Each(ElementsAre(1, 2)));
    EXPECT_THAT(walk(CObIterator(list, list.GetTailPosition())), ElementsAre(2));
    EXPECT_EQ(CIterator<CItem>().Next(), nullptr);
    TakeDeleted();
}
