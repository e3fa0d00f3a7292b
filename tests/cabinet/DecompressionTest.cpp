#include "MemoryHost.h"
#include "ReaderHost.h"

#include "kvx/cabinet/CabFormat.h"

#include <gmock/gmock.h>

namespace
{
using namespace kvx::cabinet;
using testing::ElementsAre;

/// Files of 40,000 bytes, "0", "1", ..., in cabinets that the writer makes.
std::map<std::string, std::string> MakeCabinets(int files, USHORT type, ULONG maxSize, ULONG threshold = 0x7FFFFFFF)
{
    MemoryHost host;
    host.nextMax = maxSize;
    std::map<std::string, std::string> cabinets;
    ERF erf = {};
    auto const writer = host.Create(erf, MakeCcab(maxSize, threshold));
    for (int i = 0; i < files; i++)
    {
        std::string const name = std::to_string(i);
        host.files[name] = MakeData(40000, static_cast<unsigned>(i));
        EXPECT_TRUE(host.Add(*writer, name, type));
    }
    EXPECT_TRUE(MemoryHost::Flush(*writer));
    for (auto const & [name, data] : host.files)
    {
        if (name.ends_with(".cab"))
        {
            cabinets[name] = data;
        }
    }
    return cabinets;
}

/// One cabinet with stored folders, by hand.
struct HandMade
{
    struct Entry
    {
        std::uint32_t size;
        std::uint32_t offset;
        std::uint16_t folder;
        std::string name;
    };
    std::vector<Entry> files;
    std::uint16_t method = tcompTYPE_NONE;
    std::uint16_t folders = 1;
    std::vector<std::string> blocks; // of each of the folders
    bool isMarked = true;            // by checksums
    std::uint8_t blockReserve = 0;

