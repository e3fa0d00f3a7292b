#include "kvx/platform/win32/registry.h"

#include "kvx/platform/RegistryValues.h"

#include "kvx/platform/win32/environment.h"
#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/registry_store.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/upcase.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

using namespace kvx::win32;

namespace
{

using Name = std::u16string_view;

constexpr std::size_t MAX_CACHED_DATA = 1024; // bytes of one value
constexpr std::size_t MAX_CACHED = 1 << 20;   // bytes of all values of a handle
constexpr std::size_t CACHED_ENTRY = 96;      // what an entry takes beside its texts
constexpr std::size_t REFUSALS = 16;          // for each entry, before a full cache starts anew
constexpr std::size_t FIRST_WINDOW = 16;
constexpr std::size_t LAST_WINDOW = 512;
constexpr REGSAM BOTH_VIEWS = KEY_WOW64_64KEY | KEY_WOW64_32KEY;
constexpr REGSAM GENERIC_BITS = 0xF2000000; // GENERIC_..., and the most that one may have

char16_t Fold(char16_t c) noexcept
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

std::string_view AsBytes(Name name) noexcept
{
    return {reinterpret_cast<char const *>(name.data()), 2 * name.size()};
}

/// Nothing for bytes that are no name.
std::optional<std::u16string> ToName(std::string_view bytes, std::size_t nLongest)
{
    if (bytes.size() % 2 != 0 || bytes.size() / 2 > nLongest)
    {
        return {};
    }
    std::u16string strName(bytes.size() / 2, u'\0');
    if (!bytes.empty())
    {
        std::memcpy(strName.data(), bytes.data(), bytes.size());
    }
    return strName;
}

struct NameHash
{
    using is_transparent = void;
    std::size_t operator()(Name name) const noexcept
    {
        std::uint64_t nHash = 0xCBF29CE484222325;
        for (char16_t const c : name)
        {
            nHash = (nHash ^ Fold(c)) * 0x100000001B3;
        }
        return nHash ^ nHash >> 32;
    }
};

struct NameEqual
{
    using is_transparent = void;
    bool operator()(Name a, Name b) const noexcept { return IsSameName(a, b); }
};

/// A value as it was read; without data if it has more than the reader wanted.
struct Value
{
    bool bExists = false;
    DWORD dwType = 0;
    DWORD nSize = 0;
    std::string strData;

    bool HasData() const noexcept { return strData.size() == nSize; }
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

    /// Hands the value to `use`, with its data if there are at most `nRoom` bytes.
    template <class F>
    LONG UseValue(RegistryStore & store, Name name, std::size_t nRoom, F const & use);
    /// Hands the item at the index to `use`, or gives ERROR_NO_MORE_ITEMS.
    template <class ITEM, class F>
    LONG UseItem(RegistryStore & store, Window<ITEM> RegistryKey::*pWindow, std::size_t nIndex, F const & use);
    LONG GetCounts(RegistryStore & store, Counts & counts);

