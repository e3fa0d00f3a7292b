// The C library's names come first, and must not get in the way of the namespace.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "SocketsFixture.h"

#include <csignal>
#include <optional>

using HostSockets = Sockets;

namespace
{

TEST_F(HostSockets, CloseEndsConnect)
{
    Churn churn;
    // A queue that is full leaves further connects waiting; the system makes it longer than asked for.
    constexpr int MORE_THAN_QUEUED = 160;
    Socket const listener = Listener(0, 0);
    SockAddrIn const to = Local(PortOf(listener));
    std::vector<int> fillers;
    for (int n = 0; n < MORE_THAN_QUEUED; ++n)
    {
        fillers.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        ::connect(fillers.back(), reinterpret_cast<sockaddr const *>(&to), sizeof to);
    }
    for (int nRound = 0; nRound < ROUNDS; ++nRound)
    {
        Socket client;
        CloseUnder(client, nRound, [&](SOCKET hClient) { return winsock::connect(hClient, Generic(to), sizeof to); });
    }
    for (int const nFiller : fillers)
    {
        close(nFiller);
    }
}

TEST_F(HostSockets, SignalsDoNotBreakCalls)
{
    struct sigaction action
    {
    };
    struct sigaction before;
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &before); // without SA_RESTART
    Socket hListener = Listener();
    Socket hClient = ConnectTo(PortOf(hListener));
    char c = 0;
    std::thread reader(
        [&]
        {
            Socket const hServer = winsock::accept(hListener, nullptr, nullptr);
            Socket const hSecond = winsock::accept(hListener, nullptr, nullptr);
            EXPECT_EQ(SelectOne(hSecond, true), 1);
            EXPECT_EQ(winsock::recv(hServer, &c, 1, 0), 1);
        });
    std::optional<Socket> other;
    for (int nStep = 0; nStep < 3; ++nStep)
    {
        for (int n = 0; n < 20; ++n)
        {
            pthread_kill(reader.native_handle(), SIGUSR1);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        if (nStep == 0)
        {
            other.emplace(ConnectTo(PortOf(hListener)));
        }
        else
        {
            winsock::send(nStep == 1 ? *other : hClient, "y", 1, 0);
        }
    }
    reader.join();
    EXPECT_EQ(c, 'y');
    sigaction(SIGUSR1, &before, nullptr);
}

} // namespace
