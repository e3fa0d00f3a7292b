#include "MemoryHost.h"
#include "tests/support/OneHost.h"
#include "tests/support/TestFolder.h"

namespace
{
class CabInterop : public TestFolder
{
protected:
    /// Has a program take the host's first cabinet apart in a folder of its own. What it has got there; "*" is its
    /// whole command where it failed.
    std::map<std::string, std::string> Unpack(MemoryHost const & host, std::string const & program)
    {
        std::map<std::string, std::string> found;
        for (auto const & [name, data] : host.files)
        {
            if (name.ends_with(".cab"))
            {
                Put(name, data);
            }
        }
        std::filesystem::remove_all(Host("out"));
        std::filesystem::create_directory(Host("out"));
        std::string const command = "cd " + Host("out") + " && " + program + " > ../log 2>&1 < /dev/null";
        if (std::system(command.c_str()) != 0)
        {
            found["*"] = command + "\n" + Get("log");
        }
        for (auto const & entry : std::filesystem::recursive_directory_iterator(Host("out")))
        {
            if (std::string const name = entry.path().lexically_relative(Host("out")).string(); entry.is_regular_file())
            {
                found[name] = Get("out/" + name);
            }
        }
        return found;
    }
};
} // namespace

TEST_F(CabInterop, OtherProgramsReadWhatIsWritten)
{
    KVX_LINUX_ALONE("there are the other programs", "2026-11-22");
    std::map<std::string, std::string> sources{{"a", "hello"}, {"empty", ""}, {"z", MakeData(100000, 2)}};
    sources["\xC3\xA4\xE2\x82\xAC.txt"] = MakeData(200000, 1);
    sources["sub\\file"] = MakeData(32768, 3);
    // What comes again about as far away as the smallest window reaches.
    std::string distant;
    for (std::uint32_t state = 1; distant.size() < 32768; distant += static_cast<char>(state >> 24))
    {
        state = state * 1664525 + 1013904223;
    }
    for (std::size_t const distance : {32764, 32765})
    {
        sources["far" + std::to_string(distance)] = distant.substr(0, distance) + distant.substr(0, 5000);
    }
    for (USHORT const type :
         {tcompTYPE_NONE, tcompTYPE_MSZIP, TCOMPfromLZXWindow(15), TCOMPfromLZXWindow(18), TCOMPfromLZXWindow(21)})
    {
        for (auto const & [size, threshold] : std::vector<std::pair<ULONG, ULONG>>{
                 {0, 0x7FFFFFFF}, {0, 0}, {80000, 0x7FFFFFFF}, {30001, 5000}, {5000, 0}})
        {
            MemoryHost host;
            ERF erf{};
            host.files = sources;
            CCAB ccab = MakeCcab(size, threshold);
            ccab.cbReserveCFHeader = size == 0 ? 20 : 0;
            auto const writer = host.Create(erf, ccab);
            for (auto const & [name, data] : sources)
            {
                host.attributes = name[0] < 0 ? 0xA0 : 0x20;
                ASSERT_TRUE(host.Add(*writer, name, type)) << erf.erfOper;
            }
            ASSERT_TRUE(MemoryHost::Flush(*writer)) << erf.erfOper;
            std::map<std::string, std::string> expected = sources;
            expected["sub/file"] = expected.extract("sub\\file").mapped();
            std::vector<std::string> programs{"cabextract -q", "7z x"};
            if (size == 0) // the others don't go from one cabinet to the next
            {
                programs.insert(programs.end(), {"bsdtar -xf", "gcab -x"});
            }
            for (std::string const & program : programs)
            {
                auto found = Unpack(host, program + " ../1.cab");
                EXPECT_TRUE(found == expected) << program << ' ' << type << ' ' << size << found["*"];
            }
        }
    }
}