    Window<std::u16string> m_subKeys;
    Window<ListedValue> m_values;

private:
    LONG ReadValue(RegistryStore & store, Name name, std::size_t nRoom, Value & value) const;
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

LONG HasKey(StoreConnection & connection, KeyId id, bool & bHas)
{
    StoreQuery query(connection, Sql::HasKey);
    bHas = query.Bind(id).Next();
    return query.GetError();
}

/// 0 for a key that is there, ERROR_KEY_DELETED for one that isn't.
LONG CheckKey(StoreConnection & connection, KeyId id)
{
    bool bHas = false;
    LONG const nError = HasKey(connection, id, bHas);
    return nError == 0 && !bHas ? ERROR_KEY_DELETED : nError;
}

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
    Value value;
    if (LONG const nError = ReadValue(store, name, std::max(nRoom, MAX_CACHED_DATA), value); nError != 0)
    {
        return nError;
    }
    if (version.IsReliable() && value.HasData() && value.nSize <= MAX_CACHED_DATA && name.size() <= MAX_CACHED_DATA)
    {
        Keep(version, name, value);
    }
    return value.bExists ? use(value) : ERROR_FILE_NOT_FOUND;
}

LONG RegistryKey::ReadValue(RegistryStore & store, Name name, std::size_t nRoom, Value & value) const
{
    FoldedName const folded(name);
    return store.Read(
        [&](StoreConnection & connection) -> LONG
        {
            StoreQuery query(connection, Sql::FindValue);
            if (!query.Bind(m_id).Bind(folded).Bind(static_cast<std::int64_t>(nRoom)).Next())
            {
                return query.GetError() != 0 ? query.GetError() : CheckKey(connection, m_id);
            }
            value.bExists = true;
            value.dwType = static_cast<DWORD>(query.GetNumber(0));
            value.nSize = static_cast<DWORD>(query.GetNumber(1));
            value.strData = query.GetBytes(2);
            return value.HasData() || value.strData.empty() ? 0 : ERROR_BADDB;
        });
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

struct Place
{
    KeyId id = 0;
    std::size_t nDepth = 0;
};

/// The predefined keys keep what they have read as others do.
struct Roots
{
    static constexpr std::size_t NONE = 7;

    Ref<RegistryKey> keys[NONE];

    Roots()
    {
        constexpr Place PLACES[NONE] = {
            {KEY_CLASSES, 2}, {KEY_USER, 1}, {KEY_MACHINE, 0}, {KEY_USERS, 0}, {}, {KEY_CONFIG, 0}, {}};
        for (std::size_t i = 0; i < NONE; ++i)
        {
            if (PLACES[i].id != 0)
            {
                keys[i] = Ref<RegistryKey>(new RegistryKey(PLACES[i].id, PLACES[i].nDepth, KEY_ALL_ACCESS));
            }
        }
    }
};

LONG FindKey(HKEY hKey, Ref<RegistryKey> & key)
{
    constexpr std::uint32_t PREDEFINED = 0x80000000;
    auto const nValue = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(hKey));
    if ((nValue & PREDEFINED) == 0)
    {
        key = FindObject<RegistryKey>(hKey);
        return key ? 0 : ERROR_INVALID_HANDLE;
    }
    if (nValue - PREDEFINED >= Roots::NONE)
    {
        return ERROR_INVALID_HANDLE;
    }
    static Roots & s_roots = *new Roots; // threads may use them until the process has ended
    key = s_roots.keys[nValue - PREDEFINED];
    return key ? 0 : ERROR_NOT_SUPPORTED;
}

/// Runs the body of a call with the store and the key: a thread that is terminated ends behind it, and no exception
/// leaves it.
template <class F>
LONG WithKey(HKEY hKey, REGSAM needed, F const & body) noexcept
{
    UninterruptedScope const scope;
    try
    {
        Ref<RegistryKey> key;
        if (LONG const nError = FindKey(hKey, key); nError != 0)
        {
            return nError;
        }
        if (needed != 0 && !key->Allows(needed))
        {
            return ERROR_ACCESS_DENIED;
        }
        RegistryStore * pStore = nullptr;
        if (LONG const nError = RegistryStore::Get(pStore); nError != 0)
        {
            return nError;
        }
        return body(*pStore, *key);
    }
    catch (std::bad_alloc const &)
    {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    catch (...)
    {
        return ERROR_REGISTRY_IO_FAILED;
    }
}

Name ToView(LPCWSTR pszText) noexcept
{
    return pszText ? Name(pszText) : Name();
}

/// The names in a path.
LONG SplitPath(Name path, std::vector<Name> & names)
{
    if (path.starts_with(u'\\'))
    {
        return ERROR_BAD_PATHNAME;
    }
    while (!path.empty())
    {
        std::size_t const nEnd = std::min(path.find(u'\\'), path.size());
        if (nEnd > MAX_KEY_NAME)
        {
            return ERROR_INVALID_PARAMETER;
        }
        if (nEnd > 0)
        {
            names.push_back(path.substr(0, nEnd));
        }
        if (names.size() > MAX_KEY_DEPTH)
        {
            return ERROR_INVALID_PARAMETER;
        }
        path.remove_prefix(std::min(nEnd + 1, path.size()));
    }
    return 0;
}

/// Walks as far as there are keys: `place` is then the last one, and nFound the number of names that were found.
LONG Walk(StoreConnection & connection, std::vector<Name> const & names, Place & place, std::size_t & nFound)
{
    for (nFound = 0; nFound < names.size(); ++nFound)
    {
        FoldedName const folded(names[nFound]);
        StoreQuery query(connection, Sql::FindKey);
        if (!query.Bind(place.id).Bind(folded).Next())
        {
            if (query.GetError() != 0)
            {
                return query.GetError();
            }
            break;
        }
        place = {query.GetNumber(0), place.nDepth + 1};
    }
    return nFound == 0 ? CheckKey(connection, place.id) : 0;
}

LONG FindPlace(StoreConnection & connection, std::vector<Name> const & names, Place & place)
{
    std::size_t nFound = 0;
    LONG const nError = Walk(connection, names, place, nFound);
    return nError == 0 && nFound < names.size() ? ERROR_FILE_NOT_FOUND : nError;
}

LONG MakePlace(RegistryStore & store, std::vector<Name> const & names, Place & place, bool & bCreated)
{
    bCreated = false;
    Place const start = place;
    std::size_t nFound = 0;
    LONG const nError =
        store.Read([&](StoreConnection & connection) { return Walk(connection, names, place, nFound); });
    if (nError != 0 || nFound == names.size())
    {
        return nError;
    }
    if (start.nDepth + names.size() > MAX_KEY_DEPTH)
    {
        return ERROR_INVALID_PARAMETER;
    }
    return store.Write(
        [&](StoreConnection & connection, RegistryStore::Changes & changes) -> LONG
        {
            place = start;
            if (LONG const nFailure = Walk(connection, names, place, nFound); nFailure != 0)
            {
                return nFailure;
            }
            for (; nFound < names.size(); ++nFound)
            {
                FoldedName const folded(names[nFound]);
                StoreQuery query(connection, Sql::InsertKey);
                LONG const nFailure = query.Bind(place.id).Bind(folded).Bind(AsBytes(names[nFound])).Run();
                if (nFailure != 0)
                {
                    return nFailure;
                }
                changes.Add(place.id);
                place = {connection.GetLastId(), place.nDepth + 1};
                bCreated = true;
            }
            return 0;
        });
}

LONG MakeHandle(Place const & place, REGSAM access, HKEY & hResult)
{
    hResult = static_cast<HKEY>(
        OpenHandle(Ref<KernelObject>(new (std::nothrow) RegistryKey(place.id, place.nDepth, access))));
    return hResult ? 0 : static_cast<LONG>(GetLastError());
}

LONG DeleteKey(HKEY hKey, LPCWSTR pszSubKey, bool bRecursive) noexcept
{
    return WithKey(hKey, 0,
                   [&](RegistryStore & store, RegistryKey & key) -> LONG
                   {
                       std::vector<Name> names;
                       if (LONG const nError = SplitPath(ToView(pszSubKey), names); nError != 0)
                       {
                           return nError;
                       }
                       return store.Write(
                           [&](StoreConnection & connection, RegistryStore::Changes & changes) -> LONG
                           {
                               Place parent{key.GetId(), key.GetDepth()};
                               Place place = parent;
                               if (LONG const nError = FindPlace(connection, names, place); nError != 0)
                               {
                                   return nError;
                               }
                               std::vector<KeyId> tree;
                               {
                                   StoreQuery query(connection, bRecursive ? Sql::ListTree : Sql::HasSubKeys);
                                   query.Bind(place.id);
                                   while (query.Next())
                                   {
                                       tree.push_back(query.GetNumber(0));
                                   }
                                   if (query.GetError() != 0)
                                   {
                                       return query.GetError();
                                   }
                               }
                               if (!bRecursive)
                               {
                                   if (!tree.empty())
                                   {
                                       return ERROR_ACCESS_DENIED;
                                   }
                                   tree.push_back(place.id);
                               }
                               if (std::ranges::any_of(tree, [](KeyId id) { return id <= KEY_LAST_FIXED; }))
                               {
                                   return ERROR_ACCESS_DENIED;
                               }
                               {
                                   StoreQuery query(connection, Sql::FindParent);
                                   if (query.Bind(place.id).Next())
                                   {
                                       changes.Add(query.GetNumber(0));
                                   }
                                   if (query.GetError() != 0)
                                   {
                                       return query.GetError();
                                   }
                               }
                               for (KeyId const id : tree)
                               {
                                   changes.Add(id);
                                   bool const bKeep = bRecursive && names.empty() && id == place.id;
                                   for (Sql const sql : {Sql::DeleteValues, Sql::DeleteKey})
                                   {
                                       if (LONG const nError = bKeep && sql == Sql::DeleteKey
                                                                   ? 0
                                                                   : StoreQuery(connection, sql).Bind(id).Run();
                                           nError != 0)
                                       {
                                           return nError;
                                       }
                                   }
                               }
                               return 0;
                           });
                   });
}

LONG PutValue(StoreConnection & connection, KeyId id, Name name, DWORD dwType, std::string_view data)
{
    FoldedName const folded(name);
    StoreQuery query(connection, Sql::SetValue);
    return query.Bind(id).Bind(folded).Bind(AsBytes(name)).Bind(std::int64_t{dwType}).Bind(data).Run();
}

LONG SetValue(RegistryStore & store, KeyId id, Name name, DWORD dwType, std::string_view data)
{
    return store.Write(
        [&](StoreConnection & connection, RegistryStore::Changes & changes) -> LONG
        {
            LONG const nError = CheckKey(connection, id);
            changes.Add(id);
            return nError != 0 ? nError : PutValue(connection, id, name, dwType, data);
        });
}

LONG CheckValue(Name name, void const * pData, DWORD nSize) noexcept
{
    if (name.size() > MAX_VALUE_NAME)
    {
        return ERROR_INVALID_PARAMETER;
    }
    if (!pData && nSize > 0)
    {
        return ERROR_NOACCESS;
    }
    return nSize > MAX_VALUE_SIZE ? ERROR_NOT_ENOUGH_MEMORY : 0;
}

/// Gives type, size and, if there is a place for it, the data.
LONG CopyValue(Value const & value, DWORD * pdwType, BYTE * pData, DWORD * pdwSize)
{
    if (pdwType)
    {
        *pdwType = value.dwType;
    }
    if (!pdwSize)
    {
        return 0;
    }
    DWORD const nRoom = std::exchange(*pdwSize, value.nSize);
    if (!pData)
    {
        return 0;
    }
    if (nRoom < value.nSize)
    {
        return ERROR_MORE_DATA;
    }
    std::copy_n(value.strData.data(), value.nSize, reinterpret_cast<char *>(pData));
    return 0;
}

bool CopyName(Name name, LPWSTR pszName, DWORD & nName) noexcept
{
    if (nName <= name.size())
    {
        return false;
    }
    *std::ranges::copy(name, pszName).out = u'\0';
    nName = static_cast<DWORD>(name.size());
    return true;
}

void FinishText(Value & value)
{
    if (value.dwType != REG_SZ && value.dwType != REG_EXPAND_SZ)
    {
        return;
    }
    std::u16string strText(value.strData.size() / 2, u'\0');
    std::memcpy(strText.data(), value.strData.data(), 2 * strText.size());
    if (value.dwType == REG_EXPAND_SZ)
    {
        strText = ExpandVariables(strText.substr(0, strText.find(u'\0')));
        value.dwType = REG_SZ;
    }
    if (!strText.ends_with(u'\0'))
    {
        strText += u'\0';
    }
    value.strData = AsBytes(strText);
    value.nSize = static_cast<DWORD>(value.strData.size());
}

} // namespace

LONG RegOpenKeyExW(HKEY hKey, LPCWSTR pszSubKey, DWORD dwOptions, REGSAM samDesired, PHKEY phResult) noexcept
{
    if (!phResult)
    {
        return ERROR_INVALID_PARAMETER;
    }
    *phResult = nullptr;
    return WithKey(hKey, 0,
                   [&](RegistryStore & store, RegistryKey & key) -> LONG
                   {
                       std::vector<Name> names;
                       if (dwOptions != 0 || (samDesired & BOTH_VIEWS) == BOTH_VIEWS)
                       {
                           return ERROR_INVALID_PARAMETER;
                       }
                       if (LONG const nError = SplitPath(ToView(pszSubKey), names); nError != 0)
                       {
                           return nError;
                       }
                       Place place{key.GetId(), key.GetDepth()};
                       LONG const nError = store.Read([&](StoreConnection & connection)
                                                      { return FindPlace(connection, names, place); });
                       return nError != 0 ? nError : MakeHandle(place, samDesired, *phResult);
                   });
}

LONG RegCreateKeyExW(HKEY hKey, LPCWSTR pszSubKey, DWORD dwReserved, LPWSTR pszClass, DWORD dwOptions,
                     REGSAM samDesired, SECURITY_ATTRIBUTES const *, PHKEY phResult, DWORD * pdwDisposition) noexcept
{
    if (!phResult)
    {
        return ERROR_INVALID_PARAMETER;
    }
    *phResult = nullptr;
    return WithKey(hKey, 0,
                   [&](RegistryStore & store, RegistryKey & key) -> LONG
                   {
                       std::vector<Name> names;
                       if (!pszSubKey || dwReserved != 0 || (samDesired & BOTH_VIEWS) == BOTH_VIEWS)
                       {
                           return ERROR_INVALID_PARAMETER;
                       }
                       if (dwOptions != REG_OPTION_NON_VOLATILE || (pszClass && *pszClass))
                       {
                           return ERROR_NOT_SUPPORTED;
                       }
                       if (LONG const nError = SplitPath(pszSubKey, names); nError != 0)
                       {
                           return nError;
                       }
                       Place place{key.GetId(), key.GetDepth()};
                       bool bCreated = false;
                       LONG nError = MakePlace(store, names, place, bCreated);
                       if (nError == 0)
                       {
                           nError = MakeHandle(place, samDesired, *phResult);
                       }
                       if (nError == 0 && pdwDisposition)
                       {
                           *pdwDisposition = bCreated ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
                       }
                       return nError;
                   });
}

LONG RegCloseKey(HKEY hKey) noexcept
{
    auto const nValue = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(hKey));
    if (nValue >= 0x80000000 && nValue - 0x80000000 < Roots::NONE)
    {
        return 0;
    }
    return CloseObject(hKey, &IsOfKind<RegistryKey>) ? 0 : ERROR_INVALID_HANDLE;
}

