#pragma once

/// Events of the log on their way from one thread to another.

#include "kvx/logging/LogCall.h"
#include "kvx/logging/LogSink.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace kvx
{
/// A queue of events that keeps them one behind the other in a few blocks of memory. Whoever fills it allocates nothing
/// for an event, and touches nothing that whoever empties another one at the same time does.
///
/// Threads: one at a time.
class KVX_API LogLines
{
public:
    LogLines() = default;
    LogLines(LogLines const &) = delete;
    LogLines & operator=(LogLines const &) = delete;

    /// Appends an event with its text.
    void Add(CLogEvent const & event);
    /// The text is what the call says, which must have a size.
    void Add(CLogEvent const & event, KeepableCall const & call);
    bool IsEmpty() const { return m_nReadBlock == m_nBlocks; }
    /// Gives what was added first, without a built text; not for an empty queue. It is there until it is removed.
    void Get(CLogEvent & event) const;
    void RemoveFirst();
    /// Forgets all events, and gives back what memory is more than usual.
    void Clear();
    void Swap(LogLines & other) noexcept;

private:
    struct Block
    {
        std::unique_ptr<std::byte[]> bytes;
        std::size_t nSize = 0;
        std::size_t nUsed = 0;
    };

    std::vector<Block> m_blocks;
    std::size_t m_nBlocks = 0; // with events in them; those behind wait for more
    std::size_t m_nReadBlock = 0;
    std::size_t m_nReadOffset = 0;

    std::span<std::byte> AddHead(CLogEvent const & event, std::size_t size, bool bCall);
};
} // namespace kvx
