#include "Service.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace
{
using testing::HasSubstr;
using testing::StartsWith;

std::string ReadFile(std::string const & path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(Serve, SaysWhyItCantListen)
{
    Service first;
    Result result = RunKvx({"serve", first.strAddress});
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_EQ(result.strOut, "");
    EXPECT_THAT(result.strErr, StartsWith("error 10048: cannot listen on '" + first.strAddress));
    EXPECT_EQ(first.Call({"host.count"}).nCode, 0); // the one that was there is none the worse
    EXPECT_EQ(first.Stop(), 0);
    result = RunKvx({"serve", "tcp:kvx.invalid:0"});
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strErr, HasSubstr("'tcp:kvx.invalid:0'"));
    result = RunKvx({"serve", "tcp:127.0.0.1:0", "--log", "/nowhere/at/all.log"});
    EXPECT_EQ(result.nStatus, 1);
    EXPECT_THAT(result.strErr, StartsWith("error 3: "));
}

TEST(Serve, EndsWithClientsOfEveryKind)
{
    for (auto const end : {&Process::Terminate, &Process::Interrupt})
    {
        Service service;
        RawClient const silent(service.nPort);
        RawClient const shaken(service.nPort);
        shaken.Send("VJOP");
        EXPECT_EQ(shaken.Receive(4), "VJOP");
        Process waiting({"call", service.strAddress, "host.sleep", "ms=600000"});
        EXPECT_EQ(RunKvx({"bench", service.strAddress, "host.sleep", "ms=600000", "--oneway", "--count", "20",
                          "--clients", "2"})
                      .nStatus,
                  0);
        std::this_thread::sleep_for(std::chrono::milliseconds(100)); // for the sleeper to be asleep
        (service.process.*end)();
        EXPECT_EQ(service.process.Wait(), 0);
        EXPECT_EQ(service.process.strErr, "");
        EXPECT_EQ(waiting.Wait(), 1);
        EXPECT_THAT(waiting.strErr, StartsWith("error "));
        EXPECT_TRUE(silent.IsEnded());
        EXPECT_TRUE(shaken.IsEnded());
    }
}

TEST(Serve, WritesALog)
{
    std::string const folder = host::MakeFolder("kvx-e2e");
    std::string const path = folder + "/a.log";
    Service service({"--log", path, "--verbose"});
    service.Call({"host.echo", "a=50%", "text=two\nlines"});
    service.Call({"host.fail", "code=5", "text=denied"});
    EXPECT_TRUE(Becomes([&] { return ReadFile(path).find("denied") != std::string::npos; }));
    EXPECT_EQ(service.Stop(), 0);
    std::string const stamp = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3} ";
    std::string const log = ReadFile(path);
    EXPECT_THAT(log, IsLike("(" + stamp + "[(][IWE][)] [^\r\n]*\r\n)+"));
    for (std::string const line : {"[(]I[)] Started listener ''", "[(]I[)] host.echo a=50% text=two\\\\nlines",
                                   "[(]W[)] host.fail code=5 text=denied: error 5: denied"})
    {
        EXPECT_THAT(log, HasLike("(^|\n)" + stamp + line + "\r\n"));
    }
    EXPECT_THAT(service.process.strErr, HasSubstr("(I) host.echo a=50% text=two\\nlines\n"));
    std::filesystem::remove_all(folder);
}
} // namespace
