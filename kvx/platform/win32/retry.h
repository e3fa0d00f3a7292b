#pragma once

/// System calls that a signal may interrupt.

#include <cerrno>

namespace kvx::win32
{

/// Runs a system call until no signal gets in its way.
template <typename Call>
auto Retry(Call call)
{
    decltype(call()) nResult;
    do
    {
        nResult = call();
    } while (nResult < 0 && errno == EINTR);
    return nResult;
}

} // namespace kvx::win32
