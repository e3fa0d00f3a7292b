#pragma once

/// How a call of this folder fails: with the last error, and a result of 0.

#include "kvx/platform/win32/errors.h"

#include <concepts>

namespace kvx::win32
{

/// Sets the last error; false, which is FALSE and 0 too.
template <std::integral Error>
bool Refuse(Error nError) noexcept
{
    SetLastError(static_cast<DWORD>(nError));
    return false;
}

/// The same with what errno says.
inline bool RefuseByErrno() noexcept
{
    SetLastErrorFromErrno();
    return false;
}

} // namespace kvx::win32
