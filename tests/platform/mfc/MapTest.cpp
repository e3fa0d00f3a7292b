#include "tests/support/Raised.h"

#include "kvx/platform/mfc/Map.h"

#include <gmock/gmock.h>

#include <map>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::Pair;

namespace
{
using IntMap = CMap<int, int &, int, int>;

std::vector<std::pair<int, int>> Entries(IntMap const & map)
{
    std::vector<std::pair<int, int>> result;
    for (auto * pPair = map.PGetFirstAssoc(); pPair; pPair = map.PGetNextAssoc(pPair))
    {
        result.emplace_back(pPair->key, pPair->value);
    }
    return result;
}

CString Name(int n)
{
    CString str;
    str.Format(_T("a.command.path.%06d"), n);
    return str;
}
} // namespace

TEST(Map, BehavesAsAModelThroughGrowthAndRemoval)
{
    std::mt19937 random(3);
    for (int const nKeys : {12, 400, 30000})
    {
        IntMap map(4);
        std::map<int, std::pair<int, int>> model; // key to order of insertion and value
        int nOrder = 0;
        for (int i = 0; i < 4 * nKeys; ++i)
        {
            int key = static_cast<int>(random() % static_cast<unsigned>(nKeys)) * 1024;
            int value = -1;
            auto const found = model.find(key);
            ASSERT_EQ(map.Lookup(key, value) != 0, found != model.end());
            ASSERT_EQ(value, found != model.end() ? found->second.second : -1);
            if (random() % 3 == 0)
            {
                ASSERT_EQ(map.RemoveKey(key) != 0, model.erase(key) != 0);
                continue;
            }
            map.SetAt(key, i);
            if (found == model.end())
            {
                model[key] = {nOrder++, i};
            }
            else
            {
                found->second.second = i;
            }
        }
        ASSERT_EQ(map.GetCount(), static_cast<INT_PTR>(model.size()));
        std::map<int, std::pair<int, int>> inOrder;
        for (auto const & [key, entry] : model)
        {
            inOrder[entry.first] = {key, entry.second};
        }
        auto walked = Entries(map);
        ASSERT_EQ(walked.size(), inOrder.size());
        std::size_t i = 0;
        for (auto const & [order, entry] : inOrder)
        {
            ASSERT_EQ(walked[i++], entry);
        }

        for (auto & [key, value] : walked)
        {
            ASSERT_TRUE(map.RemoveKey(key));
        }
        EXPECT_TRUE(map.IsEmpty());
        EXPECT_EQ(map.GetStartPosition(), nullptr);
        map[walked[0].first] = 5;
        EXPECT_THAT(Entries(map), ElementsAre(Pair(walked[0].first, 5)));
        for (int const nMore : {3, nKeys})
        {
            for (int i = 0; i < nMore; ++i)
            {
                map[i] = i;
            }
            map.RemoveAll();
            EXPECT_FALSE(map.PLookup(walked[0].first));
            EXPECT_TRUE(map.IsEmpty());
        }
    }
}

TEST(Map, AWalkSurvivesTheRemovalOfOtherEntries)
{
    IntMap map;
    for (int i = 0; i < 50; ++i)
    {
        map[i] = i;
    }
    std::vector<int> seen;
    for (auto pos = map.GetStartPosition(); pos;)
    {
        int key, value;
        map.GetNextAssoc(pos, key, value);
        seen.push_back(key);
        map.RemoveKey(key);
        if (key % 10 == 4) // behind the one that the walk stands at
        {
            int later = key + 3;
            map.RemoveKey(later);
        }
        if (key == 5)
        {
            for (int n = 100; n < 200; ++n) // the table moves meanwhile
            {
                map[n] = n;
            }
        }
    }
    ASSERT_EQ(seen.size(), 50u - 5u + 100u - 10u);
    EXPECT_EQ(seen[7], 8);
    EXPECT_EQ(map.GetCount(), 0);
}

