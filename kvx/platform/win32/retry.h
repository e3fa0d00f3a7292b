#pragma once

/// System calls that a signal may interrupt.

#include <cerrno>
#include <cstddef>

namespace kvx::win32
{

/// The kernel moves no more bytes than this in one call.
inline constexpr std::size_t MAX_TRANSFER = 0x7FFFF000;

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
