#pragma once

/// What stands behind the handle of a key, and what it keeps in memory.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/registry.h"
#include "kvx/platform/win32/registry/names.h"
#include "kvx/platform/win32/registry/registry_store.h"

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kvx::win32::registry
{

inline constexpr std::size_t MAX_CACHED_DATA = 1024; // bytes of one value
inline constexpr std::size_t FIRST_WINDOW = 16;
inline constexpr std::size_t LAST_WINDOW = 512;
inline constexpr REGSAM GENERIC_BITS = 0xF2000000; // GENERIC_..., and the most that one may have

/// A value where it lies: in memory that is kept, or in the store's own while that is being read. Without data if it
/// has more than the reader wanted.
struct ValueView
{
    DWORD dwType = 0;
    DWORD nSize = 0;
    std::string_view data;

    bool HasData() const noexcept { return data.size() == nSize; }
};

/// A copy of a value that was read.
struct Value
{
    bool bExists = false;
    DWORD dwType = 0;
    DWORD nSize = 0;
    std::string strData;

    bool HasData() const noexcept { return strData.size() == nSize; }
    operator ValueView() const noexcept { return {dwType, nSize, strData}; }
};

struct ListedValue
{
    std::int64_t nRow = 0;
    std::u16string strName;
    Value value;
};

/// Some neighbours of an enumeration.
template <class ITEM>
struct Window
{
    KeyVersion version;
    std::size_t nFirst = 0;
    std::vector<ITEM> items;
    bool bLast = false; ///< nothing comes behind it
};

struct Counts
{
    DWORD nSubKeys = 0;
    DWORD nLongestSubKey = 0;
    DWORD nValues = 0;
    DWORD nLongestName = 0;
    DWORD nLongestData = 0;
};

/// What stands behind a handle. What it has read it keeps while the key's version stays the same.
class RegistryKey final : public KernelObject
{
public:
    static constexpr Kind KIND = Kind::RegistryKey;

    RegistryKey(KeyId id, std::size_t nDepth, REGSAM access) noexcept
        : KernelObject(KIND), m_id(id), m_nDepth(nDepth), m_access(access)
    {
    }

    KeyId GetId() const noexcept { return m_id; }
    std::size_t GetDepth() const noexcept { return m_nDepth; }
    bool Allows(REGSAM access) const noexcept { return (m_access & (access | GENERIC_BITS)) != 0; }

    /// Hands the value to `use`, with its data if there are at most `nRoom` bytes. `use` may run while the store is
    /// being read: nobody else reads it until it is done.
    template <class F>
    LONG UseValue(RegistryStore & store, Name name, std::size_t nRoom, F const & use);
    /// Hands the item at the index to `use`, or gives ERROR_NO_MORE_ITEMS.
    template <class ITEM, class F>
    LONG UseItem(RegistryStore & store, Window<ITEM> RegistryKey::*pWindow, std::size_t nIndex, F const & use);
    LONG GetCounts(RegistryStore & store, Counts & counts);

    Window<std::u16string> m_subKeys;
    Window<ListedValue> m_values;

private:
    /// A value that may be kept becomes `copy`; a large one goes straight to `use`, whose result this is then.
    template <class F>
    LONG ReadValue(RegistryStore & store, Name name, std::size_t nRoom, std::optional<Value> & copy,
                   F const & use) const;
    LONG ReadWindow(StoreConnection & connection, std::size_t nFirst, std::size_t nItems,
                    Window<std::u16string> & window) const;
    LONG ReadWindow(StoreConnection & connection, std::size_t nFirst, std::size_t nItems,
                    Window<ListedValue> & window) const;
    void Keep(KeyVersion version, Name name, Value const & value);

    KeyId const m_id;
    std::size_t const m_nDepth;
    REGSAM const m_access;
    std::mutex m_mutex; // for all below and the windows; never held while the store is asked
    KeyVersion m_cachedVersion;
    std::unordered_map<std::u16string, Value, NameHash, NameEqual> m_cached;
    std::size_t m_nCachedBytes = 0;
    std::size_t m_nRefused = 0;
    KeyVersion m_countsVersion;
    Counts m_counts;
};

/// 0 for a key that is there, ERROR_KEY_DELETED for one that isn't.
LONG CheckKey(StoreConnection & connection, KeyId id);

template <class F>
LONG RegistryKey::UseValue(RegistryStore & store, Name name, std::size_t nRoom, F const & use)
{
    KeyVersion const version = store.GetVersion(m_id);
    if (version.IsReliable())
    {
        std::scoped_lock const lock(m_mutex);
        if (m_cachedVersion == version)
        {
            if (auto const found = m_cached.find(name); found != m_cached.end())
            {
                return found->second.bExists ? use(found->second) : ERROR_FILE_NOT_FOUND;
            }
        }
    }
    std::optional<Value> copy;
    LONG const nResult = ReadValue(store, name, std::max(nRoom, MAX_CACHED_DATA), copy, use);
    if (!copy)
    {
        return nResult;
    }
    if (version.IsReliable() && name.size() <= MAX_CACHED_DATA)
    {
        Keep(version, name, *copy);
    }
    return copy->bExists ? use(*copy) : ERROR_FILE_NOT_FOUND;
}

template <class F>
LONG RegistryKey::ReadValue(RegistryStore & store, Name name, std::size_t nRoom, std::optional<Value> & copy,
                            F const & use) const
{
    FoldedName const folded(name);
    return store.Read(
        [&](StoreConnection & connection) -> LONG
        {
            StoreQuery query(connection, Sql::FindValue);
            if (!query.Bind(m_id).Bind(folded).Bind(static_cast<std::int64_t>(nRoom)).Next())
            {
                LONG const nError = query.GetError() != 0 ? query.GetError() : CheckKey(connection, m_id);
                if (nError == 0)
                {
                    copy.emplace();
                }
                return nError;
            }
            ValueView const value{static_cast<DWORD>(query.GetNumber(0)), static_cast<DWORD>(query.GetNumber(1)),
                                  query.GetBytes(2)};
            if (value.nSize <= nRoom ? !value.HasData() : !value.data.empty())
            {
                return ERROR_BADDB;
            }
            if (value.nSize > MAX_CACHED_DATA)
            {
                return use(value);
            }
            copy.emplace(Value{true, value.dwType, value.nSize, std::string(value.data)});
            return 0;
        });
}

template <class ITEM, class F>
LONG RegistryKey::UseItem(RegistryStore & store, Window<ITEM> RegistryKey::*pWindow, std::size_t nIndex, F const & use)
{
    KeyVersion const version = store.GetVersion(m_id);
    std::size_t nItems = FIRST_WINDOW;
    if (version.IsReliable())
    {
        std::scoped_lock const lock(m_mutex);
        Window<ITEM> const & window = this->*pWindow;
        if (window.version == version && nIndex >= window.nFirst)
        {
            std::size_t const nAt = nIndex - window.nFirst;
            if (nAt < window.items.size())
            {
                return use(window.items[nAt]);
            }
            if (window.bLast)
            {
                return ERROR_NO_MORE_ITEMS;
            }
            if (nAt == window.items.size()) // a walk: it reads more and more at once
            {
                nItems = std::min(LAST_WINDOW, 2 * window.items.size());
            }
        }
    }
    Window<ITEM> window;
    LONG nError = store.Read([&](StoreConnection & connection)
                             { return ReadWindow(connection, nIndex, version.IsReliable() ? nItems : 1, window); });
    if (nError != 0)
    {
        return nError;
    }
    nError = window.items.empty() ? ERROR_NO_MORE_ITEMS : use(window.items.front());
    if (version.IsReliable())
    {
        window.version = version;
        std::scoped_lock const lock(m_mutex);
        std::swap(this->*pWindow, window);
    }
    return nError;
}

} // namespace kvx::win32::registry
