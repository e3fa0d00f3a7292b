/// The calls that open, make, list and delete keys.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/registry.h"
#include "kvx/platform/win32/registry/key_handles.h"
#include "kvx/platform/win32/registry/key_paths.h"
#include "kvx/platform/win32/registry/names.h"
#include "kvx/platform/win32/registry/registry_key.h"
#include "kvx/platform/win32/registry/registry_store.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace kvx::win32::registry
{

namespace
{

constexpr REGSAM BOTH_VIEWS = KEY_WOW64_64KEY | KEY_WOW64_32KEY;

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

} // namespace

} // namespace kvx::win32::registry

using namespace kvx::win32;
using namespace kvx::win32::registry;

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
    if (IsPredefined(hKey))
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
