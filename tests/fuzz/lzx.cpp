// Decodes arbitrary blocks as LZX, and gives others to the encoder: what comes out decodes to them again.

#include "Require.h"

#include "kvx/cabinet/lzx/LzxDecoder.h"
#include "kvx/cabinet/lzx/LzxEncoder.h"

#include <algorithm>
#include <vector>

namespace
{
using namespace kvx::cabinet;
using Bytes = std::span<std::uint8_t const>;

/// Frames of 32,768 bytes, in pieces of the input of the length that two bytes before say. In full frames mistakes show
/// only where the input lasts so long, so the last one may be as short as a byte says.
void DecodeBlocks(unsigned windowBits, std::size_t lastSize, Bytes input)
{
    auto const decoder = MakeLzxDecoder(windowBits, std::pmr::get_default_resource());
    std::vector<std::uint8_t> frame(BLOCK_SIZE);
    bool bGood = true;
    while (bGood && input.size() > 2)
    {
        std::size_t const size = std::min<std::size_t>(input[0] | input[1] << 8, input.size() - 2);
        Bytes const block = input.subspan(2, size);
        input = input.subspan(2 + size);
        bGood = decoder->Decode(block, std::span(frame).first(input.size() > 2 ? BLOCK_SIZE : lastSize));
    }
}

class DecodingSink : public FolderEncoder::Sink
{
public:
    DecodingSink(unsigned windowBits, Bytes expected)
        : m_decoder(MakeLzxDecoder(windowBits, std::pmr::get_default_resource())), m_expected(expected)
    {
    }
    void Put(Bytes data, std::size_t uncompressedSize) override
    {
        std::vector<std::uint8_t> frame(uncompressedSize);
        Require(data.size() <= MAX_COMPRESSED_BLOCK && m_decoder->Decode(data, frame) &&
                std::ranges::equal(frame, m_expected.first(uncompressedSize)));
        m_expected = m_expected.subspan(uncompressedSize);
    }
    bool IsDone() const { return m_expected.empty(); }

private:
    std::unique_ptr<FolderDecoder> m_decoder;
    Bytes m_expected;
};

void RoundTrip(unsigned windowBits, Level level, bool bTranslate, Bytes input)
{
    DecodingSink sink(windowBits, input);
    auto const encoder = MakeLzxEncoder(windowBits, level, bTranslate, std::pmr::get_default_resource());
    while (!input.empty())
    {
        Bytes const block = input.first(std::min(input.size(), BLOCK_SIZE));
        input = input.subspan(block.size());
        encoder->Encode(block, sink);
    }
    encoder->Finish(sink);
    Require(sink.IsDone());
}
} // namespace

// A byte chooses: decoding or a round trip, the window, and of the encoder the level and the translation. Then a byte
// for the decoder's last frame, or one that says how often the encoder's input is repeated.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    if (size < 2)
    {
        return 0;
    }
    Bytes const input(data + 2, size - 2);
    unsigned const windowBits = 15 + (data[0] >> 1 & 7) % 7;
    if (data[0] & 1)
    {
        DecodeBlocks(windowBits, std::size_t{1} << data[1] % 16, input);
        return 0;
    }
    std::vector<std::uint8_t> repeated;
    for (unsigned i = 0; i <= data[1] && repeated.size() < 40'000; i++)
    {
        repeated.insert(repeated.end(), input.begin(), input.end());
    }
    RoundTrip(std::min(windowBits, 17u), static_cast<Level>((data[0] >> 4) % 3), data[0] & 128, repeated);
    return 0;
}
