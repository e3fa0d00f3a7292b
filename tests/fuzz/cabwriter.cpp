// Writes cabinets as bytes tell: sizes, reserves, jobs, which call fails, and then a row of files and flushes. What was
// written without a failure has to be there again when it is read.

#include "../cabinet/MemoryHost.h"
#include "../cabinet/ReadSet.h"
#include "Require.h"

namespace
{
struct Instructions
{
    std::uint8_t const * data;
    std::size_t size;

    unsigned Get(int bytes)
    {
        unsigned value = 0;
        for (; bytes > 0 && size > 0; --bytes, --size)
        {
            value = value << 8 | *data++;
        }
        return value;
    }
};
} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const * data, std::size_t size)
{
    Instructions from{data, size};
    MemoryHost host;
    ERF erf{};
    unsigned const kind = from.Get(1);
    CCAB ccab = MakeCcab(kind & 1 ? from.Get(2) : 0, kind & 2 ? from.Get(2) : 0x7FFFFFFF);
    if (kind & 4)
    {
        ccab = MakeCcab(ccab.cb, ccab.cbFolderThresh, from.Get(2), from.Get(1), from.Get(1));
    }
    host.nextMax = kind & 8 ? from.Get(2) : 0;
    ccab.fFailOnIncompressible = kind & 32;
    host.failing = kind & 16 ? static_cast<int>(from.Get(1)) + 1 : 0;
    MemoryHost::sm_pCurrent = &host;
    std::map<std::string, std::string> sources;
    bool bGood = true;
    {
        auto const writer = host.Create(erf, ccab);
        bGood = writer != nullptr;
        if (writer)
        {
            writer->SetOptions({kvx::cabinet::Level::Fast, true, 1 + kind / 64});
        }
        std::size_t total = 0;
        while (writer && from.size > 0 && total < 400000)
        {
            unsigned const action = from.Get(1);
            int result = 1;
            if (action < 8)
            {
                result = writer->FlushFolder(MemoryHost::GetNextCabinet, MemoryHost::Status);
            }
            else if (action < 12)
            {
                result = MemoryHost::Flush(*writer, TRUE);
            }
            else
            {
                USHORT constexpr TYPES[] = {tcompTYPE_NONE, tcompTYPE_MSZIP, TCOMPfromLZXWindow(15), tcompBAD};
                unsigned const length = action & 16 ? from.Get(1) : from.Get(2) * (action & 32 ? 3 : 1);
                std::string const name =
                    std::to_string(sources.size()) + std::string(action & 64 ? from.Get(1) : 1, 'n');
                std::string & file = host.files[name] = MakeData(length, action);
                if (action & 128)
                {
                    std::fill(file.begin(), file.end(), 'x');
                }
                sources[name] = file;
                total += length;
                result = host.Add(*writer, name, TYPES[action % 32 == 31 ? 3 : action % 3]);
            }
            Require(bGood || !result); // nothing goes after a failure
            bGood = bGood && result;
        }
        bGood = writer && MemoryHost::Flush(*writer) && bGood;
        host.failing = 0;
    }
    MemoryHost::sm_pCurrent = nullptr;
    Require(bGood == (erf.fError == 0) && (host.failed.empty() || !bGood));
    Require(host.handles.empty() && MemoryHost::sm_nBlocks == 0);
    Require(host.files.lower_bound("temporary") == host.files.lower_bound("temporaryz"));
    if (bGood && !sources.empty() && host.files.contains("1.cab"))
    {
        for (std::string const & event : host.events)
        {
            if (event.starts_with("next ") && !host.files.contains(event.substr(5)))
            {
                return 0; // nothing was added behind the last flush that wanted a next one
            }
        }
        SetReader const set(host.files, "1.cab");
        for (auto const & [name, content] : sources)
        {
            Require(set.Get(name) == content);
        }
        for (std::size_t i = 0; i < set.sizes.size(); ++i)
        {
            Require(set.sizes[i] - 1 <= (i > 0 && host.nextMax ? host.nextMax : ccab.cb) - 1); // 0 is no bound
        }
    }
    return 0;
}
