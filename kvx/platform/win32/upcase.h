#pragma once

#include "kvx/platform/export.h"

#include <string_view>

namespace kvx::win32
{

/// The upper-case unit by Unicode's simple case mapping; the same in every locale. Characters outside the basic
/// plane have no case here, as in file names elsewhere.
KVX_API char16_t UpCase(char16_t c) noexcept;

/// Whether two names differ in case at most.
KVX_API bool IsSameName(std::u16string_view a, std::u16string_view b) noexcept;

} // namespace kvx::win32