LONG RegDeleteKeyW(HKEY hKey, LPCWSTR pszSubKey) noexcept
{
    return pszSubKey ? DeleteKey(hKey, pszSubKey, false) : ERROR_INVALID_PARAMETER;
}

LONG SHDeleteKeyW(HKEY hKey, LPCWSTR pszSubKey) noexcept
{
    return DeleteKey(hKey, pszSubKey, true);
}

LONG RegQueryValueExW(HKEY hKey, LPCWSTR pszName, DWORD * pdwReserved, DWORD * pdwType, BYTE * pData,
                      DWORD * pdwSize) noexcept
{
    if (pdwReserved || (pData && !pdwSize))
    {
        return ERROR_INVALID_PARAMETER;
    }
    return WithKey(hKey, KEY_QUERY_VALUE,
                   [&](RegistryStore & store, RegistryKey & key)
                   {
                       return key.UseValue(store, ToView(pszName), pData ? *pdwSize : 0,
                                           [&](Value const & value)
                                           { return CopyValue(value, pdwType, pData, pdwSize); });
                   });
}

LONG SHQueryValueExW(HKEY hKey, LPCWSTR pszName, DWORD * pdwReserved, DWORD * pdwType, void * pData,
                     DWORD * pdwSize) noexcept
{
    if (pdwReserved || (pData && !pdwSize))
    {
        return ERROR_INVALID_PARAMETER;
    }
    return WithKey(hKey, KEY_QUERY_VALUE,
                   [&](RegistryStore & store, RegistryKey & key)
                   {
                       return key.UseValue(store, ToView(pszName), MAX_VALUE_SIZE,
                                           [&](Value const & stored)
                                           {
                                               Value value = stored;
                                               FinishText(value);
                                               return CopyValue(value, pdwType, static_cast<BYTE *>(pData), pdwSize);
                                           });
                   });
}

