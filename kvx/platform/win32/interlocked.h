#pragma once

/// Atomic operations on plain integers and pointers, in one order that all threads see.

#include "kvx/platform/win32/types.h"

/// The new value.
inline LONG InterlockedIncrement(LONG volatile * pTarget) noexcept
{
    return __atomic_add_fetch(pTarget, 1, __ATOMIC_SEQ_CST);
}

/// The new value.
inline LONG InterlockedDecrement(LONG volatile * pTarget) noexcept
{
    return __atomic_sub_fetch(pTarget, 1, __ATOMIC_SEQ_CST);
}

/// The value before, as with all that follow.
inline LONG InterlockedExchange(LONG volatile * pTarget, LONG nValue) noexcept
{
    return __atomic_exchange_n(pTarget, nValue, __ATOMIC_SEQ_CST);
}

inline LONG InterlockedExchangeAdd(LONG volatile * pTarget, LONG nValue) noexcept
{
    return __atomic_fetch_add(pTarget, nValue, __ATOMIC_SEQ_CST);
}

inline LONG InterlockedCompareExchange(LONG volatile * pTarget, LONG nValue, LONG nComparand) noexcept
{
    __atomic_compare_exchange_n(pTarget, &nComparand, nValue, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return nComparand;
}

inline PVOID InterlockedExchangePointer(PVOID volatile * pTarget, PVOID pValue) noexcept
{
    return __atomic_exchange_n(pTarget, pValue, __ATOMIC_SEQ_CST);
}

inline PVOID InterlockedCompareExchangePointer(PVOID volatile * pTarget, PVOID pValue, PVOID pComparand) noexcept
{
    __atomic_compare_exchange_n(pTarget, &pComparand, pValue, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return pComparand;
}
