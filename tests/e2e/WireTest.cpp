#include "Service.h"

#include <cstdint>

namespace
{
constexpr std::uint32_t LARGE = 0x7FFFFFFF;
constexpr std::uint32_t LARGEST = 0xFFFFFFFF;
constexpr long MEMORY_MAX = KVX_MEMORY_MAX; // MB

std::string Word(std::uint32_t word)
{
    return {static_cast<char>(word >> 24), static_cast<char>(word >> 16), static_cast<char>(word >> 8),
            static_cast<char>(word)};
}

/// A message string in full.
std::string Text(std::string_view text)
{
    std::string bytes = Word(static_cast<std::uint32_t>(text.size()));
    for (char const c : text)
    {
        bytes += {c, '\0'};
    }
    return bytes;
}

std::string Known(std::uint32_t index)
{
    return Word(0x80000000 | index);
}

/// A request without parameters and row sets, up to its row-set section.
std::string Head(std::string_view command)
{
    return Word(0) + Text(command) + Word(0) + Text("");
}

class Wire : public ServiceTest
{
protected:
    void ExpectExchange(std::string const & tag, std::string const & request, std::string const & response)
    {
        RawClient const client(m_service.nPort);
        client.Send(tag);
        EXPECT_EQ(client.Receive(4), tag);
        for (int i = 0; i < 2; ++i) // the link stays, and nothing of the first exchange is left
        {
            client.Send(request);
            EXPECT_EQ(client.Receive(response.size()), response);
        }
        client.EndSending();
        EXPECT_TRUE(client.IsEnded());
    }
    void ExpectServes() { EXPECT_EQ(m_service.Call({"host.echo", "a=1"}).nCode, 0); }
};

TEST_F(Wire, HasTheDocumentedBytes)
{
    std::string const echo = Word(0) + Text("host.echo") + Word(1) + Text("x");
    std::string const end = Text("") + Word(0);
    std::string const answer = Text("") + Word(1) + Text("echo") + Word(1) + Word(1) + Text("x") + Word(1);
    ExpectExchange("QLDR", echo + Text("v") + end, answer + Text("v"));
    ExpectExchange("VJOP", echo + Text("v") + end, answer + Text("v"));
    ExpectExchange("QLDR", echo + Text("x") + end, answer + Text("x"));
    ExpectExchange("VJOP", echo + Known(1) + end, answer + Known(2)); // one table for each direction
    std::string const unknown = "rc:=50;Unsupported command: no";
    ExpectExchange("VJOP", Head("no") + Word(0), Text(unknown) + Word(0));

    // Row sets come back as they came, behind the parameters.
    std::string const none = Text("") + Word(2) + Text("echo") + Word(1) + Word(0);
    std::string const rows = Word(2) + Word(1) + Text("c") + Word(2);
    ExpectExchange("QLDR", Head("host.echo") + Word(1) + Text("r") + rows + Text("v") + Text("v"),
                   none + Text("r") + rows + Text("v") + Text("v"));
    ExpectExchange("VJOP", Head("host.echo") + Word(1) + Text("r") + rows + Text("v") + Known(4),
                   none + Text("r") + rows + Text("v") + Known(4));
}

TEST_F(Wire, TakesBytesOneByOneAndManyAtOnce)
{
    std::string const request = Word(0) + Text("host.echo") + Word(1) + Text("k") + Text("v") + Text("") + Word(0);
    std::string const response =
        Text("") + Word(1) + Text("echo") + Word(1) + Word(1) + Text("k") + Word(1) + Text("v");
    RawClient const slow(m_service.nPort);
    for (char const c : "VJOP" + request)
    {
        slow.Send({&c, 1});
    }
    EXPECT_EQ(slow.Receive(4 + response.size()), "VJOP" + response);

    RawClient const fast(m_service.nPort);
    fast.Send("VJOP" + request + request + request);
    fast.EndSending();
    EXPECT_EQ(fast.Receive(4 + 3 * response.size()), "VJOP" + response + response + response);
    EXPECT_TRUE(fast.IsEnded());
}

TEST_F(Wire, EndsAHostileSessionAndNothingElse)
{
    std::string const echo = Word(0) + Text("host.echo");
    std::string const rowSet = "VJOP" + Head("host.echo") + Word(1) + Text("r");
    std::vector<std::string> const hostile{
        "XXXX",                                                  // a wrong tag
        "GET / HTTP/1.1\r\n\r\n",                                // another protocol
        "VJ",                                                    // cut in the tag
        "VJOP" + echo.substr(0, 11),                             // cut in a text
        "VJOP" + Word(0) + Known(5),                             // a back reference to nothing
        "VJOP" + Word(0) + Known(LARGE),                         //
        "QLDR" + Word(0) + Word(LARGEST),                        // texts of absurd lengths
        "QLDR" + Word(0) + Word(LARGE) + std::string(1000, 'x'), //
        "VJOP" + Word(0) + Word(LARGE) + std::string(1000, 'x'), //
        "VJOP" + echo + Word(LARGEST) + Text("a"),               // absurd numbers of parameters
        "VJOP" + echo + Word(0) + Text("") + Word(LARGEST),      // of row sets
        "VJOP" + echo + Word(0) + Text("") + Word(LARGE) + Text("r"),
        rowSet + Word(LARGEST) + Word(1) + Text("c") + Word(0), // of rows
        rowSet + Word(1) + Word(LARGEST) + Text("c") + Word(0), // of columns
        rowSet + Word(1) + Word(1) + Text("c") + Word(LARGEST), // of cells
        rowSet + Word(1) + Word(1) + Text("c") + Word(LARGE) + Text("v"),
    };
    // One that waits for its answer while the others come and go.
    RawClient const bystander(m_service.nPort);
    bystander.Send("VJOP" + echo);
    std::vector<std::unique_ptr<RawClient>> open;
    for (std::string const & bytes : hostile)
    {
        RawClient const client(m_service.nPort);
        client.Send(bytes);
        client.EndSending();
        EXPECT_TRUE(client.IsEnded()) << testing::PrintToString(bytes);
        for (int i = 0; i < 4; ++i)
        {
            open.push_back(std::make_unique<RawClient>(m_service.nPort));
            open.back()->Send(bytes);
        }
    }
    ExpectServes();
    EXPECT_LT(m_service.process.GetMemory(), MEMORY_MAX);
    open.clear();
    bystander.Send(Word(0) + Text("") + Word(0));
    EXPECT_EQ(bystander.Receive(4 + 4), "VJOP" + Text(""));
}

TEST(Subscriber, ThatStopsReadingHoldsUpNobodyElse)
{
    Service service({"--verbose"});
    RawClient const stalled(service.nPort);
    stalled.Send("QLDR" + Word(0) + Text("host.subscribe") + Word(1) + Text("events") + Text("host.log") + Text("") +
                 Word(0));
    EXPECT_EQ(stalled.Receive(8), "QLDR" + Word(0));
    // More lines than the system's buffers take, each with as much of a value as a line shows.
    std::string const value(200, 'v');
    EXPECT_EQ(RunKvx({"bench", service.strAddress, "host.count", "add=1", "a=" + value, "b=" + value, "c=" + value,
                      "--count", "10000", "--clients", "2"})
                  .nStatus,
              0);
    EXPECT_EQ(service.CallForValue({"host.count"}), "10000");
    EXPECT_EQ(RunKvx({"watch", service.strAddress, "host.tick", "--count", "1"}).nStatus, 0);
    Process log({"watch", service.strAddress, "host.log", "--count", "1"});
    EXPECT_TRUE(Becomes([&] { return service.Call({"host.echo", "a=1"}).nCode == 0 && log.HasEnded(); }));
    EXPECT_LT(service.process.GetMemory(), MEMORY_MAX);
    EXPECT_EQ(service.Stop(), 0);
}

TEST(Limits, EndTheirClientAlone)
{
    Service service({"--max-message", "100K", "--max-clients", "2"});
    std::string const echo = Word(0) + Text("host.echo") + Word(1) + Text("x");
    RawClient const first(service.nPort);
    first.Send("QLDR");
    EXPECT_EQ(first.Receive(4), "QLDR");
    {
        RawClient const large(service.nPort);
        large.Send("QLDR" + echo + Text(std::string(400'000, 'v')) + Text("") + Word(0));
        EXPECT_TRUE(large.IsEnded());
    }
    auto const connect = [&](std::unique_ptr<RawClient> & client)
    {
        client = std::make_unique<RawClient>(service.nPort);
        client->Send("QLDR");
        return client->Receive(4) == "QLDR";
    };
    std::unique_ptr<RawClient> second;
    std::unique_ptr<RawClient> third;
    EXPECT_TRUE(Becomes([&] { return connect(second); })); // once the place of the other is free
    EXPECT_FALSE(connect(third));
    first.Send(echo + Text("v") + Text("") + Word(0));
    EXPECT_EQ(first.Receive(4), Word(0)); // the answer begins
    EXPECT_EQ(service.Stop(), 0);
}

TEST_F(Wire, RefusesToSpellOutWhatIsOnlyClaimed)
{
    for (std::uint32_t const columns : {0u, 1u})
    {
        std::string request = Head("host.echo") + Word(1) + Text("r") + Word(LARGE) + Word(columns);
        request += columns == 1 ? Text("c") + Word(0) : "";
        RawClient const client(m_service.nPort);
        client.Send("QLDR" + request);
        std::string const begin = Text("rc:=87;").substr(4);
        EXPECT_EQ(client.Receive(4 + 4 + begin.size()).substr(8), begin);
    }
    ExpectServes();
    EXPECT_LT(m_service.process.GetMemory(), MEMORY_MAX);
}
} // namespace
