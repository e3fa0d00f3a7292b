/// Requests between two processes over a named pipe, side by side with a plain Unix socket that carries the same bytes.

#include "Harness.h"
#include "Limits.h"
#include "Services.h"

#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/msgdata/MsgMultipleRowSets.h"

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
};

constexpr Effort FULL = {24, 2000};
constexpr Effort BRIEF = {2, 20};

/// Keeps what a message writes on a connection without compaction, as pipes are.
class PipeBytes : public CMsgStream
{
public:
    explicit PipeBytes(int unicode) : CMsgStream(unicode) {}
    ~PipeBytes() override { DeleteCompact(); }

    int ReadData(void *, DWORD) override { return 0; }
    int WriteData(void const * buffer, DWORD count) override
    {
        auto const * const from = static_cast<unsigned char const *>(buffer);
        m_bytes.insert(m_bytes.end(), from, from + count);
        return 1;
    }

    Bytes m_bytes;
};

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

int RunService(std::string const & name)
{
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

/// Answers so many bytes with so many others.
int RunPlain(std::string const & name, Options const & options)
{
    int const listening = ::socket(AF_UNIX, SOCK_STREAM, 0);
    socklen_t size = 0;
    sockaddr_un const address = PlainAddress(name, size);
    if (::bind(listening, reinterpret_cast<sockaddr const *>(&address), size) != 0 || ::listen(listening, 1) != 0)
    {
        Fail("cannot listen");
    }
    SayLine("ready");
    PlainSocket const socket(::accept(listening, nullptr, nullptr));
    Bytes request(static_cast<std::size_t>(options.GetNumber("request", 1)));
    Bytes const response(static_cast<std::size_t>(options.GetNumber("response", 1)));
    while (socket.ReceiveAll(request.data(), request.size()))
    {
        socket.Send(response);
    }
    return 0;
}

void Measure(Effort const & effort, std::string const & name, LPCTSTR type, int unicode, std::string const & title,
             double target)
{
    CMsgDispatcher & dispatcher = *CMsgDispatcher::GetInstance();
    if (!dispatcher.RegisterProvider(_T("host"), ConfigOf(type, name + kvx::ToUtf8(type)), 1))
    {
        Fail("no connection provider");
    }
    CMsgRequest call;
    call.SetCommand(_T("host.table.get"));
    FillTableRequest(call, ROWS, COLUMNS);
    PipeBytes request(unicode);
    call.Write(request);
    PipeBytes response(unicode);
    call.Execute().Write(response);
    {
        std::string const plainName = name + "-plain";
        Child const plain({"--serve=plain", "--name=" + plainName,
                           "--request=" + std::to_string(request.m_bytes.size()),
                           "--response=" + std::to_string(response.m_bytes.size())});
        plain.ReadLine();
        PlainSocket const socket = ConnectPlain(plainName);
        Bytes received(response.m_bytes.size());
        auto const ours = [&]
        {
            CMsgResponse & got = call.Execute();
            POSITION pos = got.GetRowSets().GetFirstPosition();
            if (got.Failed() || got.GetRowSets().GetAt(pos)->GetRowCount() != ROWS)
            {
                Fail("the service gives no table: " + kvx::ToUtf8(got.GetErrorText()));
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
    dispatcher.DeleteTarget(_T("host"));
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    PinTo(0);
    std::string const name = options.Get("name", "kvx-bench-" + std::to_string(::getpid()));
    if (options.Get("serve", "") == "kvx")
    {
        return RunService(name);
    }
    if (options.Get("serve", "") == "plain")
    {
        return RunPlain(name, options);
    }
    Effort const effort = options.IsBrief() ? BRIEF : FULL;
    {
        Child const service({"--serve=kvx", "--name=" + name});
        service.ReadLine();
        Measure(effort, name, _T("nt_pipe"), 1, "named pipe, 10 x 4 cells, wide : Unix-socket ping-pong", 2.0);
        Measure(effort, name, _T("local_apipe"), 0, "named pipe, 10 x 4 cells, narrow : Unix-socket ping-pong", 0);
    }
    EndLibrary();
    return 0;
}
