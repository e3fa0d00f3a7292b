/// LZX in memory, with the largest window: sizes against those of one DEFLATE stream at zlib's best level, and speeds
/// against zlib's. --corpus=FILE chooses the data, for example those of scripts/corpus; without it they are this
/// program.

#include "Harness.h"

#include "kvx/cabinet/lzx/LzxDecoder.h"
#include "kvx/cabinet/lzx/LzxEncoder.h"

#include <zlib.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <utility>

namespace
{
using namespace bench;
using namespace kvx::cabinet;
using Bytes = std::vector<std::uint8_t>;

constexpr unsigned WINDOW_BITS = 21;

struct Folder : FolderEncoder::Sink
{
    std::vector<Bytes> blocks;
    std::size_t nSize = 0;

    void Put(std::span<std::uint8_t const> data, std::size_t) override
    {
        blocks.emplace_back(data.begin(), data.end());
        nSize += data.size();
    }
};

Folder Compress(Bytes const & data, Level level)
{
    Folder folder;
    auto const encoder = MakeLzxEncoder(WINDOW_BITS, level, true, std::pmr::get_default_resource());
    for (std::span<std::uint8_t const> rest(data); !rest.empty();)
    {
        std::span const block = rest.first(std::min(rest.size(), BLOCK_SIZE));
        encoder->Encode(block, folder);
        rest = rest.subspan(block.size());
    }
    encoder->Finish(folder);
    return folder;
}

void Expand(Folder const & folder, Bytes & data)
{
    auto const decoder = MakeLzxDecoder(WINDOW_BITS, std::pmr::get_default_resource());
    std::span<std::uint8_t> rest(data);
    for (Bytes const & block : folder.blocks)
    {
        std::span const out = rest.first(std::min(rest.size(), BLOCK_SIZE));
        if (!decoder->Decode(block, out))
        {
            Fail("the decoder refuses what the encoder wrote");
        }
        rest = rest.subspan(out.size());
    }
}

/// Nanoseconds of 1,024 bytes.
template <class CALL>
double PerKiB(std::size_t size, CALL const & call)
{
    auto const start = Clock::now();
    call();
    return 1024 * Since(start) / static_cast<double>(size);
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    std::ifstream file(options.Get("corpus", argv[0]), std::ios::binary);
    Bytes data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (data.empty())
    {
        Fail("no data");
    }
    if (options.IsBrief())
    {
        data.resize(std::min(data.size(), std::size_t{1} << 18));
    }

    Bytes deflated(compressBound(data.size()));
    uLongf deflatedSize = 0;
    auto const deflate = [&]
    {
        deflatedSize = deflated.size();
        compress2(deflated.data(), &deflatedSize, data.data(), data.size(), 9);
    };
    struct
    {
        Level level;
        char const * name;
        double sizeTarget; // by zlib's size
        double rateTarget; // by zlib's rate
    } const levels[] = {{Level::Fast, "fast", 0.709 * 1.08, 2.5},
                        {Level::Default, "default", 0.709, 0.8},
                        {Level::Best, "best", 0.709, 0}};
    Folder folder;
    for (auto const & [level, name, sizeTarget, rateTarget] : levels)
    {
        std::string const title = std::string("LZX, ") + name + ": ";
        if (!options.Wants(title))
        {
            continue;
        }
        Row const row{title + "compression, zlib's rate", 0, 0, Target::AtLeast, rateTarget};
        Compare(
            row, options.GetNumber("rounds", 1),
            [&] { return PerKiB(data.size(), [&] { folder = Compress(data, level); }); },
            [&] { return PerKiB(data.size(), deflate); });
        PrintValue(title + "size", 1000 * static_cast<double>(folder.nSize) / static_cast<double>(deflatedSize),
                   1000 * sizeTarget, "thousandths of zlib's");
    }
    if (!options.Wants("LZX: expansion"))
    {
        return 0;
    }
    if (folder.blocks.empty() || deflatedSize == 0)
    {
        folder = Compress(data, Level::Default);
        deflate();
    }
    Bytes expanded(data.size());
    Bytes inflated(data.size());
    Compare(
        {"LZX: expansion, zlib's rate", 0, 0, Target::AtLeast, 1}, options.IsBrief() ? 2 : 10,
        [&] { return PerKiB(data.size(), [&] { Expand(folder, expanded); }); },
        [&]
        {
            return PerKiB(data.size(),
                          [&]
                          {
                              uLongf size = inflated.size();
                              uncompress(inflated.data(), &size, deflated.data(), deflatedSize);
                          });
        });
    if (expanded != data || inflated != data)
    {
        Fail("what was expanded isn't what was compressed");
    }
    return 0;
}