LONG RegSetValueExW(HKEY hKey, LPCWSTR pszName, DWORD dwReserved, DWORD dwType, BYTE const * pData,
                    DWORD nSize) noexcept
{
    if (dwReserved != 0)
    {
        return ERROR_INVALID_PARAMETER;
    }
    return WithKey(hKey, KEY_SET_VALUE,
                   [&](RegistryStore & store, RegistryKey & key)
                   {
                       Name const name = ToView(pszName);
                       LONG const nError = CheckValue(name, pData, nSize);
                       return nError != 0 ? nError
                                          : SetValue(store, key.GetId(), name, dwType,
                                                     {reinterpret_cast<char const *>(pData), nSize});
                   });
}

LONG kvx::SetRegistryValues(std::span<RegistryValue const> values)
{
    if (values.empty())
    {
        return 0;
    }
    auto const setAll = [&](StoreConnection & connection, RegistryStore::Changes & changes) -> LONG
    {
        Ref<RegistryKey> key;
        HKEY hOpen = nullptr;
        for (RegistryValue const & value : values)
        {
            if (value.key != hOpen)
            {
                if (LONG const nError = FindKey(value.key, key); nError != 0)
                {
                    return nError;
                }
                if (!key->Allows(KEY_SET_VALUE))
                {
                    return ERROR_ACCESS_DENIED;
                }
                if (LONG const nError = CheckKey(connection, key->GetId()); nError != 0)
                {
                    return nError;
                }
                changes.Add(key->GetId());
                hOpen = value.key;
            }
            Name const name = ToView(value.strName.c_str());
            std::string_view const data(reinterpret_cast<char const *>(value.data.data()), value.data.size());
            LONG nError = CheckValue(name, data.data(), static_cast<DWORD>(data.size()));
            nError = nError != 0 ? nError : PutValue(connection, key->GetId(), name, value.nType, data);
            if (nError != 0)
            {
                return nError;
            }
        }
        return 0;
    };
    return WithKey(values.front().key, KEY_SET_VALUE,
                   [&](RegistryStore & store, RegistryKey &) { return store.Write(setAll); });
}

