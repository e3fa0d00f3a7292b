#include "kvx/platform/win32/registry/registry_key.h"

#include <optional>

namespace kvx::win32::registry
{

namespace
{

constexpr std::size_t MAX_CACHED = 1 << 20; // bytes of all values of a handle
constexpr std::size_t CACHED_ENTRY = 96;    // what an entry takes beside its texts
constexpr std::size_t REFUSALS = 16;        // for each entry, before a full cache starts anew

} // namespace

LONG CheckKey(StoreConnection & connection, KeyId id)
{
    StoreQuery query(connection, Sql::HasKey);
    bool const bHas = query.Bind(id).Next();
    return query.GetError() == 0 && !bHas ? ERROR_KEY_DELETED : query.GetError();
}

void RegistryKey::Keep(KeyVersion version, Name name, Value const & value)
{
    std::size_t const nBytes = CACHED_ENTRY + 2 * name.size() + value.strData.size();
    std::scoped_lock const lock(m_mutex);
    bool const bFull = m_nCachedBytes + nBytes > MAX_CACHED;
    // Of a walk through more than there is room for, a part may as well stay.
    if (m_cachedVersion == version && bFull && ++m_nRefused < REFUSALS * m_cached.size())
    {
        return;
    }
    if (m_cachedVersion != version || bFull)
    {
        m_cached.clear();
        m_nCachedBytes = 0;
        m_nRefused = 0;
        m_cachedVersion = version;
    }
    if (m_cached.try_emplace(std::u16string(name), value).second)
    {
        m_nCachedBytes += nBytes;
    }
}

LONG RegistryKey::ReadWindow(StoreConnection & connection, std::size_t nFirst, std::size_t nItems,
                             Window<std::u16string> & window) const
{
    StoreQuery query(connection, Sql::ListKeys);
    query.Bind(m_id).Bind(static_cast<std::int64_t>(nItems)).Bind(static_cast<std::int64_t>(nFirst));
    while (query.Next())
    {
        std::optional<std::u16string> name = ToName(query.GetBytes(0), MAX_KEY_NAME);
        if (!name)
        {
            return ERROR_BADDB;
        }
        window.items.push_back(std::move(*name));
    }
    window.nFirst = nFirst;
    window.bLast = window.items.size() < nItems;
    if (query.GetError() != 0)
    {
        return query.GetError();
    }
    return window.items.empty() ? CheckKey(connection, m_id) : 0;
}

LONG RegistryKey::ReadWindow(StoreConnection & connection, std::size_t nFirst, std::size_t nItems,
                             Window<ListedValue> & window) const
{
    StoreQuery query(connection, Sql::ListValues);
    query.Bind(m_id).Bind(static_cast<std::int64_t>(nItems)).Bind(static_cast<std::int64_t>(nFirst));
    query.Bind(static_cast<std::int64_t>(MAX_CACHED_DATA));
    while (query.Next())
    {
        std::optional<std::u16string> name = ToName(query.GetBytes(1), MAX_VALUE_NAME);
        if (!name)
        {
            return ERROR_BADDB;
        }
        ListedValue & item = window.items.emplace_back();
        item.nRow = query.GetNumber(0);
        item.strName = std::move(*name);
        item.value.bExists = true;
        item.value.dwType = static_cast<DWORD>(query.GetNumber(2));
        item.value.nSize = static_cast<DWORD>(query.GetNumber(3));
        item.value.strData = query.GetBytes(4);
        if (!item.value.HasData() && !item.value.strData.empty())
        {
            return ERROR_BADDB;
        }
    }
    window.nFirst = nFirst;
    window.bLast = window.items.size() < nItems;
    if (query.GetError() != 0)
    {
        return query.GetError();
    }
    return window.items.empty() ? CheckKey(connection, m_id) : 0;
}

LONG RegistryKey::GetCounts(RegistryStore & store, Counts & counts)
{
    KeyVersion const version = store.GetVersion(m_id);
    if (version.IsReliable())
    {
        std::scoped_lock const lock(m_mutex);
        if (m_countsVersion == version)
        {
            counts = m_counts;
            return 0;
        }
    }
    LONG const nError = store.Read(
        [&](StoreConnection & connection) -> LONG
        {
            if (LONG const nMissing = CheckKey(connection, m_id); nMissing != 0)
            {
                return nMissing;
            }
            StoreQuery keys(connection, Sql::CountKeys);
            StoreQuery values(connection, Sql::CountValues);
            if (!keys.Bind(m_id).Next() || !values.Bind(m_id).Next())
            {
                return keys.GetError() != 0 ? keys.GetError() : values.GetError();
            }
            counts = {static_cast<DWORD>(keys.GetNumber(0)), static_cast<DWORD>(keys.GetNumber(1) / 2),
                      static_cast<DWORD>(values.GetNumber(0)), static_cast<DWORD>(values.GetNumber(1) / 2),
                      static_cast<DWORD>(values.GetNumber(2))};
            return 0;
        });
    if (nError == 0 && version.IsReliable())
    {
        std::scoped_lock const lock(m_mutex);
        m_countsVersion = version;
        m_counts = counts;
    }
    return nError;
}

} // namespace kvx::win32::registry
