#pragma once

namespace kvx::win32
{

/// Holds a lock of this folder, of whatever kind, for as long as it lives.
template <class LOCK>
class LockGuard
{
public:
    explicit LockGuard(LOCK & lock) noexcept : m_lock(lock) { m_lock.Lock(); }
    ~LockGuard() { m_lock.Unlock(); }
    LockGuard(LockGuard const &) = delete;
    LockGuard & operator=(LockGuard const &) = delete;

private:
    LOCK & m_lock;
};

} // namespace kvx::win32
