#include "tests/support/Raised.h"

#include "kvx/platform/mfc/Array.h"
#include "kvx/platform/mfc/List.h"

#include <gmock/gmock.h>

#include <functional>
#include <limits>
#include <list>
#include <random>
#include <string>
#include <vector>

using testing::ElementsAre;

namespace
{
template <class LIST>
auto Walk(LIST const & list, bool bForward)
{
    std::vector<std::remove_cvref_t<decltype(list.GetHead())>> result;
    for (auto pos = bForward ? list.GetHeadPosition() : list.GetTailPosition(); pos;)
    {
        result.push_back(bForward ? list.GetNext(pos) : list.GetPrev(pos));
    }
    return result;
}

template <class ARRAY>
auto Elements(ARRAY const & array)
{
    return std::vector(array.GetData(), array.GetData() + array.GetSize());
}

/// Counts the living, so that a lost or doubled destructor shows.
struct Counted
{
    static inline int sm_nAlive = 0;
    int nValue;
    Counted(int value = 0) : nValue(value) { ++sm_nAlive; }
    Counted(Counted const & other) : nValue(other.nValue) { ++sm_nAlive; }
    Counted & operator=(Counted const &) = default;
    ~Counted() { --sm_nAlive; }
    bool operator==(Counted const &) const = default;
};
} // namespace

TEST(List, BothDirectionsAgreeAfterEveryKindOfChange)
{
    CList<int, int> list(2);
    auto const two = list.AddTail(2);
    list.AddHead(1);
    list.InsertAfter(two, 3);
    list.InsertBefore(two, 9);
    list.InsertBefore(nullptr, 0);
    list.InsertAfter(nullptr, 4);
    EXPECT_THAT(Walk(list, true), ElementsAre(0, 1, 9, 2, 3, 4));
    EXPECT_THAT(Walk(list, false), ElementsAre(4, 3, 2, 9, 1, 0));

    list.RemoveAt(list.Find(9));
    list.SetAt(two, 20);
    EXPECT_EQ(list.RemoveHead(), 0);
    EXPECT_EQ(list.RemoveTail(), 4);
    EXPECT_EQ(list.GetAt(two), 20);
    EXPECT_THAT(Walk(list, true), ElementsAre(1, 20, 3));
    EXPECT_THAT(Walk(list, false), ElementsAre(3, 20, 1));

    list.AddTail(&list);
    list.AddHead(&list);
    EXPECT_THAT(Walk(list, true), ElementsAre(1, 20, 3, 1, 20, 3, 1, 20, 3, 1, 20, 3));
    EXPECT_EQ(list.GetCount(), 12);
}

TEST(List, FindStartsBehindThePositionAndIndexesReachFromBothEnds)
{
    CStringList list;
    for (auto const * psz : {_T("a"), _T("b"), _T("a"), _T("c")})
    {
        list.AddTail(psz);
    }
    auto const first = list.Find(_T("a"));
    auto const second = list.Find(CString(_T("a")), first);
    EXPECT_EQ(first, list.GetHeadPosition());
    EXPECT_EQ(second, list.FindIndex(2));
    EXPECT_EQ(list.Find(_T("a"), second), nullptr);
    EXPECT_EQ(list.FindIndex(3), list.GetTailPosition());
    EXPECT_EQ(list.FindIndex(4), nullptr);
    EXPECT_EQ(list.FindIndex(-1), nullptr);
}

TEST(List, MisuseIsRefused)
{
    CObList list;
    POSITION null = nullptr;
    for (auto const & action :
         std::initializer_list<std::function<void()>>{
             [&] { list.GetHead(); }, [&] { list.GetTail(); }, [&] { list.RemoveHead(); }, [&] { list.RemoveTail(); },
             [&] { list.GetNext(null); }, [&] { list.GetPrev(null); }, [&] { list.GetAt(null); },
             [&] { list.RemoveAt(null); }, [&] { list.AddTail(static_cast<CObList *>(nullptr)); }})
    {
        EXPECT_TRUE(Raises<CInvalidArgException>(action));
    }
}