LONG kvx::RegistryValueReader::Read(std::vector<RegistryValue> & values)
{
    constexpr std::int64_t ROWS = 4096;
    constexpr std::size_t PIECE = 1 << 20;
    values.clear();
    auto const readSome = [&](StoreConnection & connection, KeyId id) -> LONG
    {
        StoreQuery query(connection, Sql::NextValues);
        query.Bind(id).Bind(m_nNext).Bind(ROWS);
        for (std::size_t nBytes = 0; nBytes < PIECE && query.Next();)
        {
            std::optional<std::u16string> name = ToName(query.GetBytes(1), MAX_VALUE_NAME);
            if (!name)
            {
                return ERROR_BADDB;
            }
            RegistryValue & value = values.emplace_back();
            m_nNext = query.GetNumber(0);
            value.strName = std::move(*name);
            value.key = m_key;
            if (!m_bNamesOnly)
            {
                std::string_view const data = query.GetBytes(3);
                value.nType = static_cast<DWORD>(query.GetNumber(2));
                value.data.assign(data.begin(), data.end());
            }
            nBytes += sizeof(value) + 2 * value.strName.size() + value.data.size();
        }
        if (query.GetError() != 0)
        {
            return query.GetError();
        }
        return values.empty() ? CheckKey(connection, id) : 0;
    };
    return WithKey(
        m_key, KEY_QUERY_VALUE,
        [&](RegistryStore & store, RegistryKey & key)
        { return store.Read([&](StoreConnection & connection) { return readSome(connection, key.GetId()); }); });
}

