#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgMap.h"
#include "kvx/msgdata/MsgCursor.h"
#include "kvx/transport/Msg9XPipeConnection.h"
#include "kvx/transport/MsgNTPipeConnection.h"
#include "kvx/transport/MsgPipeFactory.h"
#include "tests/support/Host.h"
#include "tests/support/KeptLog.h"
#include "tests/support/OneHost.h"
#include "tests/support/Patience.h"

#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace
{
void Echo(CMsgRequest & request, void *)
{
    request.SetResponseValues(request);
}

void SleepFor(CMsgRequest & request, void *)
{
    Sleep(request[_T("ms")]);
}

void AddServices()
{
    CMsgDispatcher::GetInstance()->RegisterProvider(_T("svc.echo"), &Echo, nullptr);
    CMsgDispatcher::GetInstance()->RegisterProvider(_T("svc.sleep"), &SleepFor, nullptr);
}

/// This program as the service of a configuration, told by KVX_PIPE_SERVICE.
class ServiceProcess : public host::Process
{
public:
    explicit ServiceProcess(std::string const & config)
        : Process({host::GetProgram(), "--gtest_filter=PipeService.*"}, host::Stdout::Pipe,
                  {{"KVX_PIPE_SERVICE", config}})
    {
        EXPECT_EQ(ReadReport(), "serves");
    }
};

TEST(PipeService, Run)
{
    char const * const config = std::getenv("KVX_PIPE_SERVICE");
    if (!config)
    {
        return;
    }
    AddServices();
    CMsgListener * const listener = CMsgDispatcher::GetInstance()->RegisterListener(_T(""), kvx::FromUtf8(config), 0);
    // A 9x_pipe listener's own start would wait a minute.
    ASSERT_TRUE(listener && listener->CMsgListener::StartListener() && listener->WaitUntilListening(PATIENCE));
    kvx::RefPtr<CMsgProvider> const probe(CMsgDispatcher::GetInstance()->CreateProvider(kvx::FromUtf8(config)));
    CMsgRequest request;
    do
    {
        request.GetResponse().SetError(0, nullptr);
        request.SetCommand(_T("svc.echo"));
        probe->Service(request);
    } while (request.GetResponse().Failed());
    host::Report("serves");
    Sleep(INFINITE);
}

/// A pipe's name, or a configuration with it, that no other run of the program has.
CString Own(CString const & name)
{
    CString own;
    own.Format(_T("%s-%u"), name, GetCurrentProcessId());
    return own;
}

class Pipes : public testing::Test
{
protected:
    /// One registry for the whole program.
    static void SetUpTestSuite()
    {
        sm_strStore = host::MakeFolder("kvx-pipes-registry");
        host::SetVariable("KVX_REGISTRY", (sm_strStore + "/registry").c_str());
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(sm_strStore); }

    Pipes()
    {
        host::SetVariable("KVX_RUNTIME_DIR", m_strFolder.c_str());
        AddServices();
    }
    ~Pipes() override
    {
        CMsgDispatcher::GetInstance()->DeleteTarget(_T("svc"));
        host::SetVariable("KVX_RUNTIME_DIR", nullptr);
        std::filesystem::remove_all(m_strFolder);
    }

    static kvx::RefPtr<CMsgProvider> Connect(LPCTSTR config)
    {
        return kvx::RefPtr<CMsgProvider>(CMsgDispatcher::GetInstance()->CreateProvider(config));
    }
    static CMsgListener * Listen(LPCTSTR config)
    {
        CMsgListener * const listener = CMsgDispatcher::GetInstance()->RegisterListener(_T(""), config, 1);
        EXPECT_TRUE(listener && listener->WaitUntilListening(PATIENCE)) << GetLastError();
        return listener;
    }
    static void Remove(CMsgListener * listener)
    {
        listener->StopListener();
        CMsgDispatcher::GetInstance()->GetRootTarget()->RemoveProvider(listener, 1);
    }
    /// The error code, or -1 when something else came back than was sent.
    static int Call(CMsgProvider & client, CMsgRequest & request, LPCTSTR command = _T("svc.echo"))
    {
        request.SetCommand(command);
        request.GetResponse().SetError(0, nullptr);
        if (!request.HasValue(_T("v")))
        {
            request[_T("v")] = 1;
        }
        client.Service(request);
        if (request.GetResponse().Failed())
        {
            return static_cast<int>(request.GetResponse().GetErrorCode());
        }
        CMsgCursor rows(request.GetResponse());
        bool const bSame = rows.NextRow() && rows[_T("v")] == request.GetValue(_T("v"));
        return bSame ? 0 : -1;
    }

    static inline std::string sm_strStore;
    std::string const m_strFolder = host::MakeFolder("kvx-pipes");
};
} // namespace

