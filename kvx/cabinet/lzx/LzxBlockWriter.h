#pragma once

/// Turns items into LZX blocks.

#include "kvx/cabinet/FolderCoder.h"
#include "kvx/cabinet/lzx/LzxItems.h"

#include <memory_resource>
#include <span>
#include <vector>

namespace kvx::cabinet::lzx
{
/// The codes of a block, and what they cost.
struct BlockCodes
{
    std::uint8_t main[MAIN_SYMBOLS] = {};
    std::uint8_t length[LENGTH_SYMBOLS] = {};
    std::uint8_t aligned[ALIGNED_SYMBOLS] = {};
    bool bAligned = false; ///< whether the block is one with an aligned code

    explicit BlockCodes(Histogram const & histogram);
    BlockCodes() = default;
};

/// Writes blocks into the compressed frames of a stretch of whole frames (only the stream's last may be shorter). What
/// it holds is given on when the stretch is known to be good, and can be written anew before.
class BlockWriter
{
public:
    /// A translation size of 0 for none.
    BlockWriter(unsigned windowBits, std::int32_t translationSize, std::size_t maxFrames,
                std::pmr::memory_resource * memory);

    /// A new stretch of frames of so many bytes in all.
    void Begin(std::size_t size);
    /// The same stretch anew.
    void BeginAgain();
    /// A verbatim or aligned block.
    void Write(std::span<Item const> items, std::size_t size);
    /// An uncompressed block of whole frames; `recent` is what the items behind it expect.
    void WriteRaw(std::span<std::uint8_t const> bytes, Recent const & recent);
    /// When all of the stretch is written: the first frame that takes too much room, or the number of frames.
    std::size_t FindOversized() const;
    /// Gives on all frames. None is oversized.
    void Put(FolderEncoder::Sink & sink) const;

private:
    /// A symbol of the pre-code, and the bits behind it.
    struct Token
    {
        std::uint8_t symbol;
        std::uint8_t extra;
    };

    unsigned const m_mainSymbols;
    std::int32_t const m_translationSize;
    std::pmr::vector<std::uint8_t> m_output; ///< MAX_COMPRESSED_BLOCK bytes for each frame
    std::pmr::vector<std::size_t> m_sizes;   ///< of the frames that are done
    BlockCodes m_codes;                      ///< of the block before
    BlockCodes m_codesAtBegin;
    bool m_bStarted = false;
    bool m_bStartedAtBegin = false;
    std::size_t m_nSize = 0;      ///< of the stretch, uncompressed
    std::size_t m_nFrame = 0;     ///< that is written
    std::size_t m_nFrameLeft = 0; ///< uncompressed bytes to come in it
    std::size_t m_nAt = 0;        ///< in it, in compressed bytes
    std::uint64_t m_bits = 0;
    unsigned m_nBits = 0; ///< in m_bits, less than 16

    void Start();
    void PutBits(std::uint64_t value, unsigned count);
    void PutByte(std::uint8_t byte);
    void AlignToWord();
    void Advance(std::size_t size);
    void WriteHeader(unsigned type, std::size_t size);
    void WriteLengths(std::span<std::uint8_t const> lengths, std::span<std::uint8_t const> before);
};
} // namespace kvx::cabinet::lzx