LONG SHSetValueW(HKEY hKey, LPCWSTR pszSubKey, LPCWSTR pszName, DWORD dwType, void const * pData, DWORD nSize) noexcept
{
    return WithKey(hKey, pszSubKey && *pszSubKey ? 0 : KEY_SET_VALUE,
                   [&](RegistryStore & store, RegistryKey & key) -> LONG
                   {
                       std::vector<Name> names;
                       Name const name = ToView(pszName);
                       if (LONG const nError = CheckValue(name, pData, nSize); nError != 0)
                       {
                           return nError;
                       }
                       if (LONG const nError = SplitPath(ToView(pszSubKey), names); nError != 0)
                       {
                           return nError;
                       }
                       Place place{key.GetId(), key.GetDepth()};
                       bool bCreated = false;
                       if (LONG const nError = MakePlace(store, names, place, bCreated); nError != 0)
                       {
                           return nError;
                       }
                       return SetValue(store, place.id, name, dwType, {static_cast<char const *>(pData), nSize});
                   });
}

LONG RegDeleteValueW(HKEY hKey, LPCWSTR pszName) noexcept
{
    return WithKey(hKey, KEY_SET_VALUE,
                   [&](RegistryStore & store, RegistryKey & key)
                   {
                       FoldedName const folded(ToView(pszName));
                       return store.Write(
                           [&](StoreConnection & connection, RegistryStore::Changes & changes) -> LONG
                           {
                               if (LONG const nError = CheckKey(connection, key.GetId()); nError != 0)
                               {
                                   return nError;
                               }
                               changes.Add(key.GetId());
                               StoreQuery query(connection, Sql::DeleteValue);
                               LONG const nError = query.Bind(key.GetId()).Bind(folded).Run();
                               return nError == 0 && connection.GetChanges() == 0 ? ERROR_FILE_NOT_FOUND : nError;
                           });
                   });
}

