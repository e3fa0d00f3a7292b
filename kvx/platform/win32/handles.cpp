#include "kvx/platform/win32/handles.h"

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/spinlock.h"
#include "kvx/platform/win32/termination.h"

#include <array>
#include <new>

namespace kvx::win32
{

namespace
{

// A handle is `generation << 20 | index << 2`. The generation of a slot moves on with each closing, and closed
// slots queue up at the end of the free list: a stale value meets a new object only after thousands of reuses.
constexpr std::uint32_t INDEX_SHIFT = 2;
constexpr std::uint32_t INDEX_BITS = 18;
constexpr std::uint32_t GENERATION_SHIFT = INDEX_SHIFT + INDEX_BITS;
constexpr std::uint32_t GENERATION_MASK = 0x7FF;
constexpr std::uint32_t CHUNK_BITS = 8;
constexpr std::uint32_t CHUNK_SIZE = 1u << CHUNK_BITS;
constexpr std::uint32_t CHUNK_COUNT = 1u << (INDEX_BITS - CHUNK_BITS);
constexpr std::uint32_t MIN_FREE = 64;

constexpr std::uint32_t SLOT_LOCKED = 1;
constexpr std::uint32_t SLOT_OPEN = 2;

/// The word holds `generation << 2 | SLOT_OPEN | SLOT_LOCKED`; the object may be touched only by who has locked it.
struct alignas(64) Slot
{
    std::atomic<std::uint32_t> word{0};
    std::uint32_t nNextFree = 0;
    KernelObject * pObject = nullptr;
};

struct Chunk
{
    std::array<Slot, CHUNK_SIZE> slots;
};

} // namespace

class HandleTable
{
public:
    HANDLE Open(Ref<KernelObject> object) noexcept
    {
        UninterruptedScope const scope;
        std::uint32_t nIndex = 0;
        {
            SpinLockGuard const guard(m_lock);
            if (m_nFree < MIN_FREE && m_nFresh < (1u << INDEX_BITS))
            {
                nIndex = TakeFresh();
            }
            if (nIndex == 0 && m_nFree > 0)
            {
                nIndex = TakeFree();
            }
            if (nIndex == 0)
            {
                SetLastError(m_nFresh < (1u << INDEX_BITS) ? ERROR_NOT_ENOUGH_MEMORY : ERROR_TOO_MANY_OPEN_FILES);
                return nullptr;
            }
            ++m_nOpen;
        }
        Slot & slot = GetSlot(nIndex);
        object->m_nHandles.fetch_add(1, std::memory_order_relaxed);
        slot.pObject = object.Detach();
        std::uint32_t const nWord = slot.word.load(std::memory_order_relaxed);
        slot.word.store(nWord | SLOT_OPEN, std::memory_order_release);
        return reinterpret_cast<HANDLE>(
            static_cast<UINT_PTR>((nWord >> 2) << GENERATION_SHIFT | nIndex << INDEX_SHIFT));
    }

    KernelObject * LookUp(HANDLE handle, bool (*pAccepts)(Kind) noexcept) noexcept
    {
        KernelObject * pResult = nullptr;
        if (Slot * const pSlot = Locate(handle))
        {
            UninterruptedScope const scope;
            std::uint32_t const nWord = GetOpenWord(handle);
            if (Lock(*pSlot, nWord))
            {
                if (!pAccepts || pAccepts(pSlot->pObject->GetKind()))
                {
                    pResult = pSlot->pObject;
                    pResult->AddRef();
                }
                pSlot->word.store(nWord, std::memory_order_release);
            }
        }
        if (!pResult)
        {
            SetLastError(ERROR_INVALID_HANDLE);
        }
        return pResult;
    }

    bool Close(HANDLE handle, bool (*pAccepts)(Kind) noexcept) noexcept
    {
        Slot * const pSlot = Locate(handle);
        Ref<KernelObject> object;
        if (pSlot)
        {
            UninterruptedScope const scope;
            std::uint32_t const nWord = GetOpenWord(handle);
            if (Lock(*pSlot, nWord))
            {
                if (pAccepts && !pAccepts(pSlot->pObject->GetKind()))
                {
                    pSlot->word.store(nWord, std::memory_order_release);
                }
                else
                {
                    object = Ref<KernelObject>::Adopt(std::exchange(pSlot->pObject, nullptr));
                    std::uint32_t const nGeneration = ((nWord >> 2) + 1) & GENERATION_MASK;
                    pSlot->word.store(nGeneration << 2, std::memory_order_release);
                    SpinLockGuard const guard(m_lock);
                    PutFree(static_cast<std::uint32_t>(reinterpret_cast<UINT_PTR>(handle)) >> INDEX_SHIFT &
                            ((1u << INDEX_BITS) - 1));
                    --m_nOpen;
                }
            }
        }
        if (!object)
        {
            SetLastError(ERROR_INVALID_HANDLE);
            return false;
        }
        if (object->m_nHandles.fetch_sub(1, std::memory_order_acq_rel) == 1)
        {
            object->OnHandleClosed();
        }
        return true;
    }

