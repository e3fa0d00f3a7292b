#pragma once

#include "kvx/platform/win32/low_descriptors.h"

#include <cerrno>
#include <utility>

#include <unistd.h>

namespace kvx::win32
{

/// Owns a descriptor of the system; -1 is none. It is the one place through which every new descriptor of the library
/// goes, so that none stays among the standard streams.
class UniqueFd
{
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int nFd) noexcept : m_nFd(AboveStandard(nFd)) {}
    UniqueFd(UniqueFd && other) noexcept : m_nFd(other.Detach()) {}
    UniqueFd & operator=(UniqueFd other) noexcept
    {
        std::swap(m_nFd, other.m_nFd);
        return *this;
    }
    ~UniqueFd() { Reset(); }

    int Get() const noexcept { return m_nFd; }
    explicit operator bool() const noexcept { return m_nFd >= 0; }
    int Detach() noexcept { return std::exchange(m_nFd, -1); }
    /// Closes; errno stays.
    void Reset() noexcept
    {
        if (m_nFd < 0)
        {
            return;
        }
        int const nErrno = errno;
        ::close(Detach());
        errno = nErrno;
    }

private:
    int m_nFd = -1;
};

} // namespace kvx::win32
