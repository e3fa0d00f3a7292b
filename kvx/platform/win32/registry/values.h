#pragma once

#include "kvx/platform/win32/registry/names.h"
#include "kvx/platform/win32/registry/registry_store.h"
#include "kvx/platform/win32/types.h"

#include <string_view>

namespace kvx::win32::registry
{

/// Whether a value may be set: 0, or the reason why not.
LONG CheckValue(Name name, void const * pData, DWORD nSize) noexcept;

/// Sets a value of a key that is there, within a write.
LONG PutValue(StoreConnection & connection, KeyId id, Name name, DWORD dwType, std::string_view data);

} // namespace kvx::win32::registry
