#pragma once

/// What the processes that use a named object share of it: a mapped file.

#include "kvx/platform/win32/futex.h"
#include "kvx/platform/win32/named/named_object.h"
#include "kvx/platform/win32/waits.h"

#include <cstdint>

#include <pthread.h>

namespace kvx::win32
{

enum SlotWord : std::uint32_t
{
    SLOT_FREE,
    SLOT_WAITING,
    SLOT_GRANTED,
    SLOT_GRANTED_ABANDONED,
    SLOT_WATCHING, ///< in a wait for all: takes nothing unless all can be taken
    SLOT_POKED,    ///< a watcher has to look again
    SLOT_OWNER,
};

/// A thread's part in a shared object. While the thread uses the slot it holds the robust mutex, so that any process
/// can tell whether the thread is still alive.
struct alignas(64) SharedSlot
{
    pthread_mutex_t alive;
    std::uint64_t nTicket;
    FutexWord word;
};

constexpr std::uint64_t STATE_MAGIC = 0x314A424F58564BULL << 8 | sizeof(pthread_mutex_t);

/// What lies in the mapping. All under the lock, but for the words, on which threads sleep.
struct SharedState
{
    std::uint64_t nMagic;
    WaitType type;
    bool bSignalled;
    bool bAbandoned;
    std::int32_t nOwner; ///< slot of the mutex's owner, -1 for none
    std::int32_t nSlots; ///< slots that were ever used
    std::uint64_t nNextTicket;
    std::uint32_t nNameLength;
    char16_t name[MAX_PATH + 1];
    pthread_mutex_t lock;
    SharedSlot slots[NamedObject::MAX_SLOTS];
};

/// A mutex of the mapping, free, which the death of its owner leaves usable.
void InitMutex(pthread_mutex_t & mutex) noexcept;

} // namespace kvx::win32
