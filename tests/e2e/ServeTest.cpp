#include "Service.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include <unistd.h>

namespace
{
std::string ReadFile(std::string const & path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Serve, SaysWhyItCantListen)
{
    Service first;
    Result result = RunKvx({"serve", first.GetAddress()});
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_EQ(result.strOut, "");
    EXPECT_TRUE(result.strErr.starts_with("error 10048: cannot listen on '" + first.GetAddress())) << result.strErr;
    EXPECT_EQ(first.Call({"host.count"}).nCode, 0); // the one that was there is none the worse
    EXPECT_EQ(first.Stop(), 0);

    for (std::string const bad : {"tcp", "nothing:1", "tcp:127.0.0.1:65536", "tcp:kvx.invalid:0"})
    {
        result = RunKvx({"serve", bad});
        EXPECT_EQ(result.nStatus, 1) << bad;
        EXPECT_NE(result.strErr.find("'" + bad + "'"), std::string::npos) << result.strErr;
    }
    result = RunKvx({"serve", "tcp:127.0.0.1:0", "--log", "/nowhere/at/all.log"});
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_TRUE(result.strErr.starts_with("error 3: ")) << result.strErr;
}

TEST(Serve, TakesThePortOfOneThatHasJustEnded)
{
    Service first;
    RawClient const connected(first.GetPort());
    EXPECT_EQ(first.Call({"host.count"}).nCode, 0);
    EXPECT_EQ(first.Stop(), 0);
    Process second({"serve", first.GetAddress()});
    EXPECT_EQ(second.ReadLine(), "READY " + first.GetAddress());
    second.Signal(SIGTERM);
    EXPECT_EQ(second.Wait(), 0);
}

TEST(Serve, EndsWithClientsOfEveryKind)
{
    for (int const signal : {SIGTERM, SIGINT})
    {
        Service service;
        RawClient const silent(service.GetPort());
        RawClient const shaken(service.GetPort());
        shaken.Send("VJOP");
        EXPECT_EQ(shaken.Receive(4), "VJOP");
        Process waiting({"call", service.GetAddress(), "host.sleep", "ms=600000"});
        Process queued({"bench", service.GetAddress(), "host.sleep", "ms=600000", "--oneway", "--count", "20", "--clients", "2"});
        EXPECT_EQ(queued.Wait(), 0);
        usleep(100000); // for the sleeper to be asleep, which changes nothing but what is tested
        EXPECT_EQ(service.Stop(signal), 0);
        EXPECT_EQ(service.GetProcess().strErr, "");
        EXPECT_EQ(waiting.Wait(), 1);
        EXPECT_TRUE(waiting.strErr.starts_with("error ")) << waiting.strErr;
        EXPECT_TRUE(silent.IsEnded());
        EXPECT_TRUE(shaken.IsEnded());
    }
}

TEST(Serve, ThatIsKilledLeavesNoClientWaiting)
{
    Service service;
    Process waiting({"call", service.GetAddress(), "host.sleep", "ms=600000", "--format", "json"});
    usleep(200000);
    EXPECT_EQ(service.Stop(SIGKILL), -SIGKILL);
    EXPECT_EQ(waiting.Wait(), 1);
    EXPECT_NE(Response(waiting.strOut).nCode, 0);
    EXPECT_TRUE(waiting.strErr.starts_with("error ")) << waiting.strErr;
}

TEST(Serve, ServesBesideManySilentClients)
{
    Service service;
    std::vector<std::unique_ptr<RawClient>> silent;
    for (int i = 0; i < 50; ++i)
    {
        silent.push_back(std::make_unique<RawClient>(service.GetPort()));
        if (i % 2 == 1)
        {
            silent.back()->Send("VJO"); // a tag that never ends
        }
    }
    EXPECT_EQ(service.Call({"host.echo", "a=1", "--timeout", "20000"}).nCode, 0);
    EXPECT_EQ(service.Stop(), 0);
}

TEST(Serve, WritesALog)
{
    std::string const path = testing::TempDir() + "kvx-e2e-" + std::to_string(getpid()) + ".log";
    Service service({"--log", path, "--verbose"});
    service.Call({"host.echo", "a=50%", "text=two\nlines"});
    service.Call({"host.fail", "code=5", "text=denied"});
    EXPECT_TRUE(Becomes([&] { return ReadFile(path).find("denied") != std::string::npos; }));
    EXPECT_EQ(service.Stop(), 0);
    std::string rest = ReadFile(path);
    std::vector<std::string> lines;
    for (auto end = rest.find("\r\n"); end != std::string::npos; end = rest.find("\r\n"))
    {
        lines.push_back(rest.substr(0, end));
        rest.erase(0, end + 2);
    }
    EXPECT_EQ(rest, "");
    std::string const stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3} ";
    EXPECT_THAT(lines, testing::Each(testing::MatchesRegex(stamp + "[(][IWE][)] [^\r\n]*")));
    for (std::string const line :
         {"[(]I[)] Started listener ''", "[(]I[)] host.echo a=50% text=two.nlines", "[(]W[)] host.fail code=5 text=denied: error 5: denied"})
    {
        EXPECT_THAT(lines, testing::Contains(testing::MatchesRegex(stamp + line)));
    }
    EXPECT_NE(service.GetProcess().strErr.find("(I) host.echo a=50% text=two\\nlines\n"), std::string::npos);
    std::filesystem::remove(path);
}
} // namespace
