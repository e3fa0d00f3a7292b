#pragma once

#include "kvx/platform/export.h"
#include "kvx/platform/win32/types.h"

#include <atomic>
#include <concepts>
#include <cstdint>
#include <utility>

namespace kvx::win32
{

/// The kinds of kernel objects. A call names the kinds that it accepts; any other is an invalid handle.
enum class Kind : std::uint8_t
{
    Event,
    NamedEvent,
    Mutex,
    NamedMutex,
    Thread,
    Process,
    File,
    Find,
    Socket,
    Window,
    Module,
    Pipe,
    Console,
    Token,
    RegistryKey,
};

/// What stands behind a handle. The table holds one reference for each handle, and each call that works on
/// the object holds one more: an object whose handle is closed lives until the last call is done with it.
/// The count starts at 0; objects are made with new and held by Ref. Any thread may use the counts.
class KVX_API KernelObject
{
public:
    KernelObject(KernelObject const &) = delete;
    KernelObject & operator=(KernelObject const &) = delete;

    Kind GetKind() const noexcept { return m_kind; }

    void AddRef() const noexcept { m_nRefs.fetch_add(1, std::memory_order_relaxed); }

    void Release() const noexcept
    {
        if (m_nRefs.fetch_sub(1, std::memory_order_acq_rel) == 1)
        {
            delete this;
        }
    }

    /// Called once, when the last handle to the object is closed, by the thread that closes it. Calls of other
    /// threads may still be at work on the object: this is the place to break them. No lock of the table is held.
    /// An object that a lookup by name can reach may get a new handle meanwhile, and then a further call.
    virtual void OnHandleClosed() noexcept {}

protected:
    explicit KernelObject(Kind kind) noexcept : m_kind(kind) {}
    virtual ~KernelObject() = default;

    std::uint32_t GetHandleCount() const noexcept { return m_nHandles.load(std::memory_order_acquire); }

private:
    friend class HandleTable;

    mutable std::atomic<std::uint32_t> m_nRefs{0};
    std::atomic<std::uint32_t> m_nHandles{0};
    Kind const m_kind;
};

/// A counted pointer to a kernel object.
template <class T>
class Ref
{
public:
    Ref() noexcept = default;
    Ref(std::nullptr_t) noexcept {}
    explicit Ref(T * pObject) noexcept : m_pObject(pObject)
    {
        if (m_pObject)
        {
            m_pObject->AddRef();
        }
    }
    Ref(Ref const & other) noexcept : Ref(other.m_pObject) {}
    Ref(Ref && other) noexcept : m_pObject(std::exchange(other.m_pObject, nullptr)) {}
    template <class U>
        requires std::convertible_to<U *, T *>
    Ref(Ref<U> other) noexcept : m_pObject(other.Detach())
    {
    }
    ~Ref()
    {
        if (m_pObject)
        {
            m_pObject->Release();
        }
    }

    Ref & operator=(Ref other) noexcept
    {
        std::swap(m_pObject, other.m_pObject);
        return *this;
    }

    /// Takes over a reference that was already counted.
    static Ref Adopt(T * pObject) noexcept
    {
        Ref result;
        result.m_pObject = pObject;
        return result;
    }

    /// Gives up the pointer with its reference.
    T * Detach() noexcept { return std::exchange(m_pObject, nullptr); }

    T * get() const noexcept { return m_pObject; }
    T * operator->() const noexcept { return m_pObject; }
    T & operator*() const noexcept { return *m_pObject; }
    explicit operator bool() const noexcept { return m_pObject != nullptr; }
    bool operator==(Ref const & other) const noexcept { return m_pObject == other.m_pObject; }

private:
    T * m_pObject = nullptr;
};

/// Whether objects of class T have this kind: by T::Matches(kind), or else by T::KIND.
template <class T>
constexpr bool IsOfKind(Kind kind) noexcept
{
    if constexpr (requires { T::Matches(kind); })
    {
        return T::Matches(kind);
    }
    else
    {
        return kind == T::KIND;
    }
}

/// Gives the object a handle of its own: a multiple of 4 that fits into 31 bits, never 0. Null with last error
/// ERROR_TOO_MANY_OPEN_FILES when the table is full or ERROR_NOT_ENOUGH_MEMORY, also for a null object.
KVX_API HANDLE OpenHandle(Ref<KernelObject> object) noexcept;

/// The object behind the handle with a counted reference if its kind is accepted (a null test accepts all), else
/// null with last error ERROR_INVALID_HANDLE. No lock is shared with other handles.
KVX_API KernelObject * LookUpHandle(HANDLE handle, bool (*pAccepts)(Kind) noexcept) noexcept;

/// The object behind the handle, or null with last error ERROR_INVALID_HANDLE for null, INVALID_HANDLE_VALUE, a
/// closed handle, or one of another kind.
template <class T>
Ref<T> FindObject(HANDLE handle) noexcept
{
    if constexpr (std::same_as<T, KernelObject>)
    {
        return Ref<T>::Adopt(LookUpHandle(handle, nullptr));
    }
    else
    {
        return Ref<T>::Adopt(static_cast<T *>(LookUpHandle(handle, &IsOfKind<T>)));
    }
}

/// Closes a handle of a kind that is accepted (a null test accepts all). False with last error
/// ERROR_INVALID_HANDLE otherwise; of several threads that close the same handle, one succeeds.
KVX_API bool CloseObject(HANDLE handle, bool (*pAccepts)(Kind) noexcept = nullptr) noexcept;

/// The number of open handles in the process, for diagnostics.
KVX_API std::uint32_t GetOpenHandleCount() noexcept;

} // namespace kvx::win32
