#include "kvx/foundation/SortedTree.h"
#include "kvx/foundation/AutoDelete.h"
#include "kvx/foundation/ObIterator.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <set>
#include <vector>

namespace
{
class CNumber : public CObject, public CSortable
{
public:
    explicit CNumber(int value) : m_nValue(value) { ++sm_nAlive; }
    ~CNumber() override { --sm_nAlive; }
    int Compare(CSortable const * other) const override
    {
        return m_nValue - dynamic_cast<CNumber const *>(other)->m_nValue;
    }

    static inline int sm_nAlive = 0;
    int m_nValue;
};

int Value(CSortable const * element)
{
    return dynamic_cast<CNumber const *>(element)->m_nValue;
}

std::vector<int> Values(CSortedTree const & tree)
{
    std::vector<int> values;
    for (POSITION pos = tree.GetStartPosition(); pos;)
    {
        values.push_back(Value(tree.GetNext(pos)));
    }
    return values;
}
} // namespace

TEST(SortedTree, BehavesAsAModel)
{
    std::mt19937 random(1);
    for (int const range : {8, 100, 4000})
    {
        std::deque<CNumber> numbers;
        CSortedTree tree;
        std::multiset<int> model;
        for (int i = 0; i < 6000; ++i)
        {
            int const value = static_cast<int>(random() % static_cast<unsigned>(range));
            CNumber key(value);
            bool const bKnown = model.contains(value);
            ASSERT_EQ(tree.Find(key) != nullptr, bKnown);
            // Emptied from time to time, by removals alone.
            if (i / 500 % 3 == 2 || random() % 3 == 0)
            {
                ASSERT_EQ(tree.Remove(&key), bKnown);
                if (bKnown)
                {
                    model.erase(model.find(value));
                }
            }
            else
            {
                bool const bAgain = random() % 2;
                bool bRefused = !bAgain && bKnown;
                if (bRefused && Value(tree.GetAt(tree.GetRoot())) == value)
                {
                    // The root's own element isn't looked at: only one behind it is found.
                    POSITION pos = tree.GetRoot();
                    tree.GetNext(pos);
                    bRefused = pos && Value(tree.GetAt(pos)) == value;
                }
                ASSERT_EQ(tree.Insert(&numbers.emplace_back(value), bAgain) == nullptr, bRefused);
                if (!bRefused)
                {
                    model.insert(value);
                }
            }
            ASSERT_EQ(tree.GetCount(), static_cast<int>(model.size()));
            ASSERT_EQ(tree.IsEmpty() != 0, model.empty());
            if (i % 16 == 0)
            {
                ASSERT_EQ(Values(tree), std::vector<int>(model.begin(), model.end()));
            }
        }
        tree.RemoveAll();
        EXPECT_TRUE(tree.IsEmpty() && tree.GetStartPosition() == nullptr);
        tree.Insert(&numbers[0], 0);
        EXPECT_EQ(tree.GetCount(), 1);
    }
}

TEST(SortedTree, OrdersByItsProcedureAndKeepsEqualOnesInOrder)
{
    CNumber one(1), two(2), oneAgain(1), third(1);
    CSortedTree tree([](CSortable const * a, CSortable const * b) { return -a->Compare(b); });
    for (CNumber * const number : {&one, &two, &oneAgain, &third})
    {
        tree.Insert(number, 1);
    }
    POSITION pos = tree.GetStartPosition();
    for (CNumber * const expected : {&two, &one, &oneAgain, &third})
    {
        EXPECT_EQ(tree.GetNext(pos), expected);
    }
    EXPECT_EQ(pos, nullptr);
    EXPECT_EQ(tree.GetNext(pos), nullptr);
    EXPECT_EQ(tree.RemoveAt(pos), 0);
    EXPECT_EQ(tree.Remove(nullptr), 0);
    EXPECT_TRUE(CSortedTree(tree).IsEmpty());
    CSortedTree other;
    other = tree;
    EXPECT_TRUE(other.IsEmpty());
    POSITION root = other.GetRoot();
    EXPECT_EQ(other.RemoveAt(root), 0); // the sentinel
}

TEST(SortedTree, CanBeOwnedAndIterated)
{
    struct Owner : CAutoDelete
    {
        CSortedTree tree;
        Owner() { RegisterAutoDelete(tree); }
        ~Owner() override { PerformAutoDelete(nullptr, 0); }
    };
    {
        Owner owner;
        for (int i = 0; i < 10; ++i)
        {
            owner.tree.Insert(new CNumber(i * 7 % 10), 1);
        }
        owner.PerformAutoDelete(owner.tree, 0);
        EXPECT_EQ(CNumber::sm_nAlive, 0);
        owner.tree.Insert(new CNumber(2), 0);
        owner.tree.Insert(new CNumber(1), 0);
        CIterator<CNumber> it{CObIterator(owner.tree)};
        EXPECT_EQ(it.Next()->m_nValue, 1);
        EXPECT_EQ(it.Next()->m_nValue, 2);
        EXPECT_EQ(it.Next(), nullptr);
    }
    EXPECT_EQ(CNumber::sm_nAlive, 0);
}
