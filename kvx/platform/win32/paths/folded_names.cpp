#include "kvx/platform/win32/paths/folded_names.h"

#include "kvx/platform/win32/upcase.h"
#include "kvx/platform/win32/utf8.h"

#include <algorithm>
#include <bit>

namespace kvx::win32
{

namespace
{

/// Calls `visit(unit)` for each unit of the name in upper case.
template <class Visit>
void ForEachFolded(std::string_view name, Visit visit)
{
    for (std::size_t n = 0; n < name.size();)
    {
        auto const nByte = static_cast<unsigned char>(name[n]);
        if (nByte < 0x80)
        {
            visit(UpCase(nByte));
            ++n;
            continue;
        }
        DecodedChar const decoded = DecodeUtf8Char(name, n);
        if (!decoded.bValid)
        {
            for (std::size_t i = 0; i < decoded.nBytes; ++i)
            {
                visit(static_cast<char16_t>(0xDC00 + static_cast<unsigned char>(name[n + i])));
            }
        }
        else
        {
            char16_t units[2];
            std::size_t const nUnits = EncodeUtf16Char(decoded.nChar, units);
            for (std::size_t i = 0; i < nUnits; ++i)
            {
                visit(UpCase(units[i]));
            }
        }
        n += decoded.nBytes;
    }
}

std::u16string Fold(std::string_view name)
{
    std::u16string strFolded;
    ForEachFolded(name, [&](char16_t c) { strFolded += c; });
    return strFolded;
}

std::uint32_t HashOf(std::string_view name)
{
    std::uint64_t nHash = 0x9E3779B97F4A7C15;
    ForEachFolded(name, [&](char16_t c) { nHash = std::rotl(nHash ^ c, 23) * 0xBF58476D1CE4E5B9; });
    return static_cast<std::uint32_t>(nHash ^ nHash >> 32);
}

} // namespace

bool IsSameHostName(std::string_view a, std::string_view b)
{
    std::size_t const nCommon = std::min(a.size(), b.size());
    for (std::size_t n = 0; n < nCommon; ++n)
    {
        auto const cA = static_cast<unsigned char>(a[n]);
        auto const cB = static_cast<unsigned char>(b[n]);
        if ((cA | cB) >= 0x80)
        {
            return Fold(a.substr(n)) == Fold(b.substr(n));
        }
        if (UpCase(cA) != UpCase(cB))
        {
            return false;
        }
    }
    return a.size() == b.size();
}

std::string_view FoldedNames::NameOf(Slot const & slot) const
{
    auto const nLength = static_cast<unsigned char>(m_names[slot.nOffset]);
    return {m_names.data() + slot.nOffset + 1, nLength};
}

template <class Visit>
void FoldedNames::ForEachWithHash(std::uint32_t nHash, Visit visit) const
{
    if (m_slots.empty())
    {
        return;
    }
    std::size_t const nMask = m_slots.size() - 1;
    for (std::size_t n = nHash & nMask; m_slots[n].nOffset != FREE; n = (n + 1) & nMask)
    {
        if (m_slots[n].nHash == nHash && m_slots[n].nOffset != REMOVED && !visit(m_slots[n]))
        {
            return;
        }
    }
}

std::string_view FoldedNames::Find(std::string_view name) const
{
    std::string_view found;
    ForEachWithHash(HashOf(name),
                    [&](Slot const & slot)
                    {
                        std::string_view const other = NameOf(slot);
                        if (other == name)
                        {
                            found = other;
                            return false;
                        }
                        if ((found.empty() || other < found) && IsSameHostName(other, name))
                        {
                            found = other;
                        }
                        return true;
                    });
    return found;
}

FoldedNames::Slot * FoldedNames::FindSlot(std::string_view name)
{
    Slot const * pFound = nullptr;
    ForEachWithHash(HashOf(name),
                    [&](Slot const & slot)
                    {
                        if (NameOf(slot) == name)
                        {
                            pFound = &slot;
                        }
                        return !pFound;
                    });
    return const_cast<Slot *>(pFound);
}

void FoldedNames::Insert(std::string_view name)
{
    constexpr std::size_t LONGEST = 255;
    if (name.empty() || name.size() > LONGEST || FindSlot(name))
    {
        return;
    }
    if ((m_nUsed + 1) * 4 > m_slots.size() * 3)
    {
        Rebuild();
    }
    std::uint32_t const nHash = HashOf(name);
    std::size_t const nMask = m_slots.size() - 1;
    std::size_t n = nHash & nMask;
    while (m_slots[n].nOffset != FREE)
    {
        n = (n + 1) & nMask;
    }
    m_slots[n].nHash = nHash;
    m_slots[n].nOffset = static_cast<std::uint32_t>(m_names.size()) & 0x7FFFFFFF;
    m_names += static_cast<char>(name.size());
    m_names += name;
    ++m_nNames;
    ++m_nUsed;
}

void FoldedNames::Remove(Slot & slot)
{
    slot.nOffset = REMOVED;
    slot.bMovedOver = 0;
    --m_nNames;
}

void FoldedNames::Erase(std::string_view name)
{
    if (Slot * const pSlot = FindSlot(name))
    {
        Remove(*pSlot);
    }
}

void FoldedNames::InsertMoved(std::string_view name)
{
    if (Slot * const pSlot = FindSlot(name))
    {
        pSlot->bMovedOver = 1;
    }
    else
    {
        Insert(name);
    }
}

bool FoldedNames::EraseMoved(std::string_view name)
{
    Slot * const pSlot = FindSlot(name);
    if (!pSlot)
    {
        return true;
    }
    if (pSlot->bMovedOver)
    {
        return false;
    }
    Remove(*pSlot);
    return true;
}

/// Makes room for more names, and drops the text of those that are gone.
void FoldedNames::Rebuild()
{
    constexpr std::size_t SMALLEST = 16;
    std::vector<Slot> slots(std::bit_ceil(std::max(SMALLEST, m_nNames * 2 + 2)));
    std::string strNames(m_names, 0, 2);
    strNames.reserve(m_names.size());
    std::size_t const nMask = slots.size() - 1;
    for (Slot const & slot : m_slots)
    {
        if (slot.nOffset == FREE || slot.nOffset == REMOVED)
        {
            continue;
        }
        std::size_t n = slot.nHash & nMask;
        while (slots[n].nOffset != FREE)
        {
            n = (n + 1) & nMask;
        }
        slots[n] = slot;
        slots[n].nOffset = static_cast<std::uint32_t>(strNames.size()) & 0x7FFFFFFF;
        strNames.append(m_names, slot.nOffset, NameOf(slot).size() + 1);
    }
    m_slots.swap(slots);
    m_names.swap(strNames);
    m_nUsed = m_nNames;
}

} // namespace kvx::win32
