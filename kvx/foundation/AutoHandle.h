#pragma once

/// A handle that closes itself.

#include "kvx/platform/mfc/Afx.h"

/// Closes what it holds when it goes or is given another handle, without a test of any kind: INVALID_HANDLE_VALUE and
/// null are handed to the close function too. Assigning one CAutoHandle to another copies both fields and closes
/// nothing, so that both close the same handle.
class KVX_API CAutoHandle
{
public:
    using CloseProc = int(WINAPI *)(void *);

    CAutoHandle(void * handle = INVALID_HANDLE_VALUE, CloseProc proc = &CloseHandle) : m_hHandle(handle), m_pClose(proc)
    {
    }
    CAutoHandle(CAutoHandle const &) = default;
    CAutoHandle & operator=(CAutoHandle const &) = default;
    ~CAutoHandle() { m_pClose(m_hHandle); }

    CAutoHandle & operator=(void * handle)
    {
        m_pClose(m_hHandle);
        m_hHandle = handle;
        return *this;
    }
    operator void *() { return m_hHandle; }
    int IsEqual(void * const handle) const { return m_hHandle == handle; }
    int operator==(void * const handle) const { return IsEqual(handle); }

    friend int operator==(void * const handle, CAutoHandle const & self) { return self.IsEqual(handle); }

private:
    void * m_hHandle;
    CloseProc m_pClose;
};
