#pragma once

/// Intrusive reference counts. A new object starts at 0; whoever keeps it calls AddRef once.

#include "kvx/platform/mfc/Afx.h"

#include <atomic>

/// The count. Threads: AddRef, GetRef and Release may be called from any thread.
class KVX_API CRefCounter
{
public:
    CRefCounter() = default;
    /// A copy is a new object, and starts at 0.
    CRefCounter(CRefCounter const &) {}
    /// Takes the other's count as a plain value; the asymmetry to the copy constructor is intended.
    CRefCounter & operator=(CRefCounter const & other)
    {
        m_nRefs.store(other.m_nRefs.load(std::memory_order_relaxed), std::memory_order_relaxed);
        return *this;
    }
    virtual ~CRefCounter() = default;

    /// The new count.
    DWORD AddRef() { return static_cast<DWORD>(m_nRefs.fetch_add(1, std::memory_order_relaxed) + 1); }
    DWORD GetRef() const { return static_cast<DWORD>(m_nRefs.load(std::memory_order_acquire)); }
    /// The new count. With `bDelete`, a count that is not greater than 0 afterwards deletes the object: the last
    /// reference, and also one Release too many.
    DWORD Release(int bDelete);

private:
    std::atomic<LONG> m_nRefs{0};
};

/// A CObject with a count.
class KVX_API CRefObject : public CObject, public CRefCounter
{
public:
    CRefObject() = default;
    CRefObject(CRefObject const & other) : CObject(), CRefCounter(other) {}
    CRefObject & operator=(CRefObject const &) = default;
};

namespace kvx
{
/// Holds one reference to a CRefObject for as long as it lives.
template <class T>
class RefPtr
{
public:
    RefPtr() = default;
    RefPtr(T * object) : m_pObject(object)
    {
        if (m_pObject)
        {
            m_pObject->AddRef();
        }
    }
    RefPtr(RefPtr const & other) : RefPtr(other.m_pObject) {}
    RefPtr(RefPtr && other) noexcept : m_pObject(std::exchange(other.m_pObject, nullptr)) {}
    RefPtr & operator=(RefPtr other) noexcept
    {
        std::swap(m_pObject, other.m_pObject);
        return *this;
    }
    ~RefPtr()
    {
        if (m_pObject)
        {
            m_pObject->Release(1);
        }
    }

    T * Get() const { return m_pObject; }
    T * operator->() const { return m_pObject; }
    T & operator*() const { return *m_pObject; }
    explicit operator bool() const { return m_pObject != nullptr; }

private:
    T * m_pObject = nullptr;
};
} // namespace kvx
