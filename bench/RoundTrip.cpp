/// Requests between two processes over TCP, as users make them, side by side with plain sockets that do the same work:
/// a request with three parameters, a table made for the call out of texts that the service keeps, every cell read.

#include "Harness.h"
#include "Limits.h"
#include "Services.h"

#include <memory>
#include <optional>
#include <thread>

namespace
{
using namespace bench;

constexpr int SMALL_ROWS = 10;
constexpr int LARGE_ROWS = 10000;
constexpr int COLUMNS = 4;
constexpr int CLIENTS = 8;

/// How many calls a round has, and how many rounds there are.
struct Effort
{
    int nRounds;
    int nRoundTrips;
    int nClientCalls; // of each client
    int nLarge;
    int nOneWay;
};

constexpr Effort FULL = {24, 2000, 300, 12, 20000};
constexpr Effort BRIEF = {2, 20, 5, 1, 200};

Bytes BytesOfRequest()
{
    CMsgRequest request;
    request.SetCommand(_T("host.table.get"));
    FillTableRequest(request, SMALL_ROWS, COLUMNS);
    ByteStream stream;
    request.Write(stream);
    return stream.m_bytes;
}

PlainRequest MakePlainRequest(int rows)
{
    std::string const digits = std::to_string(rows);
    PlainRequest request;
    request.strCommand = u"host.table.get";
    request.parameters = {{u"rows", {digits.begin(), digits.end()}}, {u"columns", u"4"}, {u"filter", u"all"}};
    return request;
}

// The plain servers, one for each limit.

/// Answers so many bytes with so many others: nobody looks at either.
void ServePingPong(PlainSocket & socket, std::size_t responseSize)
{
    Bytes request = BytesOfRequest();
    Bytes const response(responseSize);
    while (socket.ReceiveAll(request.data(), request.size()))
    {
        socket.Send(response);
    }
}

/// Reads a request, makes its table, writes the response.
void ServeTables(PlainSocket & socket)
{
    PlainReader reader(socket);
    PlainWriter writer;
    PlainRequest request;
    for (;;)
    {
        request.Read(reader);
        if (!reader.IsGood())
        {
            return;
        }
        MakePlainTable(request.GetNumber(u"rows"), request.GetNumber(u"columns")).Write(writer);
        writer.SendTo(socket);
    }
}

int RunService(Options const & options)
{
    PinTo(options.GetNumber("cpu", -1));
    SayLine(std::to_string(StartServices()));
    WaitForParent();
    StopServices();
    return 0;
}

int RunPlain(Options const & options)
{
    PinTo(options.GetNumber("cpu", -1));
    std::string const role = options.Get("serve", "");
    int port = 0;
    if (role == "pingpong")
    {
        auto const size = static_cast<std::size_t>(options.GetNumber("size", 1));
        port = ServePlain([size](PlainSocket & socket) { ServePingPong(socket, size); });
    }
    else if (role == "tables")
    {
        port = ServePlain(&ServeTables);
    }
    else
    {
        auto const size = static_cast<std::size_t>(options.GetNumber("size", 1));
        port = ServePlain([size](PlainSocket & socket) { AcknowledgeEach(socket, size); });
    }
    SayLine(std::to_string(port));
    WaitForParent();
    std::_Exit(0); // its threads sit in their sockets
}

/// The two other ends of a measurement. What the size is of depends on the plain server.
class Ends
{
public:
    Ends(std::string const & plain, int cpu, std::size_t size = 0)
        : m_service({"--serve=kvx", "--cpu=" + std::to_string(cpu)}),
          m_plain({"--serve=" + plain, "--cpu=" + std::to_string(cpu), "--size=" + std::to_string(size)})
    {
        ConnectServices(std::stoi(m_service.ReadLine()));
        m_nPlainPort = std::stoi(m_plain.ReadLine());
    }
    Ends(Ends const &) = delete;
    Ends & operator=(Ends const &) = delete;
    ~Ends() { LeaveServices(); }

