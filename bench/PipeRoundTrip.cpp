/// Requests between two processes over a named pipe, side by side with a plain Unix socket that carries the same bytes.

#include "Harness.h"
#include "Limits.h"
#include "Services.h"

#include "kvx/messaging/MsgDispatcher.h"

#include <cstddef>
#include <cstring>
#include <memory>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{
using namespace bench;

constexpr int ROWS = 10;
constexpr int COLUMNS = 4;

struct Effort
{
    int nRounds;
    int nCalls;
    int nOneWay;
};

constexpr Effort FULL = {24, 2000, 20000};
constexpr Effort BRIEF = {2, 20, 200};

CString ConfigOf(LPCTSTR type, std::string const & name)
{
    return CString(type) + _T(":") + kvx::FromUtf8(name);
}

/// An address without a file.
sockaddr_un PlainAddress(std::string const & name, socklen_t & size)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    return address;
}

PlainSocket ConnectPlain(std::string const & name)
{
    int const handle = ::socket(AF_UNIX, SOCK_STREAM, 0);
    socklen_t size = 0;
    sockaddr_un const address = PlainAddress(name, size);
    if (::connect(handle, reinterpret_cast<sockaddr const *>(&address), size) != 0)
    {
        Fail("cannot connect");
    }
    return PlainSocket(handle);
}

int RunService(std::string const & name, Options const & options)
{
    PinTo(options.GetNumber("cpu", 0));
    StartServices();
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    for (LPCTSTR const type : {_T("nt_pipe"), _T("local_apipe")})
    {
        if (!dispatcher.RegisterListener(_T("host"), ConfigOf(type, name + kvx::ToUtf8(type)), 1))
        {
            Fail("no pipe");
        }
    }
    SayLine("ready");
    WaitForParent();
    std::_Exit(0); // its threads sit in their pipes
}

/// Answers so many bytes with so many others, or acknowledges them.
int RunPlain(std::string const & name, Options const & options)
{
    PinTo(options.GetNumber("cpu", 0));
    int const listening = ::socket(AF_UNIX, SOCK_STREAM, 0);
    socklen_t size = 0;
    sockaddr_un const address = PlainAddress(name, size);
    if (::bind(listening, reinterpret_cast<sockaddr const *>(&address), size) != 0 || ::listen(listening, 1) != 0)
    {
        Fail("cannot listen");
    }
    SayLine("ready");
    PlainSocket socket(::accept(listening, nullptr, nullptr));
    if (options.Has("acknowledge"))
    {
        AcknowledgeEach(socket, static_cast<std::size_t>(options.GetNumber("request", 1)));
        return 0;
    }
    Bytes request(static_cast<std::size_t>(options.GetNumber("request", 1)));
    Bytes const response(static_cast<std::size_t>(options.GetNumber("response", 1)));
    while (socket.ReceiveAll(request.data(), request.size()))
    {
        socket.Send(response);
    }
    return 0;
}

/// A connection to the service's pipe of this type, while it lives.
class Connection
{
public:
    Connection(std::string const & name, LPCTSTR type)
    {
        if (!CMsgDispatcher::GetInstance()->RegisterProvider(_T("host"), ConfigOf(type, name + kvx::ToUtf8(type)), 1))
        {
            Fail("no connection provider");
        }
    }
    Connection(Connection const &) = delete;
    Connection & operator=(Connection const &) = delete;
    ~Connection() { LeaveServices(); }
};

void MeasureCalls(Effort const & effort, std::string const & name, LPCTSTR type, int unicode, std::string const & title,
                  double target)
{
    Child const service({"--serve=kvx", "--name=" + name});
    service.ReadLine();
    Connection const connection(name, type);
    CMsgRequest call;
    call.SetCommand(_T("host.table.get"));
    FillTableRequest(call, ROWS, COLUMNS);
    ByteStream request(unicode, false);
    call.Write(request);
    ByteStream response(unicode, false);
    call.Execute().Write(response);
    int const characters = CountCharacters(call.GetResponse());
    std::string const plainName = name + "-plain";
    Child const plain({"--serve=plain", "--name=" + plainName, "--request=" + std::to_string(request.m_bytes.size()),
                       "--response=" + std::to_string(response.m_bytes.size())});
    plain.ReadLine();
    PlainSocket const socket = ConnectPlain(plainName);
    Bytes received(response.m_bytes.size());
    auto const ours = [&]
    {
        if (CountCharacters(call.Execute()) != characters)
        {
            Fail("the service gives another table");
        }
    };
    auto const limit = [&]
    {
        socket.Send(request.m_bytes);
        socket.ReceiveAll(received.data(), received.size());
    };
    Compare(
        {.strName = title, .target = Target::AtMost, .nTarget = target}, effort.nRounds,
        [&] { return TimeCalls(effort.nCalls, ours); }, [&] { return TimeCalls(effort.nCalls, limit); });
}

/// Both ends work at the same time, each on its CPU.
void MeasureOneWay(Effort const & effort, std::string const & name, LPCTSTR type, int unicode,
                   std::string const & title)
{
    Child const service({"--serve=kvx", "--name=" + name, "--cpu=1"});
    service.ReadLine();
    Connection const connection(name, type);
    OneWayCalls const calls(effort.nOneWay);
    Bytes const message = calls.GetBytes(unicode, false);
    std::string const plainName = name + "-sends";
    Child const plain({"--serve=plain", "--name=" + plainName, "--acknowledge", "--cpu=1",
                       "--request=" + std::to_string(message.size() * static_cast<std::size_t>(effort.nOneWay))});
    plain.ReadLine();
    PlainSocket const socket = ConnectPlain(plainName);
    Compare(
        {.strName = title, .target = Target::AtLeast, .nTarget = 1.0}, effort.nRounds, [&] { return calls.Time(); },
        [&] { return TimeSends(socket, message, effort.nOneWay); });
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    PinTo(0);
    std::string const name = options.Get("name", "kvx-bench-" + std::to_string(::getpid()));
    if (options.Get("serve", "") == "kvx")
    {
        return RunService(name, options);
    }
    if (options.Get("serve", "") == "plain")
    {
        return RunPlain(name, options);
    }
    Effort const effort = options.IsBrief() ? BRIEF : FULL;
    MeasureCalls(effort, name, _T("nt_pipe"), 1, "named pipe, 10 x 4 cells, wide : Unix-socket ping-pong", 2.0);
    MeasureCalls(effort, name, _T("local_apipe"), 0, "named pipe, 10 x 4 cells, narrow : Unix-socket ping-pong", 1.7);
    MeasureOneWay(effort, name, _T("nt_pipe"), 1, "one-way over a named pipe, wide : a send a message");
    MeasureOneWay(effort, name, _T("local_apipe"), 0, "one-way over a named pipe, narrow : a send a message");
    EndLibrary();
    return 0;
}
