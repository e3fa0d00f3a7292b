/// The slots of TlsAlloc.

#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/termination.h"
#include "kvx/platform/win32/threads.h"
#include "kvx/platform/win32/waits.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <new>
#include <utility>

namespace kvx::win32
{

namespace
{

constexpr DWORD TLS_SLOTS = 1088;

/// Odd while the slot is allocated. A value counts only as long as the generation is that under which it was set, so
/// that a slot is null in all threads when it is given out again.
constinit std::array<std::atomic<std::uint32_t>, TLS_SLOTS> g_tlsGenerations{};

bool IsAllocated(std::uint32_t nGeneration) noexcept
{
    return (nGeneration & 1) != 0;
}

bool GrowTls(ThreadData & thread, DWORD dwIndex) noexcept
{
    UninterruptedScope const scope;
    DWORD const nEntries = std::min(TLS_SLOTS, std::max<DWORD>(8, std::bit_ceil(dwIndex + 1)));
    auto * const pEntries = new (std::nothrow) TlsEntry[nEntries]{};
    if (!pEntries)
    {
        return false;
    }
    std::copy_n(thread.pTlsEntries, thread.nTlsEntries, pEntries);
    delete[] std::exchange(thread.pTlsEntries, pEntries);
    thread.nTlsEntries = nEntries;
    return true;
}

} // namespace

} // namespace kvx::win32

using namespace kvx::win32;

DWORD TlsAlloc() noexcept
{
    for (DWORD dwIndex = 0; dwIndex < TLS_SLOTS; ++dwIndex)
    {
        std::uint32_t nGeneration = g_tlsGenerations[dwIndex].load(std::memory_order_relaxed);
        if (!IsAllocated(nGeneration) &&
            g_tlsGenerations[dwIndex].compare_exchange_strong(nGeneration, nGeneration + 1, std::memory_order_acq_rel))
        {
            return dwIndex;
        }
    }
    SetLastError(ERROR_NO_SYSTEM_RESOURCES);
    return TLS_OUT_OF_INDEXES;
}

BOOL TlsFree(DWORD dwIndex) noexcept
{
    if (dwIndex < TLS_SLOTS)
    {
        std::uint32_t nGeneration = g_tlsGenerations[dwIndex].load(std::memory_order_relaxed);
        if (IsAllocated(nGeneration) &&
            g_tlsGenerations[dwIndex].compare_exchange_strong(nGeneration, nGeneration + 1, std::memory_order_acq_rel))
        {
            return TRUE;
        }
    }
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
}

BOOL TlsSetValue(DWORD dwIndex, LPVOID pValue) noexcept
{
    std::uint32_t const nGeneration =
        dwIndex < TLS_SLOTS ? g_tlsGenerations[dwIndex].load(std::memory_order_relaxed) : 0;
    if (!IsAllocated(nGeneration))
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return FALSE;
    }
    ThreadData * const pThread = GetThreadData();
    if (!pThread || (dwIndex >= pThread->nTlsEntries && !GrowTls(*pThread, dwIndex)))
    {
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return FALSE;
    }
    pThread->pTlsEntries[dwIndex] = {pValue, nGeneration};
    return TRUE;
}

LPVOID TlsGetValue(DWORD dwIndex) noexcept
{
    if (dwIndex >= TLS_SLOTS)
    {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    SetLastError(ERROR_SUCCESS);
    ThreadData const * const pThread = g_pThreadData;
    if (!pThread || dwIndex >= pThread->nTlsEntries)
    {
        return nullptr;
    }
    TlsEntry const & entry = pThread->pTlsEntries[dwIndex];
    return entry.nGeneration == g_tlsGenerations[dwIndex].load(std::memory_order_relaxed) ? entry.pValue : nullptr;
}
