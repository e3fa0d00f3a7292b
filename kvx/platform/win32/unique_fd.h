#pragma once

#include <utility>

namespace kvx::win32
{

/// Owns a descriptor of the system; -1 is none.
class UniqueFd
{
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int nFd) noexcept : m_nFd(nFd) {}
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
    void Reset() noexcept; ///< closes; errno stays

private:
    int m_nFd = -1;
};

} // namespace kvx::win32