LONG RegEnumKeyExW(HKEY hKey, DWORD nIndex, LPWSTR pszName, DWORD * pnName, DWORD * pdwReserved, LPWSTR pszClass,
                   DWORD * pnClass, FILETIME * pLastWrite) noexcept
{
    if (!pszName || !pnName || pdwReserved || (pszClass && !pnClass))
    {
        return ERROR_INVALID_PARAMETER;
    }
    if (pLastWrite)
    {
        return ERROR_NOT_SUPPORTED;
    }
    return WithKey(hKey, KEY_ENUMERATE_SUB_KEYS,
                   [&](RegistryStore & store, RegistryKey & key)
                   {
                       return key.UseItem(store, &RegistryKey::m_subKeys, nIndex,
                                          [&](std::u16string const & strName) -> LONG
                                          {
                                              if (!CopyName(strName, pszName, *pnName))
                                              {
                                                  return ERROR_MORE_DATA;
                                              }
                                              if (pszClass && *pnClass > 0)
                                              {
                                                  *pszClass = u'\0';
                                              }
                                              if (pnClass)
                                              {
                                                  *pnClass = 0;
                                              }
                                              return 0;
                                          });
                   });
}

LONG RegEnumValueW(HKEY hKey, DWORD nIndex, LPWSTR pszName, DWORD * pnName, DWORD * pdwReserved, DWORD * pdwType,
                   BYTE * pData, DWORD * pdwSize) noexcept
{
    if (!pszName || !pnName || pdwReserved || (pData && !pdwSize))
    {
        return ERROR_INVALID_PARAMETER;
    }
    return WithKey(hKey, KEY_QUERY_VALUE,
                   [&](RegistryStore & store, RegistryKey & key) -> LONG
                   {
                       std::int64_t nRow = 0; // of a value whose data have to be fetched
                       LONG nError = key.UseItem(store, &RegistryKey::m_values, nIndex,
                                                 [&](ListedValue const & item) -> LONG
                                                 {
                                                     bool const bFits = !pData || *pdwSize >= item.value.nSize;
                                                     bool const bNamed = CopyName(item.strName, pszName, *pnName);
                                                     if (bNamed && bFits && pData && !item.value.HasData())
                                                     {
                                                         nRow = item.nRow;
                                                         return 0;
                                                     }
                                                     BYTE * const pTo = bNamed && bFits ? pData : nullptr;
                                                     LONG const nCopied = CopyValue(item.value, pdwType, pTo, pdwSize);
                                                     return bNamed && bFits ? nCopied : ERROR_MORE_DATA;
                                                 });
                       if (nError != 0 || nRow == 0)
                       {
                           return nError;
                       }
                       return store.Read(
                           [&](StoreConnection & connection) -> LONG
                           {
                               StoreQuery query(connection, Sql::ReadValue);
                               if (!query.Bind(nRow).Next())
                               {
                                   return query.GetError() != 0 ? query.GetError()
                                                                : ERROR_NO_MORE_ITEMS; // deleted just now
                               }
                               std::string_view const data = query.GetBytes(1);
                               if (pdwType)
                               {
                                   *pdwType = static_cast<DWORD>(query.GetNumber(0));
                               }
                               DWORD const nRoom = std::exchange(*pdwSize, static_cast<DWORD>(data.size()));
                               if (nRoom < data.size())
                               {
                                   return ERROR_MORE_DATA;
                               }
                               std::ranges::copy(data, reinterpret_cast<char *>(pData));
                               return 0;
                           });
                   });
}

