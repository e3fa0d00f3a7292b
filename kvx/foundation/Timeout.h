#pragma once

#include "kvx/platform/host.h"

#include <algorithm>

namespace kvx
{
/// A time-out in milliseconds that runs down from the moment of its making, on the steady clock; INFINITE never does.
class Timeout
{
public:
    explicit Timeout(DWORD timeout) : m_nTimeout(timeout), m_nStart(GetTickCount64()) {}

    /// What is left of it; 0 when it is over.
    DWORD GetRest() const
    {
        return m_nTimeout == INFINITE
                   ? INFINITE
                   : static_cast<DWORD>(m_nTimeout - std::min<ULONGLONG>(m_nTimeout, GetTickCount64() - m_nStart));
    }

private:
    DWORD m_nTimeout;
    ULONGLONG m_nStart;
};
} // namespace kvx