    PlainSocket ConnectPlain() const { return PlainSocket::Connect(m_nPlainPort); }

private:
    Child m_service;
    Child m_plain;
    int m_nPlainPort;
};

/// A table request, of which every cell of the answer is read, that is ready to be sent again and again.
class TableCall
{
public:
    explicit TableCall(int rows) : m_nCharacters(CountCharacters(MakePlainTable(rows, COLUMNS)))
    {
        m_request.SetCommand(_T("host.table.get"));
        FillTableRequest(m_request, rows, COLUMNS);
    }
    void operator()()
    {
        if (CountCharacters(m_request.Execute()) != m_nCharacters)
        {
            Fail("the service gives another table");
        }
    }
    /// The bytes of the response that came last.
    std::size_t GetResponseSize()
    {
        ByteStream stream;
        m_request.GetResponse().Write(stream);
        return stream.m_bytes.size();
    }

private:
    int m_nCharacters;
    CMsgRequest m_request;
};

/// The same over a plain socket, into vectors of texts.
class PlainTableCall
{
public:
    PlainTableCall(PlainSocket socket, int rows)
        : m_nCharacters(CountCharacters(MakePlainTable(rows, COLUMNS))), m_request(MakePlainRequest(rows)),
          m_socket(std::move(socket))
    {
    }
    void operator()()
    {
        m_request.Write(m_writer);
        m_writer.SendTo(m_socket);
        PlainResponse response;
        response.Read(m_reader);
        if (CountCharacters(response) != m_nCharacters)
        {
            Fail("the plain server gives another table");
        }
    }

private:
    int m_nCharacters;
    PlainRequest m_request;
    PlainSocket m_socket;
    PlainReader m_reader{m_socket};
    PlainWriter m_writer;
};

/// One call after the other, both ends on one CPU: nothing but the work counts.
void MeasureCalls(int rows, int rounds, int calls, std::string const & name, double target)
{
    PinTo(0);
    Ends const ends("tables", 0);
    TableCall ours(rows);
    PlainTableCall limit(ends.ConnectPlain(), rows);
    Compare(
        {.strName = name, .target = Target::AtMost, .nTarget = target}, rounds, [&] { return TimeCalls(calls, ours); },
        [&] { return TimeCalls(calls, limit); });
}

void MeasurePingPong(Effort const & effort)
{
    PinTo(0);
    TableCall ours(SMALL_ROWS);
    std::size_t const size = [&]
    {
        Ends const ends("tables", 0);
        ours();
        return ours.GetResponseSize();
    }();
    Ends const ends("pingpong", 0, size);
    PlainSocket const socket = ends.ConnectPlain();
    Bytes const request = BytesOfRequest();
    Bytes response(size);
    auto const limit = [&]
    {
        socket.Send(request);
        socket.ReceiveAll(response.data(), response.size());
    };
    Compare(
        {.strName = "  the same : ping-pong of its bytes", .target = Target::AtMost}, effort.nRounds,
        [&] { return TimeCalls(effort.nRoundTrips, ours); }, [&] { return TimeCalls(effort.nRoundTrips, limit); });
}

/// Wall time for each call when each of several threads makes its calls.
template <class CALL>
double TimeClients(std::vector<std::unique_ptr<CALL>> const & calls, int count)
{
    auto const start = Clock::now();
    {
        std::vector<std::jthread> threads;
        for (auto const & call : calls)
        {
            threads.emplace_back(
                [&call, count]
                {
                    for (int i = 0; i < count; ++i)
                    {
                        (*call)();
                    }
                });
        }
    }
    return Since(start) / (static_cast<double>(calls.size()) * count);
}

void MeasureClients(Effort const & effort, int cpu, std::string const & name, double target)
{
    PinTo(cpu);
    Ends const ends("tables", cpu);
    std::vector<std::unique_ptr<TableCall>> ours;
    std::vector<std::unique_ptr<PlainTableCall>> limit;
    for (int i = 0; i < CLIENTS; ++i)
    {
        ours.push_back(std::make_unique<TableCall>(SMALL_ROWS));
        limit.push_back(std::make_unique<PlainTableCall>(ends.ConnectPlain(), SMALL_ROWS));
    }
    Compare(
        {.strName = name, .target = Target::AtLeast, .nTarget = target}, effort.nRounds,
        [&] { return TimeClients(ours, effort.nClientCalls); },
        [&] { return TimeClients(limit, effort.nClientCalls); });
}

/// Both ends work at the same time, each on its CPU.
void MeasureOneWay(Effort const & effort)
{
    PinTo(0);
    OneWayCalls const calls(effort.nOneWay);
    Bytes const message = calls.GetBytes(1, true);
    Ends const ends("count", 1, message.size() * static_cast<std::size_t>(effort.nOneWay));
    PlainSocket const socket = ends.ConnectPlain();
    Compare(
        {.strName = "one-way requests : a send a message", .target = Target::AtLeast, .nTarget = 1.0}, effort.nRounds,
        [&] { return calls.Time(); }, [&] { return TimeSends(socket, message, effort.nOneWay); });
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    if (options.Get("serve", "") == "kvx")
    {
        return RunService(options);
    }
    if (!options.Get("serve", "").empty())
    {
        return RunPlain(options);
    }
    Effort const effort = options.IsBrief() ? BRIEF : FULL;
    if (options.Wants("roundtrip"))
    {
        MeasureCalls(SMALL_ROWS, effort.nRounds, effort.nRoundTrips, "round trip, 10 x 4 cells : plain code", 1.1);
        MeasurePingPong(effort);
    }
    if (options.Wants("clients"))
    {
        MeasureClients(effort, -1, "8 clients, 10 x 4 cells : plain code", 0.95);
        MeasureClients(effort, 0, "  the same, all on one CPU", 0);
    }
    if (options.Wants("large"))
    {
        MeasureCalls(LARGE_ROWS, effort.nRounds, effort.nLarge, "10,000 x 4 cells : plain code", 0.59);
    }
    if (options.Wants("oneway"))
    {
        MeasureOneWay(effort);
    }
    EndLibrary();
    return 0;
}
