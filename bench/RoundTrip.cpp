/// Requests between two processes over TCP, side by side with plain sockets that carry the same bytes.

#include "Harness.h"
#include "Limits.h"
#include "Services.h"
#include "TableTexts.h"

#include "kvx/msgdata/MsgMultipleRowSets.h"

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

Bytes BytesOfOneWayRequest()
{
    CMsgRequest request(CMsgRequest::FLAG_DISCARD_RESULTS);
    request.SetCommand(_T("host.count.add"));
    ByteStream stream;
    request.Write(stream);
    return stream.m_bytes;
}

Bytes BytesOfResponse(int rows)
{
    PlainWriter writer;
    MakePlainTable(rows, COLUMNS).Write(writer);
    return writer.GetBytes();
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
void ServePingPong(PlainSocket & socket)
{
    Bytes request = BytesOfRequest();
    Bytes const response = BytesOfResponse(SMALL_ROWS);
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

/// Answers each request with a large response that is ready.
void ServeReadyTable(PlainSocket & socket)
{
    PlainReader reader(socket);
    PlainRequest request;
    Bytes const response = BytesOfResponse(LARGE_ROWS);
    for (;;)
    {
        request.Read(reader);
        if (!reader.IsGood())
        {
            return;
        }
        socket.Send(response);
    }
}

/// Says a byte each time that so many messages have come.
void CountMessages(PlainSocket & socket, int messages)
{
    std::size_t const total = BytesOfOneWayRequest().size() * static_cast<std::size_t>(messages);
    Bytes buffer(65536);
    for (std::size_t left = total;;)
    {
        std::size_t const got = socket.Receive(buffer.data(), std::min(buffer.size(), left));
        if (got == 0)
        {
            return;
        }
        left -= got;
        if (left == 0)
        {
            socket.Send({1});
            left = total;
        }
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
        port = ServePlain(&ServePingPong);
    }
    else if (role == "tables")
    {
        port = ServePlain(&ServeTables);
    }
    else if (role == "ready")
    {
        port = ServePlain(&ServeReadyTable);
    }
    else
    {
        int const messages = options.GetNumber("messages", 1);
        port = ServePlain([messages](PlainSocket & socket) { CountMessages(socket, messages); });
    }
    SayLine(std::to_string(port));
    WaitForParent();
    std::_Exit(0); // its threads sit in their sockets
}

/// The two other ends of a measurement.
class Ends
{
public:
    Ends(std::string const & plain, int cpu, int messages = 0)
        : m_service({"--serve=kvx", "--cpu=" + std::to_string(cpu)}),
          m_plain({"--serve=" + plain, "--cpu=" + std::to_string(cpu), "--messages=" + std::to_string(messages)})
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

/// A table request that is ready to be sent again and again.
class TableCall
{
public:
    TableCall(LPCTSTR command, int rows) : m_nRows(static_cast<DWORD>(rows))
    {
        m_request.SetCommand(command);
        FillTableRequest(m_request, rows, COLUMNS);
    }
    void operator()()
    {
        CMsgResponse & response = m_request.Execute();
        POSITION pos = response.GetRowSets().GetFirstPosition();
        if (response.Failed() || response.GetRowSets().GetAt(pos)->GetRowCount() != m_nRows)
        {
            Fail("the service gives no table: " + kvx::ToUtf8(response.GetErrorText()));
        }
    }

private:
    CMsgRequest m_request;
    DWORD m_nRows;
};

/// The same over a plain socket, into vectors of texts.
class PlainTableCall
{
public:
    PlainTableCall(PlainSocket socket, int rows)
        : m_nRows(static_cast<std::size_t>(rows)), m_request(MakePlainRequest(rows)), m_socket(std::move(socket))
    {
    }
    void operator()()
    {
        m_request.Write(m_writer);
        m_writer.SendTo(m_socket);
        PlainResponse response;
        response.Read(m_reader);
        if (response.columns.empty() || response.columns[0].cells.size() != m_nRows)
        {
            Fail("the plain server gives no table");
        }
    }

private:
    std::size_t m_nRows;
    PlainRequest m_request;
    PlainSocket m_socket;
    PlainReader m_reader{m_socket};
    PlainWriter m_writer;
};

void MeasureRoundTrip(Effort const & effort)
{
    PinTo(0);
    Ends const ends("pingpong", 0);
    TableCall ours(_T("host.table.get"), SMALL_ROWS);
    PlainSocket const socket = ends.ConnectPlain();
    Bytes const request = BytesOfRequest();
    Bytes response(BytesOfResponse(SMALL_ROWS).size());
    auto const limit = [&]
    {
        socket.Send(request);
        socket.ReceiveAll(response.data(), response.size());
    };
    Compare(
        {.strName = "round trip, 10 x 4 cells : ping-pong", .target = Target::AtMost, .nTarget = 2.0}, effort.nRounds,
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
        ours.push_back(std::make_unique<TableCall>(_T("host.table.get"), SMALL_ROWS));
        limit.push_back(std::make_unique<PlainTableCall>(ends.ConnectPlain(), SMALL_ROWS));
    }
    Compare(
        {.strName = name, .target = Target::AtLeast, .nTarget = target}, effort.nRounds,
        [&] { return TimeClients(ours, effort.nClientCalls); },
        [&] { return TimeClients(limit, effort.nClientCalls); });
}

void MeasureLarge(Effort const & effort, LPCTSTR command, int serverCpu, std::string const & name)
{
    PinTo(0);
    Ends const ends("ready", serverCpu);
    TableCall ours(command, LARGE_ROWS);
    PlainTableCall limit(ends.ConnectPlain(), LARGE_ROWS);
    Compare(
        {.strName = name, .target = Target::AtMost, .nTarget = 1.0}, effort.nRounds,
        [&] { return TimeCalls(effort.nLarge, ours); }, [&] { return TimeCalls(effort.nLarge, limit); });
}

/// Both ends work at the same time, each on its CPU.
void MeasureOneWay(Effort const & effort)
{
    PinTo(0);
    Ends const ends("count", 1, effort.nOneWay);
    CMsgRequest add;
    add.SetCommand(_T("host.count.add"));
    CMsgRequest wait;
    wait.SetCommand(_T("host.count.wait"));
    wait.SetParam(_T("total"), effort.nOneWay);
    auto const ours = [&]
    {
        auto const start = Clock::now();
        for (int i = 0; i < effort.nOneWay; ++i)
        {
            add.Send();
        }
        if (wait.Execute().Failed())
        {
            Fail("the service doesn't count");
        }
        return Since(start) / effort.nOneWay;
    };
    PlainSocket const socket = ends.ConnectPlain();
    Bytes const message = BytesOfOneWayRequest();
    auto const limit = [&]
    {
        auto const start = Clock::now();
        for (int i = 0; i < effort.nOneWay; ++i)
        {
            socket.Send(message);
        }
        Bytes done(1);
        socket.ReceiveAll(done.data(), done.size());
        return Since(start) / effort.nOneWay;
    };
    Compare({.strName = "one-way requests : a send a message", .target = Target::AtLeast, .nTarget = 0.9},
            effort.nRounds, ours, limit);
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
        MeasureRoundTrip(effort);
    }
    if (options.Wants("clients"))
    {
        MeasureClients(effort, -1, "8 clients, 10 x 4 cells : plain code", 0.8);
        MeasureClients(effort, 0, "  the same, all on one CPU", 0);
    }
    if (options.Wants("large"))
    {
        MeasureLarge(effort, _T("host.table.get"), 1, "10,000 x 4 cells, made for the call : plain code");
        MeasureLarge(effort, _T("host.table.kept"), 1, "10,000 x 4 cells, a table that is kept : plain code");
        MeasureLarge(effort, _T("host.table.get"), 0, "  made for the call, both ends on one CPU");
        MeasureLarge(effort, _T("host.table.kept"), 0, "  a table that is kept, both ends on one CPU");
    }
    if (options.Wants("oneway"))
    {
        MeasureOneWay(effort);
    }
    EndLibrary();
    return 0;
}
