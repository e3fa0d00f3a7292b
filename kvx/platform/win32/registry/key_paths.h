#pragma once

/// The way from a key to one below it.

#include "kvx/platform/win32/registry/names.h"
#include "kvx/platform/win32/registry/registry_store.h"
#include "kvx/platform/win32/types.h"

#include <cstddef>
#include <vector>

namespace kvx::win32::registry
{

/// A key of the store.
struct Place
{
    KeyId id = 0;
    std::size_t nDepth = 0;
};

/// Makes `place` the key that the names lead to from there; ERROR_FILE_NOT_FOUND if there is none.
LONG FindPlace(StoreConnection & connection, std::vector<Name> const & names, Place & place);

/// The same, and makes the keys that aren't there.
LONG MakePlace(RegistryStore & store, std::vector<Name> const & names, Place & place, bool & bCreated);

} // namespace kvx::win32::registry
