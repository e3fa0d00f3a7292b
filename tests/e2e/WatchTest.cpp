#include "Service.h"

#include "kvx/platform/host.h"

namespace
{
using testing::HasSubstr;
using testing::StartsWith;

constexpr char TIME[] = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}";

int CountLines(std::string const & text, std::string const & end)
{
    int count = 0;
    for (auto at = text.find(end); at != text.npos; at = text.find(end, at + 1))
    {
        ++count;
    }
    return count;
}

/// Reads lines until one holds the text; empty if there is none.
std::string ReadUntil(Process const & process, std::string const & text)
{
    for (std::string line = process.ReadLine(); !line.empty(); line = process.ReadLine())
    {
        if (line.find(text) != line.npos)
        {
            return line;
        }
    }
    return {};
}

TEST(Watch, ShowsEvents)
{
    Service service({"--verbose"});
    std::string const time = TIME;
    Result const ticks = RunKvx({"watch", service.strAddress, "host.tick", "--count", "2"});
    EXPECT_EQ(ticks.nStatus, 0);
    EXPECT_EQ(ticks.strErr, "");
    EXPECT_THAT(ticks.strOut,
                IsLike("host[.]tick number=1 time=" + time + "\nhost[.]tick number=2 time=" + time + "\n"));

    Process both({"watch", service.strAddress, "host.log,host.tick", "--format", "json"});
    EXPECT_NE(ReadUntil(both, "A subscription to host.log,host.tick"), "");
    service.Call({"host.fail", "code=5", "text=\"quoted\\\u00FC\"", "p=50%s"});
    EXPECT_THAT(ReadUntil(both, "host.fail"),
                IsLike(R"([{]"event":"host.log","params":[{]"text":"host.fail .*p=50%s.*\\"quoted\\\\.*",)"
                       R"("time":")" +
                       time + R"([.][0-9]{3}","type":"W"[}],"rowsets":\[\][}])"));
    EXPECT_THAT(ReadUntil(both, "host.tick\""), IsLike(R"([{]"event":"host.tick","params":[{]"number":"[0-9]+",)"
                                                       R"("time":")" +
                                                       time + R"("[}],"rowsets":\[\][}])"));
    EXPECT_EQ(service.Stop(), 0);
    EXPECT_TRUE(Becomes([&] { return both.PeekErr() == service.strAddress + " lost: trying to connect again\n"; }));
    both.Interrupt();
    EXPECT_EQ(both.Wait(), 0);
}

TEST(Watch, SaysWhyItCantSubscribe)
{
    Service service;
    struct Case
    {
        std::string connection;
        std::string events;
        std::string error;
    };
    for (Case const & wrong :
         {Case{service.strAddress, "host.tock", "error 87: There is no event 'host.tock'"},
          Case{service.strAddress, ",host.tick", "error 87: "}, Case{service.strAddress, "", "error 87: "},
          Case{"tcp:127.0.0.1:1", "a", "error 1243: "}, Case{"nt_pipe:kvx-e2e-none", "a", "error 2250: "},
          Case{"inproc:example_greeter@greeter", "a", "error 87: Not a connection: "}})
    {
        Result const result = RunKvx({"watch", wrong.connection, wrong.events});
        EXPECT_EQ(result.nStatus, 1) << wrong.connection << wrong.events;
        EXPECT_EQ(result.strOut, "");
        EXPECT_THAT(result.strErr, StartsWith(wrong.error));
    }
    // Nobody can subscribe but over a connection, and that one is then taken.
    EXPECT_EQ(RunKvx({"call", "inproc", "host.subscribe", "events=host.tick"}).strErr,
              "error 87: Connection required\n");
    EXPECT_EQ(service.Call({"host.subscribe", "events=host.tick,host.log"}).rowSets.at(0).columns, Strings{"handle"});
    EXPECT_EQ(service.Stop(), 0);
}

TEST(Watch, SurvivesRestarts)
{
    OwnRegistry const registry;
    std::string const name = "kvx-e2e-" + std::to_string(GetCurrentProcessId()) + "-watched";
    Strings const roads{"nt_pipe:" + name, "9x_pipe:" + name, "local_apipe:" + name + "a"};
    auto service = std::make_unique<Service>(Strings{"--verbose"}, roads);
    std::vector<std::unique_ptr<Process>> watches;
    for (std::string const & road : roads)
    {
        for (int i = 0; i < 3; ++i)
        {
            watches.push_back(std::make_unique<Process>(Strings{"watch", road, "host.log"}));
            EXPECT_NE(ReadUntil(*watches.back(), "A subscription"), "");
        }
    }
    constexpr int RESTARTS = 6;
    for (int i = 1; i <= RESTARTS; ++i)
    {
        bool const bKilled = i % 2 != 0;
        EXPECT_EQ((bKilled ? service->process.Kill() : service->Stop()) != 0, bKilled);
        service = std::make_unique<Service>(Strings{"--verbose"}, roads);
        for (auto const & watch : watches)
        {
            EXPECT_TRUE(Becomes([&] { return CountLines(watch->PeekErr(), " back\n") == i; })) << watch->PeekErr();
        }
        EXPECT_EQ(RunKvx({"call", roads[0], "host.echo", "round=" + std::to_string(i)}).nStatus, 0);
        for (auto const & watch : watches)
        {
            EXPECT_THAT(ReadUntil(*watch, "round="), HasSubstr("round=" + std::to_string(i)));
        }
    }
    for (auto const & watch : watches)
    {
        watch->Terminate();
        EXPECT_EQ(watch->Wait(), 0);
        EXPECT_EQ(CountLines(watch->strErr, "\n"), 2 * RESTARTS); // once lost and once back for each
    }
    EXPECT_EQ(service->Stop(), 0);
}
} // namespace
