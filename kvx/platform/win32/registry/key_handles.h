#pragma once

/// From the handles of keys to the keys, and what every call of the registry begins with.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/registry.h"
#include "kvx/platform/win32/registry/key_paths.h"
#include "kvx/platform/win32/registry/registry_key.h"
#include "kvx/platform/win32/registry/registry_store.h"
#include "kvx/platform/win32/termination.h"

#include <new>

namespace kvx::win32::registry
{

/// Whether it is one of the keys that need no opening, or could be.
bool IsPredefined(HKEY hKey) noexcept;

LONG FindKey(HKEY hKey, Ref<RegistryKey> & key);

LONG MakeHandle(Place const & place, REGSAM access, HKEY & hResult);

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

} // namespace kvx::win32::registry
