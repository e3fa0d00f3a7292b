#pragma once

#include <memory_resource>
#include <utility>

namespace kvx::cabinet
{
/// An object whose memory is a memory resource's.
template <class T>
class ResourceObject
{
public:
    template <class... ARGUMENTS>
    explicit ResourceObject(std::pmr::memory_resource * memory, ARGUMENTS &&... arguments)
        : m_allocator(memory), m_object(m_allocator.new_object<T>(std::forward<ARGUMENTS>(arguments)...))
    {
    }
    ResourceObject(ResourceObject const &) = delete;
    ResourceObject & operator=(ResourceObject const &) = delete;
    ~ResourceObject() { m_allocator.delete_object(m_object); }

    T * operator->() const { return m_object; }
    T & operator*() const { return *m_object; }

private:
    std::pmr::polymorphic_allocator<> m_allocator;
    T * m_object;
};
} // namespace kvx::cabinet
