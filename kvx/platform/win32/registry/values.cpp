/// The calls that read, write, list and delete values.

#include "kvx/platform/win32/registry/values.h"

#include "kvx/platform/win32/environment.h"
#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/registry.h"
#include "kvx/platform/win32/registry/key_handles.h"
#include "kvx/platform/win32/registry/key_paths.h"
#include "kvx/platform/win32/registry/registry_key.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace kvx::win32::registry
{

LONG PutValue(StoreConnection & connection, KeyId id, Name name, DWORD dwType, std::string_view data)
{
    FoldedName const folded(name);
    StoreQuery query(connection, Sql::SetValue);
    return query.Bind(id).Bind(folded).Bind(AsBytes(name)).Bind(std::int64_t{dwType}).Bind(data).Run();
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

namespace
{

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

/// Gives type, size and, if there is a place for it, the data.
LONG CopyValue(ValueView const & value, DWORD * pdwType, BYTE * pData, DWORD * pdwSize)
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
    std::copy_n(value.data.data(), value.nSize, reinterpret_cast<char *>(pData));
    return 0;
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

} // namespace kvx::win32::registry

using namespace kvx::win32;
using namespace kvx::win32::registry;

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
                                           [&](ValueView const & value)
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
                       Value value;
                       LONG const nError =
                           key.UseValue(store, ToView(pszName), MAX_VALUE_SIZE,
                                        [&](ValueView const & stored) -> LONG
                                        {
                                            value = {true, stored.dwType, stored.nSize, std::string(stored.data)};
                                            return 0;
                                        });
                       if (nError != 0)
                       {
                           return nError;
                       }
                       FinishText(value);
                       return CopyValue(value, pdwType, static_cast<BYTE *>(pData), pdwSize);
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