    std::string Build() const
    {
        std::string cabinet(HEADER_SIZE, 0);
        auto const put = [&](std::size_t at, std::uint32_t value, int bytes)
        {
            for (int i = 0; i < bytes; i++)
            {
                cabinet[at + static_cast<std::size_t>(i)] = static_cast<char>(value >> 8 * i);
            }
        };
        auto const add = [&](std::uint32_t value, int bytes)
        {
            cabinet.append(static_cast<std::size_t>(bytes), 0);
            put(cabinet.size() - static_cast<std::size_t>(bytes), value, bytes);
        };
        cabinet.replace(0, 4, "MSCF");
        put(24, 0x0103, 2);
        put(26, folders, 2);
        put(28, static_cast<std::uint32_t>(files.size()), 2);
        if (blockReserve)
        {
            put(30, FLAG_RESERVE, 2);
            add(0, 3);
            add(blockReserve, 1);
        }
        std::size_t const foldersAt = cabinet.size();
        for (int i = 0; i < folders; i++)
        {
            add(0, 4);
            add(static_cast<std::uint32_t>(blocks.size()), 2);
            add(method, 2);
        }
        put(16, static_cast<std::uint32_t>(cabinet.size()), 4);
        for (Entry const & file : files)
        {
            add(file.size, 4);
            add(file.offset, 4);
            add(file.folder, 2);
            add(0x60005A21, 4);
            add(0x20, 2);
            cabinet += file.name + '\0';
        }
        for (int i = 0; i < folders; i++)
        {
            put(foldersAt + static_cast<std::size_t>(i) * FOLDER_SIZE, static_cast<std::uint32_t>(cabinet.size()), 4);
        }
        for (std::string const & block : blocks)
        {
            std::size_t const at = cabinet.size();
            add(0, 4);
            add(static_cast<std::uint32_t>(block.size()), 2);
            add(static_cast<std::uint32_t>(block.size()), 2);
            cabinet.append(blockReserve, 'r');
            cabinet += block;
            auto const * const bytes = reinterpret_cast<std::uint8_t const *>(cabinet.data()) + at;
            std::size_t const header = 4u + blockReserve;
            if (isMarked)
            {
                put(at, Checksum({bytes + 4, header}, Checksum({bytes + 4 + header, block.size()})), 4);
            }
        }
        put(8, static_cast<std::uint32_t>(cabinet.size()), 4);
        return cabinet;
    }
};

FDIERROR CopyOne(std::string const & cabinet, ReaderHost & host)
{
    host.cabinets["a"] = cabinet;
    return host.Copy({"a"});
}

FDIERROR CopyOne(HandMade const & made)
{
    ReaderHost host;
    return CopyOne(made.Build(), host);
}

HandMade MakeTwo()
{
    HandMade made;
    made.files = {{5, 0, 0, "one"}, {6, 5, 0, "two"}};
    made.blocks = {"first", "second"};
    return made;
}

TEST(Decompression, SetsAreReadAsAWholeAndFromAnyFileThatCanBeReached)
{
    for (USHORT const type : {tcompTYPE_NONE, tcompTYPE_MSZIP, TCOMPfromLZXWindow(15)})
    {
        auto const cabinets = MakeCabinets(12, type, type == tcompTYPE_NONE ? 130000 : 25000);
        ASSERT_GE(cabinets.size(), 3u) << type;
        std::vector<std::string> names;
        for (std::size_t i = 1; i <= cabinets.size(); i++)
        {
            names.push_back(std::to_string(i) + ".cab");
        }
        ReaderHost all;
        all.cabinets = cabinets;
        EXPECT_EQ(all.Copy(names), FDIERROR_NONE);
        ASSERT_EQ(all.extracted.size(), 12u);
        for (auto const & [name, data] : all.extracted)
        {
            EXPECT_EQ(data, MakeData(40000, static_cast<unsigned>(std::stoi(name)))) << name;
        }
        // The last file alone, whose folder began in the first cabinet.
        ReaderHost last;
        last.cabinets = cabinets;
        last.isWanted = [](std::string const & name) { return name == "11"; };
        EXPECT_EQ(last.Copy(names), FDIERROR_NONE);
        EXPECT_EQ(last.extracted["11"], MakeData(40000, 11));
        // Without the cabinets before, the folder's files are only told.
        ReaderHost second;
        second.cabinets = cabinets;
        EXPECT_EQ(second.Copy({"2.cab"}), FDIERROR_NONE);
        for (auto const & [name, data] : second.extracted)
        {
            EXPECT_EQ(data, MakeData(40000, static_cast<unsigned>(std::stoi(name)))) << name;
        }
        EXPECT_THAT(second.events, testing::Contains(testing::StartsWith("partial ")));
    }
}

TEST(Decompression, AFolderThatEndedIsntJoinedWithTheNextCabinets)
{
    MemoryHost writerHost;
    ERF erf = {};
    auto const writer = writerHost.Create(erf, MakeCcab());
    ReaderHost reader;
    std::vector<std::string> names;
    for (int i = 1; i <= 3; i++)
    {
        std::string const name = std::to_string(i);
        writerHost.files[name] = MakeData(1000, static_cast<unsigned>(i));
        EXPECT_TRUE(writerHost.Add(*writer, name, tcompTYPE_NONE));
        EXPECT_TRUE(MemoryHost::Flush(*writer, i < 3));
        names.push_back(name + ".cab");
        reader.cabinets[names.back()] = writerHost.files[names.back()];
    }
    EXPECT_EQ(reader.Copy(names), FDIERROR_NONE);
    for (auto const & [name, data] : reader.extracted)
    {
        EXPECT_EQ(data, MakeData(1000, static_cast<unsigned>(std::stoi(name))));
    }
    EXPECT_EQ(reader.extracted.size(), 3u);
}

TEST(Decompression, QuestionsInTheMiddleOfACopyDontDisturbIt)
{
    ReaderHost host;
    host.cabinets["a"] = MakeTwo().Build();
    host.cabinets["b"] = MakeCabinets(1, tcompTYPE_MSZIP, 0).at("1.cab");
    auto const reader = host.Create();
    int asked = 0;
    host.isWanted = [&](std::string const &)
    {
        FDICABINETINFO info = {};
        std::string name = "b";
        INT_PTR const other = ReaderHost::Open(name.data(), 0, 0);
        asked += reader->IsCabinet(other, &info) && info.setID == 0x1234;
        ReaderHost::Close(other);
        EXPECT_FALSE(reader->Copy("b", "", ReaderHost::Notify, &host));
        return true;
    };
    EXPECT_TRUE(reader->Copy("a", "", ReaderHost::Notify, &host));
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(host.extracted["one"] + host.extracted["two"], "firstsecond");
}

TEST(Decompression, AsksForTheNextCabinetUntilItIsTheRightOne)
{
    auto cabinets = MakeCabinets(4, tcompTYPE_MSZIP, 8000);
    std::string const second = cabinets.at("2.cab");
    auto const ask = [&](std::string const & wrong)
    {
        ReaderHost host;
        host.cabinets = cabinets;
        host.cabinets["2.cab"] = wrong;
        if (wrong.empty())
        {
            host.cabinets.erase("2.cab");
        }
        host.isWanted = [&](std::string const &) { return true; };
        FDIERROR const error = host.Copy({"1.cab"});
        EXPECT_EQ(std::ranges::count(host.events, "next 2.cab after " + std::to_string(error)), 99);
        EXPECT_TRUE(host.open.empty());
        return error;
    };
    EXPECT_EQ(ask(""), FDIERROR_CABINET_NOT_FOUND);
    EXPECT_EQ(ask("something else"), FDIERROR_NOT_A_CABINET);
    EXPECT_EQ(ask(cabinets.at("3.cab")), FDIERROR_WRONG_CABINET);
    std::string other = second;
    other[32] ^= 1; // of another set
    EXPECT_EQ(ask(other), FDIERROR_WRONG_CABINET);
}

TEST(Decompression, EveryCallThatFailsEndsItWithoutLeaks)
{
    auto const cabinets = MakeCabinets(5, TCOMPfromLZXWindow(16), 60000, 90000);
    std::vector<std::string> const names = {"1.cab", "2.cab"};
    int failed = 0;
    for (int failing = 1;; failing++)
    {
        ReaderHost host;
        host.cabinets = cabinets;
        host.failing = failing;
        FDIERROR const error = host.Copy(names);
        EXPECT_TRUE(host.open.empty()) << failing;
        EXPECT_EQ(host.memory, 0u) << failing;
        EXPECT_EQ(host.erf.fError, error != FDIERROR_NONE) << failing;
        failed += error != FDIERROR_NONE;
        if (host.calls < failing)
        {
            break;
        }
    }
    EXPECT_GT(failed, 50);
}

TEST(Decompression, FilesComeInAnyOrderAndEmptyOnesWithoutData)
{
    HandMade made = MakeTwo();
    made.blockReserve = 7;
    made.files = {{6, 5, 0, "two"}, {5, 0, 0, "one"}, {0, 900, 0, "none"}, {11, 0, 0, "both"}};
    ReaderHost host;
    ASSERT_EQ(CopyOne(made.Build(), host), FDIERROR_NONE);
    EXPECT_EQ(host.extracted, (std::map<std::string, std::string>{
                                  {"two", "second"}, {"one", "first"}, {"none", ""}, {"both", "firstsecond"}}));
    EXPECT_THAT(host.events, ElementsAre("cabinet 0, next ", "copy two", "copy one", "copy none", "copy both"));
}

TEST(Decompression, DamageHasItsCode)
{
    EXPECT_EQ(CopyOne(MakeTwo()), FDIERROR_NONE);
    HandMade made = MakeTwo();
    made.files[1].size = 7; // more than there is
    EXPECT_EQ(CopyOne(made), FDIERROR_CORRUPT_CABINET);
    made = MakeTwo();
    made.files[1].folder = 1;
    EXPECT_EQ(CopyOne(made), FDIERROR_CORRUPT_CABINET);
    made = MakeTwo();
    made.files[0].name = std::string(256, 'x');
    EXPECT_EQ(CopyOne(made), FDIERROR_CORRUPT_CABINET);
    made = MakeTwo();
    made.folders = 2000; // that share their blocks
    EXPECT_EQ(CopyOne(made), FDIERROR_CORRUPT_CABINET);
    for (USHORT const method : {tcompTYPE_QUANTUM, TCOMPfromLZXWindow(14), TCOMPfromLZXWindow(22), USHORT{7}})
    {
        made = MakeTwo();
        made.method = method;
        EXPECT_EQ(CopyOne(made), FDIERROR_BAD_COMPR_TYPE) << method;
    }
    std::string const whole = MakeTwo().Build();
    ReaderHost host;
    std::string changed = whole;
    changed.back() ^= 1;
    EXPECT_EQ(CopyOne(changed, host), FDIERROR_CORRUPT_CABINET);
    EXPECT_EQ(host.extracted["one"], "first");
    changed = whole;
    changed[25] = 2;
    EXPECT_EQ(CopyOne(changed, host), FDIERROR_UNKNOWN_CABINET_VERSION);
    changed = whole;
    changed[0] = 'N';
    EXPECT_EQ(CopyOne(changed, host), FDIERROR_NOT_A_CABINET);
    for (std::size_t size = 0; size < whole.size(); size++)
    {
        ReaderHost cut;
        FDIERROR const error = CopyOne(whole.substr(0, size), cut);
        EXPECT_EQ(error, size < HEADER_SIZE ? FDIERROR_NOT_A_CABINET : FDIERROR_CORRUPT_CABINET) << size;
        EXPECT_TRUE(cut.open.empty());
    }
}

TEST(Decompression, ReplayingAFolderWithoutEndIsRefused)
{
    // Zeros that take little, again and again from the begin: each file takes a byte.
    MemoryHost writerHost;
    ERF erf = {};
    auto const writer = writerHost.Create(erf, MakeCcab());
    writerHost.files["zeros"] = std::string(8 << 20, 0);
    ASSERT_TRUE(writerHost.Add(*writer, "zeros", tcompTYPE_MSZIP));
    ASSERT_TRUE(MemoryHost::Flush(*writer));
    std::string const & cabinet = writerHost.files["1.cab"];
    // The one entry becomes many, alternately at the end and at the begin.
    std::size_t const entry = HEADER_SIZE + FOLDER_SIZE;
    std::string many;
    constexpr int FILES = 1000;
    for (int i = 0; i < FILES; i++)
    {
        std::string file = cabinet.substr(entry, FILE_SIZE) + "z" + '\0';
        PutDword(reinterpret_cast<std::uint8_t *>(file.data()), 1);
        PutDword(reinterpret_cast<std::uint8_t *>(file.data()) + 4, i % 2 ? 0 : (8 << 20) - 1);
        many += file;
    }
    std::string hostile = cabinet;
    hostile.replace(entry, FILE_SIZE + 6, many);
    auto * const bytes = reinterpret_cast<std::uint8_t *>(hostile.data());
    PutDword(bytes + 8, static_cast<std::uint32_t>(hostile.size()));
    PutWord(bytes + 28, FILES);
    PutDword(bytes + HEADER_SIZE,
             GetDword(bytes + HEADER_SIZE) + static_cast<std::uint32_t>(many.size() - FILE_SIZE - 6));
    ReaderHost host;
    EXPECT_EQ(CopyOne(hostile, host), FDIERROR_CORRUPT_CABINET);
    EXPECT_LT(host.memoryPeak, 1u << 20);
}
} // namespace
