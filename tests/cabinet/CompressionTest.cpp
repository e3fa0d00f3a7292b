#include "MemoryHost.h"
#include "ReadSet.h"

#include "kvx/cabinet/CabSpool.h"
#include "kvx/threads/ThreadPool.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <random>

using kvx::cabinet::CabCompression;
using testing::ElementsAre;

namespace
{
constexpr USHORT LZX = TCOMPfromLZXWindow(15);

struct Added
{
    std::string name;
    std::string data;
    USHORT type = tcompTYPE_MSZIP;
};

/// Adds all of it and flushes. False where that fails.
bool WriteAll(MemoryHost & host, ERF & erf, CCAB const & ccab, std::vector<Added> const & all, unsigned jobs = 1)
{
    for (Added const & added : all)
    {
        host.files[added.name] = added.data;
    }
    auto const writer = host.Create(erf, ccab);
    if (!writer)
    {
        return false;
    }
    writer->SetOptions({kvx::cabinet::Level::Fast, true, jobs});
    bool const bAdded =
        std::ranges::all_of(all, [&](Added const & added) { return host.Add(*writer, added.name, added.type); });
    bool const bFlushed = MemoryHost::Flush(*writer);
    EXPECT_LE(bFlushed, bAdded); // after a failure nothing goes
    host.failing = 0;            // what the end calls isn't told
    return bFlushed;
}

/// What is left: no handles, no memory, no temporary files.
void ExpectClean(MemoryHost const & host)
{
    EXPECT_TRUE(host.handles.empty());
    EXPECT_EQ(MemoryHost::sm_nBlocks, 0);
    EXPECT_FALSE(host.files.lower_bound("temporary") != host.files.lower_bound("temporaryz"));
}

SetReader ReadBack(MemoryHost const & host, std::vector<Added> const & all)
{
    SetReader set(host.files, "1.cab");
    EXPECT_EQ(set.files.size(), all.size());
    for (Added const & added : all)
    {
        EXPECT_TRUE(set.Get(added.name) == added.data) << added.name;
    }
    return set;
}

std::string MakeNoise(unsigned size)
{
    std::mt19937 random(size);
    std::string noise(size, '\0');
    std::ranges::generate(noise, [&] { return static_cast<char>(random()); });
    return noise;
}

std::vector<Added> MakeMany(USHORT type, int count, unsigned step)
{
    std::vector<Added> all;
    for (int i = 0; i < count; ++i)
    {
        all.push_back({"file " + std::to_string(i), MakeData(i * step % 150000, static_cast<unsigned>(i)), type});
    }
    return all;
}
} // namespace

TEST(CabCompression, FoldersHeadersAndCalls)
{
    MemoryHost host;
    ERF erf{};
    host.files = {{"a", "hello"}, {"b", std::string(40000, 'b')}, {"c", ""}};
    auto writer = host.Create(erf, MakeCcab(0, 0x7FFFFFFF, 6, 255, 7));
    host.attributes = 0xFFFF;
    EXPECT_TRUE(host.Add(*writer, "a", tcompTYPE_NONE));
    host.attributes = 0x21;
    EXPECT_TRUE(host.Add(*writer, "b", tcompTYPE_NONE, TRUE));
    for (int i = 0; i < 2; ++i)
    {
        EXPECT_TRUE(writer->FlushFolder(nullptr, MemoryHost::Status));
    }
    EXPECT_TRUE(host.Add(*writer, "c", tcompTYPE_MSZIP) && MemoryHost::Flush(*writer));
    std::size_t const size = 36 + 4 + 6 + 8 + 255 + 3 * 18 + 2 * (8 + 7) + 40005;
    EXPECT_THAT(host.events,
                ElementsAre("status 0: 32768, 32768", "status 0: 7237, 7237", "1.cab has a 5", "1.cab has b 40000",
                            "status 1: 40005, 40005", "1.cab has c 0", "status 1: 0, 0",
                            "status 2: " + std::to_string(size) + ", " + std::to_string(size)));
    SetReader const set(host.files, "1.cab");
    EXPECT_THAT(set.sizes, ElementsAre(size));
    EXPECT_THAT(set.numbers, ElementsAre(0));
    EXPECT_EQ(set.folders.size(), 1u); // an empty file needs none
    EXPECT_EQ(set.files.at("a").attributes, 0xE7);
    EXPECT_EQ(set.files.at("b").attributes, 0x61);
    EXPECT_EQ(set.Get("a") + set.Get("b") + set.Get("c"), "hello" + host.files["b"]);

    // Nothing more: nothing happens. Another file begins another cabinet, which knows nothing of this one.
    host.events.clear();
    EXPECT_TRUE(MemoryHost::Flush(*writer));
    EXPECT_TRUE(host.events.empty());
    EXPECT_TRUE(host.Add(*writer, "b", LZX) && MemoryHost::Flush(*writer));
    SetReader const other(host.files, "2.cab");
    EXPECT_THAT(other.flags, ElementsAre(4));
    EXPECT_EQ(other.Get("b"), host.files["b"]);
    writer.reset();
    ExpectClean(host);
}

