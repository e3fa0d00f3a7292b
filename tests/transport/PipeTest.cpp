#include "kvx/logging/LogManager.h"
#include "kvx/messaging/MsgDispatcher.h"
#include "kvx/messaging/MsgMap.h"
#include "kvx/msgdata/MsgCursor.h"
#include "kvx/transport/Msg9XPipeConnection.h"
#include "kvx/transport/MsgNTPipeConnection.h"
#include "kvx/transport/MsgPipeFactory.h"
#include "tests/support/KeptLog.h"

#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <mutex>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char ** environ;

namespace
{
constexpr DWORD PATIENCE = 20000; // milliseconds: what a healthy run never needs

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

int CountEntries(char const * folder)
{
    std::filesystem::directory_iterator const all(folder);
    return static_cast<int>(std::distance(begin(all), end(all)));
}

/// This program as the service of a configuration, told by KVX_PIPE_SERVICE.
class ServiceProcess
{
public:
    explicit ServiceProcess(std::string const & config)
    {
        int out[2];
        EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
        ::setenv("KVX_PIPE_SERVICE", config.c_str(), 1);
        posix_spawn_file_actions_t actions;
        ::posix_spawn_file_actions_init(&actions);
        ::posix_spawn_file_actions_adddup2(&actions, out[1], 9);
        char self[] = "/proc/self/exe";
        char filter[] = "--gtest_filter=PipeService.*";
        char * arguments[] = {self, filter, nullptr};
        EXPECT_EQ(::posix_spawn(&m_nProcess, self, &actions, nullptr, arguments, environ), 0);
        ::posix_spawn_file_actions_destroy(&actions);
        ::unsetenv("KVX_PIPE_SERVICE");
        ::close(out[1]);
        char byte = 0;
        EXPECT_EQ(::read(out[0], &byte, 1), 1);
        ::close(out[0]);
    }
    ~ServiceProcess() { Kill(); }

    void Signal(int signal) const { ::kill(m_nProcess, signal); }
    void Kill()
    {
        if (m_nProcess > 0)
        {
            Signal(SIGKILL);
            ::waitpid(std::exchange(m_nProcess, 0), nullptr, 0);
        }
    }

private:
    pid_t m_nProcess = 0;
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
    EXPECT_EQ(::write(9, "r", 1), 1);
    ::pause();
}

class Pipes : public testing::Test
{
protected:
    Pipes()
    {
        char path[] = "/tmp/kvx-test-XXXXXX";
        m_strFolder = ::mkdtemp(path);
        ::setenv("KVX_RUNTIME_DIR", m_strFolder.c_str(), 1);
        ::setenv("KVX_REGISTRY", (m_strFolder + "/registry").c_str(), 0); // one store for the whole program
        AddServices();
    }
    ~Pipes() override
    {
        CMsgDispatcher::GetInstance()->DeleteTarget(_T("svc"));
        ::unsetenv("KVX_RUNTIME_DIR");
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

    std::string m_strFolder;
};
} // namespace

TEST_F(Pipes, EveryKindOfNamedPipeServes)
{
    for (LPCTSTR const type : {_T("nt_pipe"), _T("local_pipe"), _T("local_apipe")})
    {
        CString const config = CString(type) + _T(":kinds");
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
    CMsgListener * const listener = Listen(_T("nt_pipe:a/b\\..\\c"));
    EXPECT_EQ(CMsgNTPipeConnection(nullptr, _T("machine:pipe:x"), 1).GetPath(), _T("\\\\machine\\pipe\\pipe:x"));
    Remove(listener);

    CMsgNTPipeConnection server(nullptr, _T("raw"), 1);
    CMsgNTPipeConnection accepted(nullptr, _T("raw"), 1);
    CMsgNTPipeConnection client(nullptr, _T("raw"), 1);
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
    EXPECT_EQ(info.GetValue(_T("path")), _T("\\\\.\\pipe\\raw"));
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
    CMsgNTPipeConnection client(nullptr, _T("full"), 1);
    EXPECT_FALSE(client.Connect());
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_CONNECTED});
    EXPECT_THAT(lines.Take(), testing::ElementsAre(testing::HasSubstr("] Connection: ")));
    // A living server that has no room for one more client.
    int const server = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string const path = m_strFolder + "/pipe.full";
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    auto const * const generic = reinterpret_cast<sockaddr const *>(&address);
    ASSERT_EQ(::bind(server, generic, sizeof(address)) | ::listen(server, 0), 0);
    int const lock = ::open((path + "+lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock whole
    {
    };
    whole.l_type = F_WRLCK;
    ASSERT_EQ(::fcntl(lock, F_OFD_SETLK, &whole), 0);
    int const first = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::connect(first, generic, sizeof(address)), 0);
    EXPECT_FALSE(client.Connect());
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_CONNECTED});
    EXPECT_THAT(lines.Take(),
                testing::ElementsAre(testing::EndsWith("Connect retry 1"), testing::EndsWith("Connect retry 2"),
                                     testing::EndsWith("Connect retry 3"), testing::EndsWith("Connect retry 4"),
                                     testing::EndsWith("Connect retry 5"), testing::HasSubstr("] Connection: ")));
    for (int const descriptor : {server, lock, first})
    {
        ::close(descriptor);
    }

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
    CMsgListener * const listener = Listen(_T("nt_pipe:many"));
    kvx::RefPtr<CMsgProvider> const client = Connect(_T("nt_pipe:many"));
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

