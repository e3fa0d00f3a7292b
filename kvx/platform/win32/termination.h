#pragma once

#include "kvx/platform/export.h"

#include <atomic>
#include <cstdint>

namespace kvx::win32
{

/// What the termination of a thread needs to know about the thread it hits.
struct TerminationState
{
    std::uint32_t volatile nDepth;    ///< open UninterruptedScopes of this thread
    std::uint32_t volatile bPending;  ///< a termination came in meanwhile and is due when the depth falls to 0
    std::uint32_t volatile nSections; ///< critical sections that this thread holds, or may hold at the next instruction
    std::uint32_t volatile nEntries;  ///< how often it has entered one

    void BeginSection() noexcept
    {
        nSections = nSections + 1;
        nEntries = nEntries + 1;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    void EndSection() noexcept
    {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        nSections = nSections - 1;
    }
};

extern KVX_API constinit thread_local TerminationState g_termination __attribute__((tls_model("initial-exec")));

/// Ends the calling thread, which TerminateThread has hit inside an UninterruptedScope.
[[noreturn]] KVX_API void CompleteTermination() noexcept;

/// TerminateThread doesn't end a thread while it is inside such a scope, but at the scope's end. Every
/// process-wide lock of this layer is held under one, so that a terminated thread leaves none behind.
/// Keep the scopes short; never block in one. They nest. Nothing to be freed by the thread may be live
/// when the outermost scope ends.
class UninterruptedScope
{
public:
    UninterruptedScope() noexcept
    {
        g_termination.nDepth = g_termination.nDepth + 1;
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }

    ~UninterruptedScope()
    {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        std::uint32_t const nDepth = g_termination.nDepth - 1;
        g_termination.nDepth = nDepth;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        if (nDepth == 0 && g_termination.bPending != 0) [[unlikely]]
        {
            CompleteTermination();
        }
    }

    UninterruptedScope(UninterruptedScope const &) = delete;
    UninterruptedScope & operator=(UninterruptedScope const &) = delete;
};

} // namespace kvx::win32
