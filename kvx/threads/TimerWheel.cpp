#include "kvx/threads/TimerWheel.h"

#include <bit>
#include <limits>
#include <utility>

namespace kvx
{
namespace
{
/// Entries that are due together lie far apart: the third behind this one is on its way to the cache while the three
/// are used.
void PrefetchBehind(TimerEntry const & entry)
{
    TimerEntry const * const second = entry.pNext;
    TimerEntry const * const third = second ? second->pNext : nullptr;
    if (third)
    {
        __builtin_prefetch(third->pNext, 1);
    }
}
} // namespace

TimerWheel::Place TimerWheel::PlaceOf(ULONGLONG due) const
{
    unsigned const level = (std::bit_width((due ^ m_nTurned) | 1) - 1) / DIGIT;
    return {level, static_cast<unsigned>(due >> level * DIGIT) % SLOTS};
}

void TimerWheel::Push(TimerEntry & entry)
{
    auto const [nLevel, nSlot] = PlaceOf(entry.nDue);
    Level & level = m_levels[nLevel];
    Slot & slot = level.slots[nSlot];
    entry.pPrevious = nullptr;
    entry.pNext = slot.pFirst;
    (slot.pFirst ? slot.pFirst->pPrevious : slot.pLast) = &entry;
    slot.pFirst = &entry;
    level.nUsed |= ULONGLONG{1} << nSlot;
}

void TimerWheel::Insert(TimerEntry & entry, ULONGLONG now)
{
    if (m_nCount == 0)
    {
        m_nTurned = now;
    }
    else if (entry.nDue < m_nTurned)
    {
        TurnBack(now);
    }
    Push(entry);
    ++m_nCount;
}

void TimerWheel::Remove(TimerEntry & entry)
{
    auto const [nLevel, nSlot] = PlaceOf(entry.nDue);
    Level & level = m_levels[nLevel];
    Slot & slot = level.slots[nSlot];
    (entry.pPrevious ? entry.pPrevious->pNext : slot.pFirst) = entry.pNext;
    (entry.pNext ? entry.pNext->pPrevious : slot.pLast) = entry.pPrevious;
    if (!slot.pFirst)
    {
        level.nUsed &= ~(ULONGLONG{1} << nSlot);
    }
    --m_nCount;
}

TimerEntry * TimerWheel::GetFirst(ULONGLONG now, ULONGLONG & next)
{
    for (;;)
    {
        unsigned nLevel = 0;
        while (m_levels[nLevel].nUsed == 0)
        {
            ++nLevel;
        }
        Level & level = m_levels[nLevel];
        auto const nSlot = static_cast<unsigned>(std::countr_zero(level.nUsed));
        if (nLevel == 0)
        {
            PrefetchBehind(*level.slots[nSlot].pFirst);
            return level.slots[nSlot].pFirst;
        }
        // The digits above stay, those below are 0.
        ULONGLONG const digits = (m_nTurned >> nLevel * DIGIT) / SLOTS * SLOTS + nSlot;
        ULONGLONG const begin = digits << nLevel * DIGIT;
        if (begin > now)
        {
            next = begin;
            return nullptr;
        }
        Slot const slot = std::exchange(level.slots[nSlot], {});
        level.nUsed &= ~(ULONGLONG{1} << nSlot);
        m_nTurned = begin;
        for (TimerEntry *entry = slot.pLast, *previous = nullptr; entry; entry = previous)
        {
            previous = entry->pPrevious;
            Push(*entry);
        }
    }
}

/// The clock was set back: all entries find their places anew.
void TimerWheel::TurnBack(ULONGLONG time)
{
    TimerEntry * all = nullptr; // the last one first
    std::size_t const count = m_nCount;
    while (m_nCount > 0)
    {
        ULONGLONG next = 0;
        TimerEntry * const first = GetFirst(std::numeric_limits<ULONGLONG>::max(), next);
        Remove(*first);
        first->pNext = std::exchange(all, first);
    }
    m_nTurned = time;
    m_nCount = count;
    while (all)
    {
        Push(*std::exchange(all, all->pNext));
    }
}
} // namespace kvx
