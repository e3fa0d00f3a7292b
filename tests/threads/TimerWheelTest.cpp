#include "kvx/threads/TimerWheel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

namespace
{
using kvx::TimerEntry;

/// The same by a list that is searched.
class Model
{
public:
    void Insert(TimerEntry & entry) { m_entries.insert(At(entry.nDue), &entry); }
    void Remove(TimerEntry & entry) { std::erase(m_entries, &entry); }
    TimerEntry * GetFirst() const { return m_entries.front(); }
    TimerEntry & GetAny(std::size_t number) const { return *m_entries[number % m_entries.size()]; }
    bool IsEmpty() const { return m_entries.empty(); }

private:
    std::vector<TimerEntry *> m_entries;

    std::vector<TimerEntry *>::iterator At(ULONGLONG due)
    {
        return std::ranges::lower_bound(m_entries, due, {}, [](TimerEntry const * entry) { return entry->nDue; });
    }
};
} // namespace

TEST(TimerWheel, KeepsTheOrderOfAListAtAnyDistanceAndWhenTheClockIsSetBack)
{
    std::mt19937_64 random(7);
    kvx::TimerWheel wheel;
    Model model;
    std::deque<TimerEntry> entries;
    ULONGLONG now = 13'000'000'000'000;
    int taken = 0;
    int setBack = 0;
    for (int step = 0; step < 40000; ++step)
    {
        switch (random() % 8)
        {
        case 0:
        case 1:
        case 2:
        {
            // Some alike, some up to the farthest delay.
            ULONGLONG const delay = random() % (ULONGLONG{1} << random() % 33);
            TimerEntry & entry = entries.emplace_back();
            entry.nDue = now + delay;
            wheel.Insert(entry, now);
            model.Insert(entry);
            break;
        }
        case 3:
            if (!model.IsEmpty())
            {
                TimerEntry & entry = model.GetAny(random());
                wheel.Remove(entry);
                model.Remove(entry);
            }
            break;
        case 4:
            if (random() % 50 == 0)
            {
                now -= random() % 100000;
                ++setBack;
            }
            break;
        default:
            now += random() % (ULONGLONG{1} << random() % 24);
            while (!model.IsEmpty() && model.GetFirst()->nDue <= now)
            {
                ULONGLONG next = 0;
                TimerEntry * const first = wheel.GetFirst(now, next);
                ASSERT_EQ(first, model.GetFirst()) << step;
                wheel.Remove(*first);
                model.Remove(*first);
                ++taken;
            }
            if (!model.IsEmpty())
            {
                // What isn't due isn't missed: the next look comes early enough, and later than now.
                ULONGLONG next = 0;
                TimerEntry * const first = wheel.GetFirst(now, next);
                if (first)
                {
                    ASSERT_EQ(first, model.GetFirst()) << step;
                }
                else
                {
                    ASSERT_GT(next, now) << step;
                    ASSERT_LE(next, model.GetFirst()->nDue) << step;
                }
            }
        }
        ASSERT_EQ(wheel.IsEmpty(), model.IsEmpty());
    }
    EXPECT_GT(taken, 1000);
    EXPECT_GT(setBack, 10);
}
