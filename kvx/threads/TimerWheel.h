#pragma once

/// Times in order, with insertion and removal at a cost that doesn't grow with their number.

#include "kvx/platform/host.h"

#include <array>

namespace kvx
{
/// What the wheel keeps of an entry, which derives from it. Entries are the owner's.
struct TimerEntry
{
    ULONGLONG nDue = 0;
    TimerEntry * pNext = nullptr;
    TimerEntry * pPrevious = nullptr;
};

/// Entries by due time; of those with the same time the one that was inserted last comes first.
///
/// A time is a row of digits of 6 bits. An entry stands on the level of the highest digit in which it differs from the
/// time up to which the wheel has turned, in the slot of that digit: so the lowest level has what comes first, and a
/// slot of a higher level is spread over the lower ones when its time has come.
class TimerWheel
{
public:
    bool IsEmpty() const { return m_nCount == 0; }

    /// An entry that isn't in the wheel. `now` is at most its due time.
    void Insert(TimerEntry & entry, ULONGLONG now);
    /// An entry that is.
    void Remove(TimerEntry & entry);

    /// The first entry, as far as it can be told at the time `now`; else null, and then it is due at `next` or later,
    /// which is later than now. For a wheel that isn't empty.
    TimerEntry * GetFirst(ULONGLONG now, ULONGLONG & next);

private:
    static constexpr unsigned DIGIT = 6;
    static constexpr unsigned SLOTS = 1u << DIGIT;
    static constexpr unsigned LEVELS = (64 + DIGIT - 1) / DIGIT;

    struct Slot
    {
        TimerEntry * pFirst = nullptr;
        TimerEntry * pLast = nullptr;
    };
    struct Level
    {
        ULONGLONG nUsed = 0; // a bit for each slot
        std::array<Slot, SLOTS> slots{};
    };

    ULONGLONG m_nTurned = 0; // no entry is due earlier
    std::size_t m_nCount = 0;
    std::array<Level, LEVELS> m_levels{};

    struct Place
    {
        unsigned nLevel;
        unsigned nSlot;
    };
    Place PlaceOf(ULONGLONG due) const;
    void Push(TimerEntry & entry);
    void TurnBack(ULONGLONG time);
};
} // namespace kvx