TEST(Map, PositionsAndPairsOfAnEmptyMapAreRefused)
{
    IntMap map;
    int key = 1, value;
    POSITION null = nullptr;
    POSITION start = BEFORE_START_POSITION;
    EXPECT_EQ(map.GetStartPosition(), nullptr);
    EXPECT_EQ(map.PGetFirstAssoc(), nullptr);
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { map.GetNextAssoc(null, key, value); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { map.GetNextAssoc(start, key, value); }));
    EXPECT_TRUE(Raises<CInvalidArgException>([&] { map.PGetNextAssoc(nullptr); }));

    map[key] = 2;
    EXPECT_EQ(map.GetStartPosition(), BEFORE_START_POSITION);
    ASSERT_EQ(map.PLookup(key), map.PGetFirstAssoc());
    EXPECT_EQ(map.PGetNextAssoc(map.PLookup(key)), nullptr);
}

TEST(Map, TextKeysOfEveryKindFindTheSameEntry)
{
    CMapStringToString map;
    for (int nLength = 0; nLength < 70; ++nLength) // every path of the hash, with and without a table
    {
        CString const strKey(_T('k'), nLength);
        map.SetAt(strKey, Name(nLength));
        std::basic_string<WCHAR> const copy(strKey.GetString(), static_cast<std::size_t>(nLength));
        CString strValue;
        ASSERT_TRUE(map.Lookup(copy.c_str(), strValue));
        ASSERT_EQ(strValue, Name(nLength));
        ASSERT_TRUE(map.PLookup(CStringKey::View(copy)));
    }
    EXPECT_EQ(map[static_cast<LPCTSTR>(nullptr)], Name(0));
    EXPECT_EQ(map.GetCount(), 70);
    EXPECT_FALSE(map.PLookup(_T("K")));

    CString const strWithZero(_T("a\0b"), 3);
    map[strWithZero] = _T("zero");
    EXPECT_FALSE(map.PLookup(_T("a")));
    LPCTSTR lpszKey = nullptr;
    EXPECT_TRUE(map.LookupKey(strWithZero, lpszKey));
    EXPECT_EQ(lpszKey, strWithZero.GetString()) << "the key is shared, not copied";

    CMap<CString, LPCTSTR, int, int> byPointer;
    byPointer.SetAt(_T("x"), 1);
    EXPECT_EQ(byPointer[CString(_T("x"))], 1);
}

TEST(Map, LowerCaseKeysAreFoundByTextsOfAnyCase)
{
    // Of each length in turns, and with the neighbours of the letters; with few entries there is no table.
    CString const strUnits(_T("aZ@[`{0.\u00C4\u00E4\u0416\uFF21z"));
    CMapStringToPtr map;
    auto const make = [&](int i)
    {
        CString strText;
        for (int nLength = 1 + i % 40; strText.GetLength() < nLength; i = (i * 7 + 3) % 1009)
        {
            strText += strUnits[i % strUnits.GetLength()];
        }
        return strText;
    };
    for (int i = 0; i < 200; ++i)
    {
        CString const strText = make(i);
        CString strLower = strText;
        map.SetAt(strLower.MakeLower(), &map);
        for (int j = 0; j <= i; ++j)
        {
            auto const * const pPair = map.PLookupLower(make(j));
            ASSERT_TRUE(pPair && pPair->key == make(j).MakeLower()) << i << " " << j;
        }
        strLower.SetAt(strLower.GetLength() - 1, 'q');
        EXPECT_FALSE(map.PLookupLower(strLower)) << i;
    }
}

TEST(Map, HashesSpreadRegularKeys)
{
    // Texts that differ in one digit, aligned addresses and multiples of a power of two fall into few slots under
    // a weak hash.
    std::set<UINT> texts, integers;
    for (int i = 0; i < 4096; ++i)
    {
        auto const strName = Name(i);
        texts.insert(kvx::HashText(strName, static_cast<std::size_t>(strName.GetLength())) & 0xFFFF);
        integers.insert(kvx::HashInteger(static_cast<ULONGLONG>(i) << 20) & 0xFFFF);
    }
    EXPECT_GT(texts.size(), 3800u);
    EXPECT_GT(integers.size(), 3800u);
}
