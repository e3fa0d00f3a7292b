#pragma once

#include "kvx/platform/host.h"

#include <utility>

/// A handle that closes itself. There is one null handle, whatever the call gives for it.
class Handle
{
public:
    Handle(HANDLE hValue = nullptr) : m_hValue(hValue == INVALID_HANDLE_VALUE ? nullptr : hValue) {}
    Handle(Handle && other) noexcept : m_hValue(std::exchange(other.m_hValue, nullptr)) {}
    ~Handle() { Close(); }
    bool Close() { return m_hValue && CloseHandle(Release()); }
    HANDLE Release() { return std::exchange(m_hValue, nullptr); }
    operator HANDLE() const { return m_hValue; }

private:
    HANDLE m_hValue;
};
