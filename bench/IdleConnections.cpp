/// What connections that wait cost a service in memory, and whether its memory stays flat under load.

#include "Harness.h"
#include "Services.h"

#include "kvx/transport/MsgTCPConnection.h"

#include <memory>
#include <sys/resource.h>

namespace
{
using namespace bench;

constexpr double KIBIBYTE = 1024;

int RunService()
{
    SayLine(std::to_string(StartServices()));
    WaitForParent();
    StopServices();
    return 0;
}

void Call(CMsgRequest & request)
{
    if (request.Execute().Failed())
    {
        Fail("the service doesn't answer: " + kvx::ToUtf8(request.GetResponse().GetErrorText()));
    }
}

void MeasureIdle(int connections)
{
    Child const service({"--serve"});
    int const port = std::stoi(service.ReadLine());
    ConnectServices(port);
    CMsgRequest request;
    request.SetCommand(_T("host.ping"));
    Call(request); // what the service allocates but once isn't the connections'
    double const before = ResidentMemory(service.GetId());
    CString endpoint;
    endpoint.Format(_T("127.0.0.1:%d"), port);
    kvx::RefPtr<CMsgTCPBase::CConnectInfo> const info(new CMsgTCPBase::CConnectInfo(endpoint));
    std::vector<std::unique_ptr<CMsgTCPConnection>> idle;
    for (int i = 0; i < connections; ++i)
    {
        idle.push_back(std::make_unique<CMsgTCPConnection>(info.Get()));
        request.SetConnection(idle.back().get());
        Call(request);
    }
    double const each = (ResidentMemory(service.GetId()) - before) / connections;
    PrintValue("resident memory of an idle connection, thread included", each / KIBIBYTE, 60, "KiB");
    LeaveServices();
}

/// Small tables, by one client.
void MeasureLoad(int requests)
{
    Child const service({"--serve"});
    ConnectServices(std::stoi(service.ReadLine()));
    CMsgRequest request;
    request.SetCommand(_T("host.table.get"));
    FillTableRequest(request, 10, 4);
    for (int i = 1; i <= requests; ++i)
    {
        Call(request);
        for (int const percent : {10, 50, 100})
        {
            if (i == static_cast<LONGLONG>(requests) * percent / 100)
            {
                PrintValue("resident memory of the service at " + std::to_string(percent) + "% of " +
                               std::to_string(requests) + " requests",
                           ResidentMemory(service.GetId()) / KIBIBYTE, 0, "KiB");
            }
        }
    }
    LeaveServices();
}

/// Each connection is a descriptor.
void RaiseLimits()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}
} // namespace

int main(int argc, char ** argv)
{
    Options const options(argc, argv);
    RaiseLimits();
    if (options.Has("serve"))
    {
        return RunService();
    }
    if (options.Wants("idle"))
    {
        MeasureIdle(options.IsBrief() ? 20 : 1000);
    }
    if (options.Wants("load"))
    {
        MeasureLoad(options.IsBrief() ? 200 : 1000000);
    }
    EndLibrary();
    return 0;
}
