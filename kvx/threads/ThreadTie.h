#pragma once

/// What ties a thread to the object that it works for, when the object may go while the thread is busy elsewhere.

#include "kvx/platform/host.h"

#include <atomic>

namespace kvx
{
/// The thread touches the object only between Enter and Leave, and is outside while it runs functions of the
/// application: those may take for ever, and may destroy the object. The object cuts the tie before it goes.
/// Shared by the two, or left to the thread: it outlives both.
class ThreadTie
{
public:
    /// For the thread. False: the object has gone.
    bool Enter()
    {
        int outside = OUTSIDE;
        return m_state.compare_exchange_strong(outside, INSIDE);
    }
    void Leave() { m_state = OUTSIDE; }

    /// For the object. False while the thread is inside: it will be out in a moment.
    bool Cut()
    {
        int outside = OUTSIDE;
        return m_state.compare_exchange_strong(outside, CUT) || outside == CUT;
    }

    /// 0 until the thread has arrived.
    DWORD GetThreadId() const { return m_nThreadId; }
    void SetThread(DWORD id) { m_nThreadId = id; }

private:
    enum
    {
        OUTSIDE,
        INSIDE,
        CUT,
    };
    std::atomic<int> m_state{OUTSIDE};
    std::atomic<DWORD> m_nThreadId{0};
};
} // namespace kvx
