#include "kvx/platform/RegistryValues.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/registry/key_handles.h"
#include "kvx/platform/win32/registry/registry_key.h"
#include "kvx/platform/win32/registry/values.h"

#include <cstdint>
#include <optional>
#include <string_view>

using namespace kvx::win32;
using namespace kvx::win32::registry;

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