LONG RegQueryInfoKeyW(HKEY hKey, LPWSTR pszClass, DWORD * pnClass, DWORD * pdwReserved, DWORD * pnSubKeys,
                      DWORD * pnMaxSubKey, DWORD * pnMaxClass, DWORD * pnValues, DWORD * pnMaxValueName,
                      DWORD * pnMaxValue, DWORD * pnSecurityDescriptor, FILETIME * pLastWrite) noexcept
{
    if (pdwReserved || (pszClass && !pnClass))
    {
        return ERROR_INVALID_PARAMETER;
    }
    if (pnSecurityDescriptor || pLastWrite)
    {
        return ERROR_NOT_SUPPORTED;
    }
    return WithKey(hKey, KEY_QUERY_VALUE,
                   [&](RegistryStore & store, RegistryKey & key) -> LONG
                   {
                       Counts counts;
                       if (LONG const nError = key.GetCounts(store, counts); nError != 0)
                       {
                           return nError;
                       }
                       if (pszClass && *pnClass > 0)
                       {
                           *pszClass = u'\0';
                       }
                       for (auto const & [pTarget, nValue] : {std::pair<DWORD *, DWORD>{pnClass, 0},
                                                              {pnMaxClass, 0},
                                                              {pnSubKeys, counts.nSubKeys},
                                                              {pnMaxSubKey, counts.nLongestSubKey},
                                                              {pnValues, counts.nValues},
                                                              {pnMaxValueName, counts.nLongestName},
                                                              {pnMaxValue, counts.nLongestData}})
                       {
                           if (pTarget)
                           {
                               *pTarget = nValue;
                           }
                       }
                       return 0;
                   });
}