    std::uint32_t GetOpenCount() noexcept
    {
        UninterruptedScope const scope;
        SpinLockGuard const guard(m_lock);
        return m_nOpen;
    }

private:
    Slot & GetSlot(std::uint32_t nIndex) noexcept
    {
        return m_chunks[nIndex >> CHUNK_BITS].load(std::memory_order_acquire)->slots[nIndex & (CHUNK_SIZE - 1)];
    }

    Slot * Locate(HANDLE handle) noexcept
    {
        UINT_PTR const nValue = reinterpret_cast<UINT_PTR>(handle);
        if (nValue == 0 || nValue > 0x7FFFFFFF || (nValue & 3) != 0)
        {
            return nullptr;
        }
        std::uint32_t const nIndex = static_cast<std::uint32_t>(nValue) >> INDEX_SHIFT & ((1u << INDEX_BITS) - 1);
        Chunk * const pChunk = m_chunks[nIndex >> CHUNK_BITS].load(std::memory_order_acquire);
        return pChunk ? &pChunk->slots[nIndex & (CHUNK_SIZE - 1)] : nullptr;
    }

    static std::uint32_t GetOpenWord(HANDLE handle) noexcept
    {
        return (static_cast<std::uint32_t>(reinterpret_cast<UINT_PTR>(handle)) >> GENERATION_SHIFT) << 2 | SLOT_OPEN;
    }

    /// False when the slot isn't open under that generation.
    static bool Lock(Slot & slot, std::uint32_t nOpenWord) noexcept
    {
        for (std::uint32_t nTries = 0;; ++nTries)
        {
            std::uint32_t nExpected = nOpenWord;
            if (slot.word.compare_exchange_strong(nExpected, nOpenWord | SLOT_LOCKED, std::memory_order_acquire,
                                                  std::memory_order_relaxed))
            {
                return true;
            }
            if (nExpected != (nOpenWord | SLOT_LOCKED))
            {
                return false;
            }
            SpinPause(nTries);
        }
    }

    std::uint32_t TakeFresh() noexcept
    {
        std::atomic<Chunk *> & chunk = m_chunks[m_nFresh >> CHUNK_BITS];
        if (!chunk.load(std::memory_order_relaxed))
        {
            Chunk * const pNew = new (std::nothrow) Chunk;
            if (!pNew)
            {
                return 0;
            }
            chunk.store(pNew, std::memory_order_release);
        }
        return m_nFresh++;
    }

    std::uint32_t TakeFree() noexcept
    {
        std::uint32_t const nIndex = m_nFirstFree;
        m_nFirstFree = GetSlot(nIndex).nNextFree;
        --m_nFree;
        return nIndex;
    }

    void PutFree(std::uint32_t nIndex) noexcept
    {
        GetSlot(nIndex).nNextFree = 0;
        if (m_nFree++ == 0)
        {
            m_nFirstFree = nIndex;
        }
        else
        {
            GetSlot(m_nLastFree).nNextFree = nIndex;
        }
        m_nLastFree = nIndex;
    }

    std::array<std::atomic<Chunk *>, CHUNK_COUNT> m_chunks{}; // chunks stay for the process's life
    SpinLock m_lock;                                          // the fields below
    std::uint32_t m_nFresh = 1;                               // index 0 is never used
    std::uint32_t m_nFree = 0;
    std::uint32_t m_nFirstFree = 0;
    std::uint32_t m_nLastFree = 0;
    std::uint32_t m_nOpen = 0;
};

namespace
{
constinit HandleTable g_table;
}

HANDLE OpenHandle(Ref<KernelObject> object) noexcept
{
    if (!object)
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return nullptr;
    }
    return g_table.Open(std::move(object));
}

KernelObject * LookUpHandle(HANDLE handle, bool (*pAccepts)(Kind) noexcept) noexcept
{
    return g_table.LookUp(handle, pAccepts);
}

bool CloseObject(HANDLE handle, bool (*pAccepts)(Kind) noexcept) noexcept
{
    return g_table.Close(handle, pAccepts);
}

std::uint32_t GetOpenHandleCount() noexcept
{
    return g_table.GetOpenCount();
}

} // namespace kvx::win32