TEST(CabCompression, EmptyFilesInFrontShareTheNextFolder)
{
    MemoryHost host;
    ERF erf{};
    std::vector<Added> const all{{"a", "", LZX}, {"b", ""}, {"c", "hello", tcompTYPE_NONE}, {"d", ""}};
    auto const writer = host.Create(erf, MakeCcab());
    for (Added const & added : all)
    {
        host.files[added.name] = added.data;
        EXPECT_TRUE(host.Add(*writer, added.name, added.type) && writer->FlushFolder(nullptr, nullptr));
    }
    EXPECT_TRUE(MemoryHost::Flush(*writer));
    EXPECT_EQ(ReadBack(host, all).folders.size(), 1u);
}

TEST(CabCompression, SetsAreFilledAndNameTheirNeighbours)
{
    for (USHORT const type : {tcompTYPE_NONE, tcompTYPE_MSZIP, LZX})
    {
        MemoryHost host;
        ERF erf{};
        std::string const noise = MakeNoise(50000);
        std::vector<Added> const all{{"a", "hello", type}, {"b", noise, type}, {"c", noise.substr(1, 9000), type}};
        CCAB const ccab = MakeCcab(type == tcompTYPE_NONE ? 12345 : 11111, 0x7FFFFFFF, 0, 0, 1);
        ASSERT_TRUE(WriteAll(host, erf, ccab, all)) << erf.erfOper;
        SetReader const set = ReadBack(host, all);
        std::size_t const count = set.sizes.size();
        ASSERT_GE(count, 4u);
        for (std::size_t i = 0; i < count; ++i)
        {
            EXPECT_LE(set.sizes[i], ccab.cb);
            EXPECT_GE(set.sizes[i] + (i + 1 < count ? 2 : ccab.cb), ccab.cb);
            EXPECT_EQ(set.numbers[i], static_cast<int>(i));
            EXPECT_EQ(set.flags[i] & 3, (i > 0 ? 1 : 0) | (i + 1 < count ? 2 : 0));
        }
        // What stands in front is the cabinet where the file begins that comes from there.
        EXPECT_THAT(set.names[2], ElementsAre("1.cab", "disk 1", "4.cab", "disk 4"));
        EXPECT_THAT(host.events, testing::IsSupersetOf({"2.cab goes on with b 50000", "3.cab goes on with b 50000"}));
        EXPECT_NEAR(host.previousSize, ccab.cb, 300);
        ExpectClean(host);
    }
}

TEST(CabCompression, JobsChangeNeitherBytesNorCalls)
{
    for (USHORT const type : {tcompTYPE_NONE, tcompTYPE_MSZIP, LZX})
    {
        for (auto const & [size, threshold] :
             std::vector<std::pair<ULONG, ULONG>>{{0, 50000}, {60000, 9000}, {9000, 0}})
        {
            std::vector<Added> all = MakeMany(type, type == LZX ? 12 : 25, 29989);
            all[5].type = tcompTYPE_MSZIP;
            std::map<std::string, std::string> files;
            std::vector<std::string> events;
            for (unsigned const jobs : {1U, 2U, 5U})
            {
                MemoryHost host;
                ERF erf{};
                ASSERT_TRUE(WriteAll(host, erf, MakeCcab(size, threshold), all, jobs)) << erf.erfOper;
                ReadBack(host, all);
                ExpectClean(host);
                EXPECT_TRUE(jobs == 1 || (host.files == files && host.events == events)) << type << ' ' << size;
                files = host.files;
                events = host.events;
            }
        }
    }
}

TEST(CabCompression, KilledThreadsHoldUpNothing)
{
    for (int round = 0; round < 8; ++round)
    {
        USHORT const type = round % 2 ? LZX : USHORT{tcompTYPE_MSZIP};
        MemoryHost host;
        ERF erf{};
        std::vector<Added> const all = MakeMany(type, 20, 29989);
        auto writer = host.Create(erf, MakeCcab());
        writer->SetOptions({kvx::cabinet::Level::Default, true, 4});
        bool bDone = true;
        for (Added const & added : all)
        {
            host.files[added.name] = added.data;
            bDone = host.Add(*writer, added.name, type) && writer->FlushFolder(nullptr, nullptr) && bDone;
        }
        CThreadPool::TerminateAllThreads(0);
        bDone = (round % 4 > 1 || MemoryHost::Flush(*writer)) && bDone;
        writer.reset();
        EXPECT_EQ(erf.erfOper, bDone ? FCIERR_NONE : FCIERR_MCI_FAIL);
        ExpectClean(host);
        if (bDone && round % 4 < 2)
        {
            ReadBack(host, all);
        }
    }
}

