#pragma once

/// The names in a folder, found without regard to case.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kvx::win32
{

/// Whether two names of the host differ in case at most. Bytes that are no UTF-8 have none.
bool IsSameHostName(std::string_view a, std::string_view b);

/// A set of names of at most 255 bytes; about 20 bytes for each and its own length. One thread at a time.
class FoldedNames
{
public:
    std::size_t GetCount() const noexcept { return m_nNames; }

    /// The name itself if it is there; else, of those that differ in case, the first by its bytes; empty for none. Good
    /// until the next change.
    std::string_view Find(std::string_view name) const;

    void Insert(std::string_view name);
    void Erase(std::string_view name);

    /// Something was moved to that name, perhaps over what was there.
    void InsertMoved(std::string_view name);
    /// What has that name was moved away. False, with nothing done, if it isn't clear that the name is gone: two files
    /// that exchange their names look as if one were moved over the other, and then away.
    bool EraseMoved(std::string_view name);

private:
    /// One place of the table. `nOffset` is where the name lies, behind a byte with its length.
    struct Slot
    {
        std::uint32_t nHash = 0;
        std::uint32_t nOffset : 31 = FREE;
        std::uint32_t bMovedOver : 1 = 0;
    };
    static constexpr std::uint32_t FREE = 0;
    static constexpr std::uint32_t REMOVED = 1;

    std::string_view NameOf(Slot const & slot) const;
    Slot * FindSlot(std::string_view name);
    void Remove(Slot & slot);
    void Rebuild();

    /// Calls `visit(slot)` for the names with that hash until it returns false.
    template <class Visit>
    void ForEachWithHash(std::uint32_t nHash, Visit visit) const;

    std::vector<Slot> m_slots; // as many as a power of 2
    std::string m_names{"\0\0", 2};
    std::size_t m_nNames = 0;
    std::size_t m_nUsed = 0; // slots that aren't free
};

} // namespace kvx::win32
