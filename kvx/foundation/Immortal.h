#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace kvx
{
/// A static object whose end doesn't come by itself: threads that nobody can wait for may use it until the last moment
/// of the process. Destroy is for whoever knows that there are none.
template <class T>
class Immortal
{
public:
    template <class... A>
    explicit Immortal(A &&... values)
    {
        ::new (static_cast<void *>(m_bytes)) T(std::forward<A>(values)...);
    }
    Immortal(Immortal const &) = delete;
    Immortal & operator=(Immortal const &) = delete;

    T & operator*() { return *std::launder(reinterpret_cast<T *>(m_bytes)); }
    T * operator->() { return &**this; }
    /// The object must not be used any more.
    void Destroy() { (**this).~T(); }

private:
    alignas(T) std::byte m_bytes[sizeof(T)];
};
} // namespace kvx