TEST(CabCompression, ACallThatFailsEndsIt)
{
    std::map<std::string, int> const errors{{"alloc", FCIERR_ALLOC_FAIL},     {"getTempFile", FCIERR_TEMP_FILE},
                                            {"getOpenInfo", FCIERR_OPEN_SRC}, {"filePlaced", FCIERR_USER_ABORT},
                                            {"status", FCIERR_USER_ABORT},    {"getNextCabinet", FCIERR_USER_ABORT}};
    for (unsigned const jobs : {1U, 3U})
    {
        std::map<std::string, int> seen;
        bool bDone = false;
        for (int call = 1; !bDone; ++call)
        {
            MemoryHost host;
            ERF erf{};
            host.failing = call;
            host.sm_pCurrent = &host;
            bDone = WriteAll(host, erf, MakeCcab(20000),
                             {{"a", MakeData(40000, 1)}, {"b", MakeData(70000, 2), LZX}, {"c", "c"}}, jobs);
            host.sm_pCurrent = nullptr;
            ExpectClean(host);
            EXPECT_EQ(bDone, host.failed.empty()) << host.failed;
            EXPECT_EQ(erf.fError != 0, !bDone);
            if (bDone)
            {
                continue;
            }
            seen[host.failed]++;
            auto const expected = errors.find(host.failed);
            EXPECT_TRUE(expected == errors.end() || erf.erfOper == expected->second) << host.failed << erf.erfOper;
            bool const bNumbered = expected == errors.end() || host.failed == "getOpenInfo";
            EXPECT_EQ(erf.erfType, bNumbered ? 77 : 0) << host.failed;
        }
        EXPECT_EQ(seen.size(), 11u); // every kind of call
        EXPECT_GE(seen["getNextCabinet"], 1);
    }
}

TEST(CabCompression, WhatCannotBeIsRefused)
{
    auto const refused = [](CCAB const & ccab, std::vector<Added> const & all)
    {
        MemoryHost host;
        ERF erf{};
        EXPECT_FALSE(WriteAll(host, erf, ccab, all));
        ExpectClean(host);
        return erf;
    };
    for (CCAB const & ccab : {MakeCcab(0, 0, 60001), MakeCcab(0, 0, 0, 256), MakeCcab(0, 0, 0, 0, 256)})
    {
        EXPECT_EQ(refused(ccab, {}).erfOper, FCIERR_MCI_FAIL);
    }
    for (USHORT const type : {tcompTYPE_QUANTUM, TCOMPfromLZXWindow(14), TCOMPfromLZXWindow(22), tcompBAD})
    {
        EXPECT_EQ(refused(MakeCcab(), {{"a", "", type}}).erfType, 15);
    }
    EXPECT_EQ(refused(MakeCcab(), {{std::string(256, 'n'), ""}}).erfOper, FCIERR_CAB_FORMAT_LIMIT);
    for (ULONG size = 1; size < 92; ++size) // never a loop
    {
        EXPECT_EQ(refused(MakeCcab(size), {{"a", "hello"}}).erfOper, FCIERR_CAB_FORMAT_LIMIT);
    }
    CCAB ccab = MakeCcab();
    ccab.fFailOnIncompressible = 1;
    EXPECT_EQ(refused(ccab, {{"a", MakeNoise(32768)}}).erfOper, FCIERR_MCI_FAIL);

    static char const * s_pszNext = nullptr;
    for (char const * const name : {"", "1.CAB"})
    {
        MemoryHost host;
        ERF erf{};
        host.files["a"] = "hello";
        auto const writer = host.Create(erf, MakeCcab());
        EXPECT_TRUE(host.Add(*writer, "a", tcompTYPE_NONE));
        s_pszNext = name;
        auto const next = [](CCAB * to, ULONG, void *) -> BOOL { return std::strcpy(to->szCab, s_pszNext) != nullptr; };
        EXPECT_TRUE(!writer->FlushCabinet(TRUE, next, nullptr) && erf.erfOper == FCIERR_MCI_FAIL);
    }
}

TEST(CabCompression, ThousandsOfFilesInSmallCabinets)
{
    std::vector<Added> all;
    for (int i = 0; i < 70000; ++i)
    {
        all.push_back({std::to_string(i) + " with a name that is longer than what is in it", i % 3 ? "xyz" : ""});
    }
    for (ULONG const size : {0U, 1000000U})
    {
        MemoryHost host;
        ERF erf{};
        ASSERT_TRUE(WriteAll(host, erf, MakeCcab(size), all)) << erf.erfOper;
        SetReader const set = ReadBack(host, all);
        EXPECT_EQ(set.sizes.size(), size == 0 ? 2u : 5u);
    }
}

TEST(CabSpool, GoesOnInFurtherFilesAndDeletesThem)
{
    MemoryHost host;
    kvx::cabinet::CallbackHost const callbacks{host.GetCallbacks(), &host};
    {
        kvx::cabinet::CabSpool spool(callbacks, std::pmr::get_default_resource(), 10);
        std::string const data = "0123456789abcdefghij";
        std::string back;
        for (std::size_t piece : {4U, 4U, 4U, 20U, 1U, 10U})
        {
            spool.Write({reinterpret_cast<std::uint8_t const *>(data.data()), piece});
            std::string half(piece / 2 + 1, '#');
            spool.Read({reinterpret_cast<std::uint8_t *>(half.data()), piece / 2});
            back += half.substr(0, piece / 2);
        }
        EXPECT_EQ(back, "012301230123012345678");
        EXPECT_EQ(host.files.size(), 3u); // of five
    }
    ExpectClean(host);
}
