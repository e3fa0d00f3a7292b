#pragma once

/// Objects with a name: events and mutexes that all processes of the user share.

#include "kvx/platform/win32/lock_guard.h"
#include "kvx/platform/win32/unique_fd.h"
#include "kvx/platform/win32/waits.h"

#include <bitset>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>

namespace kvx::win32
{

struct SharedState;

/// This process's view of a named object: one however many handles there are. All members may be called by any thread,
/// under an UninterruptedScope.
class NamedObject final : public KernelObject
{
public:
    /// The file behind the name; two views of one object compare equal.
    struct Identity
    {
        std::uint64_t nDevice;
        std::uint64_t nInode;
        auto operator<=>(Identity const &) const = default;
    };

    static constexpr std::size_t MAX_SLOTS = 256;
    using SlotSet = std::bitset<MAX_SLOTS>;

    static bool Matches(Kind kind) noexcept { return IsNamedKind(kind); }

    NamedObject(WaitType type, std::u16string strKey, std::string strFile, UniqueFd file, SharedState * pState,
                Identity identity) noexcept;
    ~NamedObject() override;

    void OnHandleClosed() noexcept override;

    WaitType GetType() const noexcept { return m_type; }
    Identity const & GetIdentity() const noexcept { return m_identity; }
    std::u16string const & GetKey() const noexcept { return m_strKey; }
    bool IsOpen() const noexcept { return m_bOpen; }

    void Set() noexcept;
    void Reset() noexcept;

    /// Gives up one level of the thread's ownership. False if it isn't the owner.
    bool ReleaseOwnership(ThreadData & thread, bool bAbandoned = false) noexcept;

    /// The lock of the shared state, over all processes. A process that dies in it leaves it usable.
    void Lock() noexcept;
    void Unlock() noexcept;

    // Under the lock:

    bool IsAvailable(ThreadData const & thread) const noexcept;
    /// Frees a mutex whose owner has died.
    void FreeFromDead() noexcept;
    /// A slot to wait with, which tells all processes whether this thread still lives. -1 if there is none left.
    int TakeSlot(std::uint32_t nWord) noexcept;
    void FreeSlot(int nSlot) noexcept;
    FutexWord & GetWord(int nSlot) noexcept;
    /// Takes an available object for the thread, which has room for one ownership more. Uses or frees the slot; without
    /// one (-1) a mutex needs a new slot: -1 if there is none. 1 for an abandoned mutex, else 0.
    int Take(ThreadData & thread, int nSlot) noexcept;
    /// Ends a wait with a slot. Whether it was satisfied, and then 1 for an abandoned mutex, else 0.
    std::optional<int> EndWait(ThreadData & thread, int nSlot) noexcept;
    /// Gives the object, if it is free, to those who wait longest; wake the slots after unlocking.
    SlotSet HandOver() noexcept;

    void Wake(SlotSet const & slots) noexcept;

private:
    bool IsDead(int nSlot) noexcept;
    int FindOldest() noexcept;
    void AddOwnership(ThreadData & thread, int nSlot) noexcept;

    WaitType const m_type;
    bool m_bOpen = true; // under the registry's lock: in the registry, and holding the name
    UniqueFd m_file;
    SharedState * const m_pState;
    Identity const m_identity;
    std::u16string const m_strKey;
    std::string const m_strFile;
    int const m_nProcess;
};

using NamedGuard = LockGuard<NamedObject>;

/// Room for so many more ownerships of the thread; false with last error ERROR_NOT_ENOUGH_MEMORY.
bool ReserveOwnership(ThreadData & thread, std::size_t nMore) noexcept;

/// Abandons all named mutexes of the calling thread, which ends.
void AbandonNamed(ThreadData & thread) noexcept;

} // namespace kvx::win32
