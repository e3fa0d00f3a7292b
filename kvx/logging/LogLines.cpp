#include "kvx/logging/LogLines.h"

#include <algorithm>
#include <new>
#include <utility>

namespace kvx
{
namespace
{
/// What stands in front of each text or call.
struct alignas(FormatArg) LineHead
{
    DWORD nType;
    DWORD nThreadId;
    DWORD nSessionId;
    SYSTEMTIME time;
    bool bCall;
    std::size_t nSize; // bytes behind it, without what fills them up
};

constexpr std::size_t BLOCK_SIZE = 64 * 1024; // bytes; a longer text has a block of its own
constexpr std::size_t KEPT_BLOCKS = 4;

std::size_t LineSize(std::size_t size)
{
    return sizeof(LineHead) + (size + alignof(LineHead) - 1) / alignof(LineHead) * alignof(LineHead);
}

LineHead const & HeadAt(std::byte const * line)
{
    return *std::launder(reinterpret_cast<LineHead const *>(line));
}
} // namespace

std::span<std::byte> LogLines::AddHead(CLogEvent const & event, std::size_t size, bool bCall)
{
    std::size_t const lineSize = LineSize(size);
    if (m_nBlocks == 0 || m_blocks[m_nBlocks - 1].nSize - m_blocks[m_nBlocks - 1].nUsed < lineSize)
    {
        if (m_nBlocks == m_blocks.size() || m_blocks[m_nBlocks].nSize < lineSize)
        {
            std::size_t const room = std::max(lineSize, BLOCK_SIZE);
            Block block{std::make_unique_for_overwrite<std::byte[]>(room), room, 0};
            m_blocks.insert(m_blocks.begin() + static_cast<std::ptrdiff_t>(m_nBlocks), std::move(block));
        }
        ++m_nBlocks;
    }
    Block & block = m_blocks[m_nBlocks - 1];
    std::byte * const line = block.bytes.get() + std::exchange(block.nUsed, block.nUsed + lineSize);
    new (line) LineHead{event.m_nType, event.m_nThreadId, event.m_nSessionId, event.m_time, bCall, size};
    return {line + sizeof(LineHead), size};
}

void LogLines::Add(CLogEvent const & event)
{
    auto const bytes = std::as_bytes(std::span(CString::View(event.m_strText)));
    std::ranges::copy(bytes, AddHead(event, bytes.size(), false).begin());
}

void LogLines::Add(CLogEvent const & event, KeepableCall const & call)
{
    call.Keep(AddHead(event, call.GetSize(), true));
}

void LogLines::Get(CLogEvent & event) const
{
    std::byte const * const line = m_blocks[m_nReadBlock].bytes.get() + m_nReadOffset;
    std::byte const * const text = line + sizeof(LineHead);
    LineHead const & head = HeadAt(line);
    event.m_nType = head.nType;
    event.m_nThreadId = head.nThreadId;
    event.m_nSessionId = head.nSessionId;
    event.m_time = head.time;
    if (head.bCall)
    {
        event.m_strText = KeepableCall::Find(text).Format();
    }
    else
    {
        event.m_strText.Assign(CString::View(reinterpret_cast<WCHAR const *>(text), head.nSize / sizeof(WCHAR)));
    }
}

void LogLines::RemoveFirst()
{
    Block const & block = m_blocks[m_nReadBlock];
    m_nReadOffset += LineSize(HeadAt(block.bytes.get() + m_nReadOffset).nSize);
    if (m_nReadOffset == block.nUsed)
    {
        ++m_nReadBlock;
        m_nReadOffset = 0;
    }
}

void LogLines::Clear()
{
    std::erase_if(m_blocks, [](Block const & block) { return block.nSize > BLOCK_SIZE; });
    m_blocks.resize(std::min(m_blocks.size(), KEPT_BLOCKS));
    for (Block & block : m_blocks)
    {
        block.nUsed = 0;
    }
    m_nBlocks = 0;
    m_nReadBlock = 0;
    m_nReadOffset = 0;
}

void LogLines::Swap(LogLines & other) noexcept
{
    m_blocks.swap(other.m_blocks);
    std::swap(m_nBlocks, other.m_nBlocks);
    std::swap(m_nReadBlock, other.m_nReadBlock);
    std::swap(m_nReadOffset, other.m_nReadOffset);
}
} // namespace kvx