TEST(List, QueueUseKeepsEveryElementAndDestroysEachOnce)
{
    {
        CList<Counted> list(3);
        std::list<int> model;
        std::mt19937 random(7);
        for (int i = 0; i < 20000; ++i)
        {
            auto const nPhase = i / 500 % 2; // fills, then drains down to nothing
            if (random() % 10 < (nPhase == 0 ? 7 : 2))
            {
                list.AddTail(i);
                model.push_back(i);
            }
            else if (!model.empty())
            {
                auto const nIndex = static_cast<INT_PTR>(random() % model.size());
                auto const pos = list.FindIndex(nIndex);
                auto const it = std::next(model.begin(), nIndex);
                ASSERT_EQ(list.GetAt(pos).nValue, *it);
                list.RemoveAt(pos);
                model.erase(it);
            }
            ASSERT_EQ(Counted::sm_nAlive, static_cast<int>(model.size()));
        }
        list.RemoveAll();
        EXPECT_EQ(Counted::sm_nAlive, 0);
        list.AddHead(1);
    }
    EXPECT_EQ(Counted::sm_nAlive, 0);
}

TEST(Array, GrowsInsertsAndRemoves)
{
    CArray<Counted> array;
    for (int i = 0; i < 5; ++i)
    {
        array.Add(i);
    }
    array.InsertAt(1, Counted(9), 2);
    array.SetAtGrow(8, Counted(8));
    array.RemoveAt(0, 2);
    CArray<Counted> other;
    other.Copy(array);
    array.InsertAt(6, &other);
    EXPECT_EQ(array.Append(array), 14);
    array.SetSize(15);
    EXPECT_THAT(Elements(array), ElementsAre(9, 1, 2, 3, 4, 0, 9, 1, 2, 3, 4, 0, 8, 8, 9));
    EXPECT_EQ(Counted::sm_nAlive, 15 + 7);
    array.FreeExtra();
    array.RemoveAll();
    other.RemoveAll();
    EXPECT_EQ(Counted::sm_nAlive, 0);
}

TEST(Array, AnElementOfItsOwnMayBeAdded)
{
    CStringArray array;
    array.Add(_T("a text that is long enough"));
    for (int i = 0; i < 100; ++i)
    {
        array.Add(array[i]);
        array.SetAtGrow(array.GetSize(), array[0]);
        array.InsertAt(0, array[array.GetUpperBound()], 1);
    }
    for (INT_PTR i = 0; i < array.GetSize(); ++i)
    {
        ASSERT_EQ(array[i], _T("a text that is long enough"));
    }
}

TEST(Array, MisuseIsRefusedAndChangesNothing)
{
    CPtrArray array;
    array.SetSize(3);
    EXPECT_EQ(array[2], nullptr);
    for (auto const & action :
         std::initializer_list<std::function<void()>>{
             [&] { array[3]; }, [&] { array[-1]; }, [&] { array.SetAt(3, nullptr); }, [&] { array.SetSize(-1); },
             [&] { array.RemoveAt(1, 3); }, [&] { array.RemoveAt(4, 0); }, [&] { array.RemoveAt(1, -1); },
             [&] { array.RemoveAt(1, std::numeric_limits<INT_PTR>::max()); }, [&] { array.InsertAt(-1, nullptr, 1); },
             [&] { array.InsertAt(0, nullptr, 0); }, [&] { array.SetAtGrow(-1, nullptr); }})
    {
        EXPECT_TRUE(Raises<CInvalidArgException>(action));
    }
    EXPECT_TRUE(Raises<CMemoryException>([&] { array.SetSize(std::numeric_limits<INT_PTR>::max()); }));
    EXPECT_TRUE(Raises<CMemoryException>([&] { array.InsertAt(1, nullptr, std::numeric_limits<INT_PTR>::max() - 1); }));
    EXPECT_EQ(array.GetSize(), 3);
}
