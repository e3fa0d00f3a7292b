#pragma once

/// What compresses and decompresses the data of one folder of a cabinet: a row of blocks of 32,768 bytes, of which only
/// the last may be shorter. Coders work on plain memory, which they take from a memory resource when they are made, and
/// never after: so they can be made on one thread and run on another. They know nothing of files or headers.

#include "kvx/platform/export.h"

#include <cstddef>
#include <cstdint>
#include <memory_resource>
#include <span>

namespace kvx::cabinet
{
/// The size of a block before compression.
inline constexpr std::size_t BLOCK_SIZE = 32768;
/// What a block may take at most when compressed: as much, and a little for what can't be compressed.
inline constexpr std::size_t MAX_COMPRESSED_BLOCK = BLOCK_SIZE + 6144;

class KVX_API FolderEncoder
{
public:
    /// Receives compressed blocks in order.
    class Sink
    {
    public:
        virtual ~Sink() = default;
        /// `data` holds until the call returns.
        virtual void Put(std::span<std::uint8_t const> data, std::size_t uncompressedSize) = 0;
    };

    virtual ~FolderEncoder() = default;
    /// The next block: 32,768 bytes, fewer only in the last call. An encoder may keep blocks back, and put several at a
    /// later call. What it puts depends on the data alone.
    virtual void Encode(std::span<std::uint8_t const> block, Sink & sink) = 0;
    /// Puts all that it kept back. No more blocks come.
    virtual void Finish(Sink & sink) = 0;
};

class KVX_API FolderDecoder
{
public:
    virtual ~FolderDecoder() = default;
    /// Decompresses the next block into exactly `out.size()` bytes, at most 32,768. False for data that aren't such a
    /// block; what `out` holds then isn't told, and no other block can be decoded.
    virtual bool Decode(std::span<std::uint8_t const> data, std::span<std::uint8_t> out) = 0;
};
} // namespace kvx::cabinet
