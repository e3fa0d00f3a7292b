#pragma once

/// The names of keys and values, and their forms in the store.

#include "kvx/platform/Fnv.h"

#include "kvx/platform/win32/registry/registry_store.h"
#include "kvx/platform/win32/types.h"
#include "kvx/platform/win32/upcase.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kvx::win32::registry
{

using Name = std::u16string_view;

/// A unit as it counts in comparisons, in which case means nothing.
inline char16_t Fold(char16_t c) noexcept
{
    return c < 0x80 ? (c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - 0x20) : c) : UpCase(c);
}

/// The form of a name by which it is found and ordered in the store.
class FoldedName
{
public:
    explicit FoldedName(Name name) : m_nSize(2 * name.size())
    {
        if (m_nSize > sizeof m_short)
        {
            m_strLong.resize(m_nSize);
        }
        char * pByte = m_nSize > sizeof m_short ? m_strLong.data() : m_short;
        for (char16_t const c : name)
        {
            char16_t const cFolded = Fold(c);
            *pByte++ = static_cast<char>(cFolded >> 8);
            *pByte++ = static_cast<char>(cFolded & 0xFF);
        }
    }

    operator std::string_view() const noexcept
    {
        return {m_nSize > sizeof m_short ? m_strLong.data() : m_short, m_nSize};
    }

private:
    std::size_t m_nSize;
    char m_short[2 * MAX_KEY_NAME];
    std::string m_strLong;
};

inline std::string_view AsBytes(Name name) noexcept
{
    return {reinterpret_cast<char const *>(name.data()), 2 * name.size()};
}

/// Nothing for bytes that are no name.
std::optional<std::u16string> ToName(std::string_view bytes, std::size_t nLongest);

struct NameHash
{
    using is_transparent = void;
    std::size_t operator()(Name name) const noexcept
    {
        Fnv hash;
        for (char16_t const c : name)
        {
            hash.Add(Fold(c));
        }
        return hash.Get() ^ hash.Get() >> 32;
    }
};

struct NameEqual
{
    using is_transparent = void;
    bool operator()(Name a, Name b) const noexcept { return IsSameName(a, b); }
};

inline Name ToView(LPCWSTR pszText) noexcept
{
    return pszText ? Name(pszText) : Name();
}

/// The names in a path.
LONG SplitPath(Name path, std::vector<Name> & names);

/// With a zero, and the length without it; false without room for both.
bool CopyName(Name name, LPWSTR pszName, DWORD & nName) noexcept;

} // namespace kvx::win32::registry