TEST_F(Pipes, StartingAndStoppingUnderClientsLeavesNothingBehind)
{
    constexpr int ROUNDS = 1000;
    int descriptors = 0;
    int threads = 0;
    CMsgListener * const listener = Listen(_T("nt_pipe:rounds"));
    for (int round = 0; round < ROUNDS; ++round)
    {
        {
            kvx::RefPtr<CMsgProvider> const client = Connect(_T("nt_pipe:rounds"));
            CMsgNTPipeConnection silent(nullptr, _T("rounds"), 1);
            EXPECT_TRUE(silent.Connect());
            CMsgRequest request;
            request.DiscardResults(round % 2);
            client->Service(request);
            listener->StopListener();
            ASSERT_TRUE(listener->StartListener());
        }
        if (round == ROUNDS / 4)
        {
            descriptors = CountEntries("/proc/self/fd");
            threads = CountEntries("/proc/self/task");
        }
    }
    EXPECT_LE(CountEntries("/proc/self/fd"), descriptors + 2);
    EXPECT_LE(CountEntries("/proc/self/task"), threads + 2);
    Remove(listener);
    EXPECT_EQ(std::filesystem::exists(m_strFolder + "/pipe.rounds"), false);
}

TEST_F(Pipes, DisconnectBreaksAcceptsAndCalls)
{
    for (int round = 0; round < 50; ++round)
    {
        CMsgNTPipeConnection server(nullptr, _T("break"), 1);
        CMsgNTPipeConnection accepted(nullptr, _T("break"), 1);
        CMsg9XPipeConnection server9x(nullptr, _T("break9x"));
        CMsg9XPipeConnection accepted9x(nullptr, _T("break9x"));
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

TEST_F(Pipes, AKilledServiceIsAnErrorAndComesBack)
{
    for (LPCTSTR const config : {_T("nt_pipe:victim"), _T("9x_pipe:victim")})
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
                service.Signal(SIGSTOP); // then even a client in the middle of connecting has nobody to talk to
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
    KeptLog lines;
    CMsg9XPipeConnection client(nullptr, _T("scheme"));
    EXPECT_FALSE(client.Connect());
    EXPECT_THAT(lines.Take(), testing::ElementsAre(testing::EndsWith("] Query server handle: Invalid server handle")));

    CMsg9XPipeConnection server(nullptr, _T("scheme"));
    CMsg9XPipeConnection accepted(nullptr, _T("scheme"));
    EXPECT_TRUE(server.Listen());
    DWORD value = 0;
    DWORD size = sizeof(value);
    HKEY key = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, _T("Software\\QMRT\\System\\9XPipe\\scheme"), 0, KEY_READ, &key), 0);
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
    EXPECT_EQ(info.GetValue(_T("type")) + info.GetValue(_T("path")), _T("9XPipescheme"));
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
    CMsg9XPipeConnection successor(nullptr, _T("scheme"));
    EXPECT_TRUE(successor.Listen());
    EXPECT_TRUE(server.Disconnect() && server.Disconnect());
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, _T("Software\\QMRT\\System\\9XPipe\\scheme"), 0, KEY_READ, &key), 0);
    RegCloseKey(key);
    // One that withdraws while a client waits for it lets the client go.
    std::thread waiter([&] { EXPECT_FALSE(client.Connect()); });
    Sleep(20);
    EXPECT_TRUE(successor.Disconnect());
    waiter.join();
    EXPECT_NE(RegOpenKeyExW(HKEY_LOCAL_MACHINE, _T("Software\\QMRT\\System\\9XPipe\\scheme"), 0, KEY_READ, &key), 0);
}
