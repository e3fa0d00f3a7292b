#pragma once

/// The engine's memory comes from the caller's callbacks.

#include "kvx/cabinet/CabTypes.h"

#include <memory_resource>
#include <new>

namespace kvx::cabinet
{
/// Memory from a pair of callbacks; std::bad_alloc where they give null. Alignments above that of malloc aren't given.
class CallbackMemory : public std::pmr::memory_resource
{
public:
    CallbackMemory(void * (*alloc)(ULONG), void (*free)(void *)) : m_alloc(alloc), m_free(free) {}

private:
    void * (*m_alloc)(ULONG);
    void (*m_free)(void *);

    void * do_allocate(std::size_t bytes, std::size_t alignment) override
    {
        void * memory = bytes <= 0xFFFFFFFF && alignment <= alignof(std::max_align_t)
                            ? m_alloc(static_cast<ULONG>(bytes))
                            : nullptr;
        if (!memory)
        {
            throw std::bad_alloc();
        }
        return memory;
    }
    void do_deallocate(void * memory, std::size_t, std::size_t) override { m_free(memory); }
    bool do_is_equal(memory_resource const & other) const noexcept override { return this == &other; }
};
} // namespace kvx::cabinet
