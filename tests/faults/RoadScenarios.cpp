// One request on each road, there and back, and one that isn't answered.

#include "Service.h"

#include "kvx/messaging/MsgTimedRequest.h"

namespace
{
using faults::Echo;
using faults::Listening;
using faults::Registered;
using faults::Scenario;

class InProcess : public Scenario
{
public:
    void Run() override
    {
        Echo::Ask(_T("svc"));
        m_echo.Tell(_T("svc"));
    }

private:
    Echo m_echo{_T("svc")};
};

/// Through a listener of this process, whose sessions fail as well as the client.
class Connected : public Scenario
{
public:
    explicit Connected(LPCTSTR listener, LPCTSTR before = _T("forward:"))
        : m_listening(listener), m_there(_T("there"), before + m_listening.GetConnection())
    {
    }
    void Run() override
    {
        Echo::Ask(_T("there.svc"));
        m_echo.Tell(_T("there.svc"));
    }
    int GetAfterEffects() const override { return 2; }

private:
    Echo m_echo{_T("svc")};
    Listening m_listening;
    Registered m_there;
};

struct Tcp : Connected
{
    Tcp() : Connected(_T("tcp:127.0.0.1:0")) {}
};
struct NtPipe : Connected
{
    NtPipe() : Connected(_T("nt_pipe:faults")) {}
};
struct LocalPipe : Connected
{
    LocalPipe() : Connected(_T("local_pipe:faults")) {}
};
struct NarrowPipe : Connected
{
    NarrowPipe() : Connected(_T("local_apipe:faults")) {}
};
struct Win9xPipe : Connected
{
    Win9xPipe() : Connected(_T("9x_pipe:faults")) {}
};
struct Relayed : Connected
{
    Relayed() : Connected(_T("nt_pipe:faults"), _T("forward:relay:")) {}
};

/// A connection of its own for each request: all of connecting and of a session's life is in each run.
class Reconnecting : public Scenario
{
public:
    void Run() override
    {
        Registered const there(_T("again"), _T("forward:") + m_listening.GetConnection());
        Echo::Ask(_T("again.svc"));
        m_echo.Tell(_T("again.svc"));
    }
    int GetAfterEffects() const override { return 2; }

protected:
    explicit Reconnecting(LPCTSTR listener) : m_listening(listener) {}

private:
    Echo m_echo{_T("svc")};
    Listening m_listening;
};

struct TcpReconnecting : Reconnecting
{
    TcpReconnecting() : Reconnecting(_T("tcp:127.0.0.1:0")) {}
};
struct NtPipeReconnecting : Reconnecting
{
    NtPipeReconnecting() : Reconnecting(_T("nt_pipe:faults")) {}
};

/// A provider out of a module, which comes and goes with it.
class Module : public Scenario
{
public:
    void Run() override
    {
        Registered const there(_T("mod"), _T("inproc:test_messaging_module@any"));
        CMsgRequest request;
        CString const command(_T("mod"));
        faults::NoThrow("a request", [&] { request.Execute(command); });
        CMsgResponse const & response = request.GetResponse();
        if (response.GetErrorText() != _T("general:any"))
        {
            faults::Check(response, "a request");
            throw faults::Fault{"wrong: the answer of a module"};
        }
    }
};

class Timed : public Scenario
{
public:
    void Run() override
    {
        CString const command(_T("svc.echo"));
        CMsgTimedRequest request(20000, 0);
        request[_T("mark")] = _T("!");
        CMsgCursor rows(_T("questions"));
        rows[_T("name")] = _T("one");
        faults::Perform("a timed request", request, [&](CMsgRequest & call) { call.Execute(command, rows); });
        CMsgCursor answer(request.GetResponse());
        faults::Expect(answer.NextRow() && answer[_T("name")] == _T("one!"), "the answer of a timed request");
    }

private:
    Echo m_echo{_T("svc")};
};

class Notified : public Scenario
{
public:
    void Run() override
    {
        m_echo.Notify(_T("svc"), _T(""));
        m_echo.Notify(_T("svc"), _T("named"));
    }

private:
    Echo m_echo{_T("svc")};
};
} // namespace

namespace faults
{
std::vector<Description> GetRoadScenarios()
{
    return {{"in-process", &Make<InProcess>},
            {"tcp", &Make<Tcp>},
            {"nt-pipe", &Make<NtPipe>},
            {"local-pipe", &Make<LocalPipe>},
            {"local-apipe", &Make<NarrowPipe>},
            {"9x-pipe", &Make<Win9xPipe>},
            {"relay", &Make<Relayed>},
            {"tcp-reconnect", &Make<TcpReconnecting>},
            {"nt-pipe-reconnect", &Make<NtPipeReconnecting>},
            {"module", &Make<Module>},
            {"timed", &Make<Timed>},
            {"notify", &Make<Notified>}};
}
} // namespace faults