TEST_F(Pipes, EveryKindOfNamedPipeServes)
{
    for (LPCTSTR const type : {_T("nt_pipe"), _T("local_pipe"), _T("local_apipe")})
    {
        CString const config = Own(CString(type) + _T(":kinds"));
        CMsgListener * const listener = Listen(config);
        kvx::RefPtr<CMsgProvider> const client = Connect(config);
        CMsgRequest request;
        request[_T("v")] = CString(type) == _T("local_apipe") ? _T("gr\u00fc\u00df") : _T("\u4e16\u754c");
        EXPECT_EQ(Call(*client, request), 0);
        request[_T("v")] = CString(_T('x'), 3000000);
        EXPECT_EQ(Call(*client, request), 0);
        Remove(listener);
    }
    // The first bytes are always the plain tag; a server would take the other one.
    CMsgListener * const listener = Listen(Own(_T("nt_pipe:a/b\\..\\c")));
    EXPECT_EQ(CMsgNTPipeConnection(nullptr, _T("machine:pipe:x"), 1).GetPath(), _T("\\\\machine\\pipe\\pipe:x"));
    Remove(listener);

    CMsgNTPipeConnection server(nullptr, Own(_T("raw")), 1);
    CMsgNTPipeConnection accepted(nullptr, Own(_T("raw")), 1);
    CMsgNTPipeConnection client(nullptr, Own(_T("raw")), 1);
    std::thread acceptor([&] { EXPECT_TRUE(server.Accept(&accepted)); });
    while (!client.Connect())
    {
    }
    acceptor.join();
    EXPECT_FALSE(client.AuthenticateClient(1));
    EXPECT_TRUE(client.IsConnected() && accepted.IsConnected());
    EXPECT_TRUE(client.WriteData("VJOP", 4) && client.FlushData());
    int bCompact = 0;
    EXPECT_TRUE(accepted.AuthenticateServer(bCompact) && bCompact);
    CDictionary info;
    EXPECT_TRUE(accepted.GetConnectionInfo(info));
    EXPECT_EQ(info.GetValue(_T("type")), _T("NTPipe"));
    EXPECT_EQ(info.GetValue(_T("path")), _T("\\\\.\\pipe\\") + Own(_T("raw")));
    EXPECT_EQ(client.GetReadHandle(), client.GetWriteHandle());
    EXPECT_TRUE(accepted.Disconnect() && accepted.Disconnect());
    char tag[5];
    EXPECT_TRUE(client.ReadData(tag, 4)); // what was written before is still there
    EXPECT_FALSE(client.IsConnected());
    server.Disconnect();
}

TEST_F(Pipes, MissingAndBusyPipesAreToldApart)
{
    KeptLog lines;
    CMsgNTPipeConnection client(nullptr, Own(_T("full")), 1);
    EXPECT_FALSE(client.Connect());
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_CONNECTED});
    EXPECT_THAT(lines.Take(), testing::ElementsAre(testing::HasSubstr("] Connection: ")));

    // A listener that can't have its pipe says so.
    kvx::RefPtr<CMsgListener> const hopeless(
        CMsgDispatcher::GetInstance()->CreateListener(_T("nt_pipe:") + CString(_T('x'), 10000)));
    EXPECT_TRUE(hopeless->StartListener());
    EXPECT_FALSE(hopeless->WaitUntilListening(PATIENCE));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILENAME_EXCED_RANGE});
    EXPECT_TRUE(hopeless->StopListener());
}

TEST_F(Pipes, ConcurrentCallsHaveAConnectionEach)
{
    CMsgListener * const listener = Listen(Own(_T("nt_pipe:many")));
    kvx::RefPtr<CMsgProvider> const client = Connect(Own(_T("nt_pipe:many")));
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
    {
        threads.emplace_back(
            [&, t]
            {
                CMsgRequest request;
                for (int i = 0; i < 200; ++i)
                {
                    request[_T("v")] = t * 1000 + i;
                    request.KeepAlive(i % 3 != 0);
                    good += Call(*client, request) == 0;
                }
            });
    }
    for (std::thread & thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(good, 8 * 200);
    // A service that goes ends the calls at once, and one that comes back is found without a failure in between.
    CMsgRequest request;
    request[_T("ms")] = 300;
    std::atomic<int> result{0};
    std::thread caller([&] { result = Call(*client, request, _T("svc.sleep")); });
    Sleep(50);
    CMsgRequest other;
    for (int i = 0; i < 10; ++i)
    {
        listener->StopListener();
        EXPECT_EQ(Call(*client, other), ERROR_NOT_CONNECTED);
        if (i == 0)
        {
            caller.join();
            EXPECT_NE(result, 0);
        }
        ASSERT_TRUE(listener->StartListener());
        EXPECT_EQ(Call(*client, other), 0);
    }
    Remove(listener);
}

TEST_F(Pipes, ABurstOfClientsIsServed)
{
    constexpr int CLIENTS = 60;
    CMsgListener * const listener = Listen(Own(_T("nt_pipe:burst")));
    std::atomic<int> good{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < CLIENTS; ++t)
    {
        threads.emplace_back(
            [&]
            {
                CMsgRequest request;
                good += Call(*Connect(Own(_T("nt_pipe:burst"))), request) == 0;
            });
    }
    for (std::thread & thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(good, CLIENTS);
    Remove(listener);
}

TEST_F(Pipes, AClientThatDoesntReadHoldsUpNobody)
{
    // One stops reading in the middle of an answer that no buffer holds; one has a short answer unread.
    CMsgListener * const listener = Listen(Own(_T("nt_pipe:deaf")));
    CMsgNTPipeConnection busy(nullptr, Own(_T("deaf")), 1);
    CMsgNTPipeConnection idle(nullptr, Own(_T("deaf")), 1);
    CMsgRequest request;
    request.SetCommand(_T("svc.echo"));
    for (CMsgConnection * const client : {&busy, &idle})
    {
        request[_T("v")] = CString(_T('x'), client == &busy ? 3000000 : 3);
        ASSERT_TRUE(client->Connect() && client->AuthenticateClient(0));
        ASSERT_TRUE(request.Write(*client) && client->FlushData());
    }
    kvx::RefPtr<CMsgProvider> const other = Connect(Own(_T("nt_pipe:deaf")));
    CMsgRequest more;
    EXPECT_EQ(Call(*other, more), 0);
    DWORD available = 0;
    while (available == 0)
    {
        ASSERT_TRUE(PeekNamedPipe(idle.GetReadHandle(), nullptr, 0, nullptr, &available, nullptr));
    }
    EXPECT_TRUE(listener->StopListener());
    EXPECT_FALSE(listener->IsListening());
    ASSERT_TRUE(listener->StartListener()); // has nothing to wait for
    EXPECT_EQ(Call(*other, more), 0);
    EXPECT_TRUE(request.GetResponse().Read(idle)); // the stop has taken away nothing
    EXPECT_FALSE(request.GetResponse().Read(busy));
    Remove(listener);
}

TEST_F(Pipes, StartingAndStoppingUnderClientsLeavesNothingBehind)
{
    constexpr int ROUNDS = 1000;
    std::size_t handles = 0;
    std::size_t threads = 0;
    CMsgListener * const listener = Listen(Own(_T("nt_pipe:rounds")));
    for (int round = 0; round < ROUNDS; ++round)
    {
        {
            kvx::RefPtr<CMsgProvider> const client = Connect(Own(_T("nt_pipe:rounds")));
            CMsgNTPipeConnection silent(nullptr, Own(_T("rounds")), 1);
            EXPECT_TRUE(silent.Connect());
            CMsgRequest request;
            request.DiscardResults(round % 2);
            client->Service(request);
            listener->StopListener();
            ASSERT_TRUE(listener->StartListener());
        }
        if (round == ROUNDS / 4)
        {
            handles = host::CountHandles();
            threads = host::CountThreads();
        }
    }
    EXPECT_LE(host::CountHandles(), handles + 2);
    EXPECT_LE(host::CountThreads(), threads + 2);
    Remove(listener);
    EXPECT_EQ(std::filesystem::exists(m_strFolder + "/pipe." + kvx::ToUtf8(Own(_T("rounds")))), false);
}

TEST_F(Pipes, DisconnectBreaksAcceptsAndCalls)
{
    for (int round = 0; round < 50; ++round)
    {
        CMsgNTPipeConnection server(nullptr, Own(_T("break")), 1);
        CMsgNTPipeConnection accepted(nullptr, Own(_T("break")), 1);
        CMsg9XPipeConnection server9x(nullptr, Own(_T("break9x")));
        CMsg9XPipeConnection accepted9x(nullptr, Own(_T("break9x")));
        EXPECT_TRUE(server9x.Listen());
        std::atomic<int> left{2};
        std::thread acceptor(
            [&]
            {
                EXPECT_FALSE(server.Accept(&accepted));
                --left;
            });
        std::thread acceptor9x(
            [&]
            {
                EXPECT_FALSE(server9x.Accept(&accepted9x));
                --left;
            });
        for (Sleep(static_cast<DWORD>(round % 2)); left > 0; SwitchToThread())
        {
            server.Disconnect();
            server9x.Disconnect();
        }
        acceptor.join();
        acceptor9x.join();
    }
}

TEST_F(Pipes, DisconnectBreaksTransfersOnEitherEnd)
{
    CMsgNTPipeConnection server(nullptr, Own(_T("ends")), 1);
    CMsgNTPipeConnection accepted(nullptr, Own(_T("ends")), 1);
    CMsgNTPipeConnection client(nullptr, Own(_T("ends")), 1);
    std::vector<char> bytes(4000000); // more than any pipe takes
    auto const size = static_cast<DWORD>(bytes.size());
    for (int round = 0; round < 100; ++round)
    {
        CMsgConnection & busy = round % 2 ? client : accepted;
        std::thread acceptor([&] { EXPECT_TRUE(server.Accept(&accepted)); });
        while (!client.Connect())
        {
        }
        acceptor.join();
        std::thread working(
            [&]
            {
                bool const bReads = round % 4 < 2;
                EXPECT_FALSE(bReads ? busy.ReadData(bytes.data(), 1) : busy.WriteData(bytes.data(), size));
            });
        Sleep(static_cast<DWORD>(round % 3)); // it is inside, or about to be
        EXPECT_TRUE(busy.Disconnect());
        working.join();
        EXPECT_FALSE(busy.IsConnected());
    }
}

TEST_F(Pipes, AKilledServiceIsAnErrorAndComesBack)
{
    for (CString const & config : {Own(_T("nt_pipe:victim")), Own(_T("9x_pipe:victim"))})
    {
        kvx::RefPtr<CMsgProvider> const client = Connect(config);
        for (int round = 0; round < 6; ++round)
        {
            ServiceProcess service(kvx::ToUtf8(config));
            CMsgRequest request;
            EXPECT_EQ(Call(*client, request), 0) << round;
            std::atomic<bool> bStop{false};
            std::vector<std::thread> callers;
            for (int t = 0; t < 3; ++t)
            {
                callers.emplace_back(
                    [&, t]
                    {
                        // One of them always connects anew, one waits in a long call.
                        CMsgRequest mine;
                        mine[_T("v")] = t;
                        mine[_T("ms")] = 60000;
                        mine.KeepAlive(t != 1);
                        while (!bStop && Call(*client, mine, t == 2 ? _T("svc.sleep") : _T("svc.echo")) == 0)
                        {
                        }
                        EXPECT_TRUE(mine.GetResponse().Failed());
                    });
            }
            Sleep(static_cast<DWORD>(20 + round));
            if (round % 2)
            {
                service.Stop(); // then even a client in the middle of connecting has nobody to talk to
                Sleep(5);
            }
            service.Kill();
            for (std::thread & caller : callers)
            {
                caller.join(); // or the test's time-out tells
            }
        }
        EXPECT_NE(Call(*client, *std::make_unique<CMsgRequest>()), 0);
    }
}

TEST_F(Pipes, TheRegistrySchemeKeepsItsRecordsAndErrors)
{
    CString const path = _T("Software\\QMRT\\System\\9XPipe\\") + Own(_T("scheme"));
    KeptLog lines;
    CMsg9XPipeConnection client(nullptr, Own(_T("scheme")));
    EXPECT_FALSE(client.Connect());
    EXPECT_THAT(lines.Take(), testing::ElementsAre(testing::EndsWith("] Query server handle: Invalid server handle")));

    CMsg9XPipeConnection server(nullptr, Own(_T("scheme")));
    CMsg9XPipeConnection accepted(nullptr, Own(_T("scheme")));
    EXPECT_TRUE(server.Listen());
    DWORD value = 0;
    DWORD size = sizeof(value);
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key), 0);
    EXPECT_EQ(RegQueryValueExW(key, _T("p"), nullptr, nullptr, reinterpret_cast<BYTE *>(&value), &size), 0);
    EXPECT_EQ(value, GetCurrentProcessId());
    EXPECT_EQ(RegQueryValueExW(key, _T("h"), nullptr, nullptr, reinterpret_cast<BYTE *>(&value), &size), 0);
    EXPECT_EQ(value, static_cast<DWORD>(reinterpret_cast<UINT_PTR>(server.GetWriteHandle())));
    RegCloseKey(key);

    std::thread acceptor([&] { EXPECT_TRUE(server.Accept(&accepted)); });
    EXPECT_TRUE(client.Connect());
    acceptor.join();
    EXPECT_TRUE(client.WriteData("hello", 5) && client.FlushData());
    char text[6] = {};
    EXPECT_TRUE(accepted.ReadData(text, 5));
    EXPECT_STREQ(text, "hello");
    CDictionary info;
    EXPECT_TRUE(client.GetConnectionInfo(info));
    EXPECT_EQ(info.GetValue(_T("type")) + info.GetValue(_T("path")), _T("9XPipe") + Own(_T("scheme")));
    accepted.Disconnect();
    EXPECT_FALSE(client.IsConnected());

    // Records that lead nowhere end the listening.
    auto const send = [&](DWORD process, DWORD handle)
    {
        DWORD const record[2] = {process, handle};
        DWORD written = 0;
        EXPECT_TRUE(WriteFile(server.GetWriteHandle(), record, sizeof(record), &written, nullptr));
        return server.Accept(&accepted);
    };
    EXPECT_FALSE(send(0, 1));
    EXPECT_FALSE(send(GetCurrentProcessId(), 0x7FFFFFF0));
    // A client that is gone before it was answered.
    HANDLE read = nullptr;
    HANDLE write = nullptr;
    ASSERT_TRUE(CreatePipe(&read, &write, nullptr, 0));
    CloseHandle(read);
    EXPECT_FALSE(send(GetCurrentProcessId(), static_cast<DWORD>(reinterpret_cast<UINT_PTR>(write))));
    CloseHandle(write);

    // A server leaves another one's key alone.
    CMsg9XPipeConnection successor(nullptr, Own(_T("scheme")));
    EXPECT_TRUE(successor.Listen());
    EXPECT_TRUE(server.Disconnect() && server.Disconnect());
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key), 0);
    RegCloseKey(key);
    // One that withdraws while a client waits for it lets the client go.
    std::thread waiter([&] { EXPECT_FALSE(client.Connect()); });
    Sleep(20);
    EXPECT_TRUE(successor.Disconnect());
    waiter.join();
    EXPECT_NE(RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &key), 0);
}
