// The C library's names come first, and must not get in the way of the namespace.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Descriptors.h"
#include "kvx/platform/win32/errors.h"
#include "kvx/platform/win32/handles.h"
#include "kvx/platform/win32/sockets.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace
{

using namespace winsock;

SockAddrIn Local(USHORT nPort)
{
    SockAddrIn address{};
    address.sin_family = AddressFamilyInet;
    address.sin_addr.s_addr = (winsock::htonl)(AddressLoopback);
    address.sin_port = (winsock::htons)(nPort);
    return address;
}

SockAddr const * Generic(SockAddrIn const & address)
{
    return reinterpret_cast<SockAddr const *>(&address);
}

USHORT PortOf(SOCKET hSocket)
{
    SockAddrIn address{};
    int nLength = sizeof address;
    EXPECT_EQ(winsock::getsockname(hSocket, reinterpret_cast<SockAddr *>(&address), &nLength), 0);
    return (winsock::ntohs)(address.sin_port);
}

SOCKET Listener(USHORT nPort = 0, int nBacklog = 5)
{
    SOCKET const hListener = winsock::socket(AddressFamilyInet, SocketStream, 0);
    EXPECT_EQ(winsock::bind(hListener, Generic(Local(nPort)), sizeof(SockAddrIn)), 0);
    EXPECT_EQ(winsock::listen(hListener, nBacklog), 0);
    return hListener;
}

SOCKET ConnectTo(USHORT nPort)
{
    SOCKET const hClient = winsock::socket(AddressFamilyInet, SocketStream, 0);
    EXPECT_EQ(winsock::connect(hClient, Generic(Local(nPort)), sizeof(SockAddrIn)), 0) << GetLastError();
    return hClient;
}

class Sockets : public testing::Test
{
protected:
    ~Sockets() override
    {
        EXPECT_EQ(CountDescriptors(), m_nDescriptors) << "descriptors leak";
        EXPECT_EQ(kvx::win32::GetOpenHandleCount(), m_nHandles) << "sockets leak";
    }

    std::size_t const m_nDescriptors = CountDescriptors();
    std::uint32_t const m_nHandles = kvx::win32::GetOpenHandleCount();
};

/// Runs `call` in a thread and closes the socket under it, at once or a little later.
void CloseUnder(SOCKET hSocket, int nRound, std::function<void()> const & call)
{
    std::atomic<bool> bStarted{false};
    std::thread thread(
        [&]
        {
            bStarted = true;
            call();
        });
    while (!bStarted)
        std::this_thread::yield();
    if (nRound % 3 != 0)
        std::this_thread::sleep_for(std::chrono::microseconds(nRound % 3 * 150));
    EXPECT_EQ(winsock::closesocket(hSocket), 0);
    thread.join(); // ends, or the test's time-out tells
    EXPECT_EQ(winsock::closesocket(hSocket), SOCKET_ERROR);
    EXPECT_EQ(GetLastError(), WSAENOTSOCK);
}

constexpr int Rounds = 200;

/// What a call may say when its socket is closed before or while it works.
bool IsClosingError(DWORD dwError)
{
    return dwError == WSAEINTR || dwError == WSAENOTSOCK;
}

TEST_F(Sockets, CloseEndsAccept)
{
    Churn churn;
    for (int nRound = 0; nRound < Rounds; ++nRound)
    {
        SOCKET const hListener = Listener();
        CloseUnder(hListener, nRound,
                   [&]
                   {
                       EXPECT_EQ(winsock::accept(hListener, nullptr, nullptr), INVALID_SOCKET);
                       EXPECT_TRUE(IsClosingError(GetLastError())) << GetLastError();
                   });
    }
}

TEST_F(Sockets, CloseEndsRecvSendAndSelect)
{
    Churn churn;
    SOCKET const hListener = Listener();
    USHORT const nPort = PortOf(hListener);
    for (int nRound = 0; nRound < Rounds; ++nRound)
    {
        SOCKET const hClient = ConnectTo(nPort);
        SOCKET const hServer = winsock::accept(hListener, nullptr, nullptr);
        CloseUnder(hServer, nRound,
                   [&]
                   {
                       static std::vector<char> const s_buffer(1 << 20);
                       char c;
                       int nResult = 0;
                       switch (nRound % 4)
                       {
                       case 0:
                           nResult = winsock::recv(hServer, &c, 1, 0);
                           break;
                       case 1:
                           do // until the peer's window is full
                               nResult = winsock::send(hServer, s_buffer.data(), static_cast<int>(s_buffer.size()), 0);
                           while (nResult > 0);
                           break;
                       default:
                           FdSet set;
                           FdZero(set);
                           FdAdd(hServer, set);
                           nResult = nRound % 4 == 2 ? winsock::select(0, &set, nullptr, nullptr, nullptr)
                                                     : winsock::select(0, nullptr, nullptr, &set, nullptr);
                       }
                       EXPECT_EQ(nResult, SOCKET_ERROR);
                       EXPECT_TRUE(IsClosingError(GetLastError())) << GetLastError();
                   });
        winsock::closesocket(hClient);
    }
    winsock::closesocket(hListener);
}

TEST_F(Sockets, CloseEndsConnect)
{
    Churn churn;
    // A queue that is full leaves further connects waiting; the system makes it longer than asked for.
    constexpr int MORE_THAN_QUEUED = 160;
    SOCKET const hListener = Listener(0, 0);
    USHORT const nPort = PortOf(hListener);
    std::vector<int> fillers;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = (::htons)(nPort);
    address.sin_addr.s_addr = (::htonl)(INADDR_LOOPBACK);
    for (int n = 0; n < MORE_THAN_QUEUED; ++n)
    {
        fillers.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        ::connect(fillers.back(), reinterpret_cast<sockaddr *>(&address), sizeof address);
    }
    for (int nRound = 0; nRound < Rounds; ++nRound)
    {
        SOCKET const hClient = winsock::socket(AddressFamilyInet, SocketStream, 0);
        CloseUnder(hClient, nRound,
                   [&]
                   {
                       EXPECT_EQ(winsock::connect(hClient, Generic(Local(nPort)), sizeof(SockAddrIn)), SOCKET_ERROR);
                       EXPECT_TRUE(IsClosingError(GetLastError())) << GetLastError();
                   });
    }
    for (int const nFiller : fillers)
        close(nFiller);
    winsock::closesocket(hListener);
}

TEST_F(Sockets, BytesGoBothWaysWithoutSignals)
{
    WSADATA data;
    EXPECT_EQ(WSAStartup(0x0202, &data), 0);
    SOCKET const hListener = Listener();
    SOCKET const hClient = ConnectTo(PortOf(hListener));
    SockAddrIn peer{};
    int nLength = sizeof peer;
    SOCKET const hServer = winsock::accept(hListener, reinterpret_cast<SockAddr *>(&peer), &nLength);
    ASSERT_NE(hServer, INVALID_SOCKET);
    EXPECT_EQ((winsock::ntohs)(peer.sin_port), PortOf(hClient));
    EXPECT_STREQ(winsock::inet_ntoa(peer.sin_addr), "127.0.0.1");
    SockAddrIn again{};
    EXPECT_EQ(winsock::getpeername(hServer, reinterpret_cast<SockAddr *>(&again), &nLength), 0);
    EXPECT_EQ(again.sin_port, peer.sin_port);
    nLength = 8;
    EXPECT_EQ(winsock::getpeername(hServer, reinterpret_cast<SockAddr *>(&again), &nLength), SOCKET_ERROR);
    EXPECT_EQ(GetLastError(), WSAEFAULT);

    // A long text in full, while the reader takes it in crumbs.
    std::string const strSent(3000000, 's');
    std::thread sender(
        [&]
        {
            EXPECT_EQ(winsock::send(hClient, strSent.data(), static_cast<int>(strSent.size()), 0), 3000000);
            EXPECT_EQ(winsock::shutdown(hClient, ShutdownSend), 0);
        });
    char szBuffer[5000];
    EXPECT_EQ(winsock::recv(hServer, szBuffer, 1, ReceivePeek), 1);
    EXPECT_EQ(winsock::recv(hServer, szBuffer, 5000, ReceiveWaitAll), 5000);
    std::size_t nReceived = 5000;
    for (int n; (n = winsock::recv(hServer, szBuffer, 3000, 0)) > 0;)
        nReceived += static_cast<std::size_t>(n);
    sender.join();
    EXPECT_EQ(nReceived, strSent.size());
    EXPECT_EQ(winsock::recv(hServer, szBuffer, 3000, 0), 0); // an orderly end

    // Handles and flags that can't be.
    EXPECT_EQ(winsock::recv(hServer, szBuffer, -1, 0), SOCKET_ERROR);
    EXPECT_EQ(winsock::recv(hServer, szBuffer, 1, 0x100), SOCKET_ERROR);
    EXPECT_EQ(GetLastError(), WSAEOPNOTSUPP);
    for (SOCKET const hBad : {SOCKET{0}, INVALID_SOCKET, SOCKET{3}, SOCKET{0x7FFFFFFC}})
    {
        EXPECT_EQ(winsock::recv(hBad, szBuffer, 1, 0), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAENOTSOCK);
    }

    // The peer gone: an error in the end, and no signal, which would end the program.
    std::signal(SIGPIPE, SIG_DFL);
    winsock::closesocket(hServer);
    int nResult = 1;
    for (int n = 0; n < 1000 && nResult == 1; ++n)
    {
        nResult = winsock::send(hClient, "x", 1, 0);
        std::this_thread::yield();
    }
    EXPECT_EQ(nResult, SOCKET_ERROR);
    EXPECT_TRUE(GetLastError() == WSAECONNRESET || GetLastError() == WSAECONNABORTED || GetLastError() == WSAESHUTDOWN)
        << GetLastError();
    winsock::closesocket(hClient);
    winsock::closesocket(hListener);
    SOCKET const hRefused = winsock::socket(AddressFamilyInet, SocketStream, 0);
    EXPECT_EQ(winsock::connect(hRefused, Generic(Local(1)), sizeof(SockAddrIn)), SOCKET_ERROR);
    EXPECT_EQ(GetLastError(), WSAECONNREFUSED);
    winsock::closesocket(hRefused);
}

TEST_F(Sockets, SignalsDoNotBreakCalls)
{
    struct sigaction action
    {
    };
    struct sigaction before;
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, &before); // without SA_RESTART
    SOCKET const hListener = Listener();
    SOCKET const hClient = ConnectTo(PortOf(hListener));
    SOCKET hServer = INVALID_SOCKET;
    char c = 0;
    std::thread reader(
        [&]
        {
            hServer = winsock::accept(hListener, nullptr, nullptr);
            SOCKET const hSecond = winsock::accept(hListener, nullptr, nullptr);
            EXPECT_NE(hSecond, INVALID_SOCKET);
            FdSet set;
            FdZero(set);
            FdAdd(hSecond, set);
            EXPECT_EQ(winsock::select(0, &set, nullptr, nullptr, nullptr), 1);
            EXPECT_EQ(winsock::recv(hServer, &c, 1, 0), 1);
            winsock::closesocket(hSecond);
        });
    SOCKET hOther = INVALID_SOCKET;
    for (int nStep = 0; nStep < 3; ++nStep)
    {
        for (int n = 0; n < 20; ++n)
        {
            pthread_kill(reader.native_handle(), SIGUSR1);
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        if (nStep == 0)
            hOther = ConnectTo(PortOf(hListener));
        else
            winsock::send(nStep == 1 ? hOther : hClient, "y", 1, 0);
    }
    reader.join();
    EXPECT_EQ(c, 'y');
    for (SOCKET const hSocket : {hListener, hClient, hServer, hOther})
        winsock::closesocket(hSocket);
    sigaction(SIGUSR1, &before, nullptr);
}

TEST_F(Sockets, LingeringAddressesCanBeBoundButLivingListenersNot)
{
    SOCKET hListener = Listener();
    USHORT const nPort = PortOf(hListener);
    // The server's side closes first: its address lingers.
    SOCKET const hClient = ConnectTo(nPort);
    SOCKET const hServer = winsock::accept(hListener, nullptr, nullptr);
    winsock::closesocket(hServer);
    char c;
    EXPECT_EQ(winsock::recv(hClient, &c, 1, 0), 0);
    winsock::closesocket(hClient);
    winsock::closesocket(hListener);
    hListener = Listener(nPort);

    for (ULONG const nAddress : {AddressLoopback, AddressAny})
    {
        SOCKET const hTaker = winsock::socket(AddressFamilyInet, SocketStream, 0);
        SockAddrIn address = Local(nPort);
        address.sin_addr.s_addr = (winsock::htonl)(nAddress);
        bool const bTaken =
            winsock::bind(hTaker, Generic(address), sizeof address) == 0 && winsock::listen(hTaker, 5) == 0;
        EXPECT_FALSE(bTaken);
        EXPECT_EQ(GetLastError(), WSAEADDRINUSE);
        winsock::closesocket(hTaker);
    }
    winsock::closesocket(hListener);

    // Of two that have bound before either listens, one gets it.
    SOCKET const pair[2] = {winsock::socket(AddressFamilyInet, SocketStream, 0),
                            winsock::socket(AddressFamilyInet, SocketStream, 0)};
    for (SOCKET const hSocket : pair)
        winsock::bind(hSocket, Generic(Local(nPort)), sizeof(SockAddrIn));
    EXPECT_EQ(winsock::listen(pair[0], 5), 0);
    EXPECT_EQ(winsock::listen(pair[1], 5), SOCKET_ERROR);
    EXPECT_EQ(GetLastError(), WSAEADDRINUSE);
    for (SOCKET const hSocket : pair)
        winsock::closesocket(hSocket);
}

TEST_F(Sockets, SelectTellsWhatIsReady)
{
    SOCKET const hListener = Listener();
    SOCKET const hClient = ConnectTo(PortOf(hListener));
    SOCKET const hServer = winsock::accept(hListener, nullptr, nullptr);
    TimeVal const now = {0, 0};
    FdSet read;
    FdSet write;
    FdSet except;
    auto const select = [&](TimeVal const * pTime)
    {
        for (FdSet * const pSet : {&read, &write, &except})
        {
            FdZero(*pSet);
            FdAdd(hServer, *pSet);
        }
        FdAdd(hListener, read);
        return winsock::select(0, &read, &write, &except, pTime);
    };
    EXPECT_EQ(select(&now), 1);
    EXPECT_TRUE(FdHas(hServer, write));
    EXPECT_EQ(read.fd_count + except.fd_count, 0u);
    winsock::send(hClient, "x", 1, 0);
    FdZero(read);
    FdAdd(hServer, read);
    EXPECT_EQ(winsock::select(0, &read, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(select(&now), 2);
    EXPECT_TRUE(FdHas(hServer, read));
    EXPECT_FALSE(FdHas(hListener, read));

    // An exception set alone: nothing, also when the peer has hung up for good; an error once it is closed.
    auto const check = [&](TimeVal const * pTime)
    {
        FdZero(except);
        FdAdd(hServer, except);
        return winsock::select(0, nullptr, nullptr, &except, pTime);
    };
    EXPECT_EQ(check(&now), 0);
    winsock::closesocket(hClient);
    winsock::shutdown(hServer, ShutdownBoth);
    EXPECT_EQ(check(&now), 0);
    TimeVal const aLittle = {0, 2000};
    EXPECT_EQ(check(&aLittle), 0);
    winsock::closesocket(hServer);
    EXPECT_EQ(check(&now), SOCKET_ERROR);
    EXPECT_EQ(GetLastError(), WSAENOTSOCK);

    FdZero(except);
    EXPECT_EQ(winsock::select(0, nullptr, nullptr, &except, nullptr), SOCKET_ERROR); // would wait forever
    EXPECT_EQ(GetLastError(), WSAEINVAL);
    except.fd_count = 65;
    EXPECT_EQ(winsock::select(0, nullptr, nullptr, &except, &now), SOCKET_ERROR);
    winsock::closesocket(hListener);
}

TEST(HostNames, ResolveAndFail)
{
    HostEnt const * pHost = winsock::gethostbyname("localhost");
    ASSERT_TRUE(pHost);
    EXPECT_EQ(pHost->h_addrtype, AddressFamilyInet);
    ASSERT_EQ(pHost->h_length, 4);
    EXPECT_EQ(*reinterpret_cast<ULONG const *>(pHost->h_addr_list[0]), winsock::inet_addr("127.0.0.1"));
    // What one thread holds no other changes.
    std::thread(
        []
        {
            HostEnt const * const pOther = winsock::gethostbyname("10.1.2.3");
            ASSERT_TRUE(pOther);
            EXPECT_EQ(*reinterpret_cast<ULONG const *>(pOther->h_addr_list[0]), (winsock::htonl)(0x0A010203));
            EXPECT_EQ(pOther->h_addr_list[1], nullptr);
        })
        .join();
    EXPECT_EQ(*reinterpret_cast<ULONG const *>(pHost->h_addr_list[0]), (winsock::htonl)(AddressLoopback));
    EXPECT_TRUE(winsock::gethostbyaddr(pHost->h_addr_list[0], 4, AddressFamilyInet)); // from its own answer
    EXPECT_FALSE(winsock::gethostbyaddr("1234", 3, AddressFamilyInet));
    EXPECT_EQ(GetLastError(), WSAEFAULT);
    EXPECT_FALSE(winsock::gethostbyname(std::string(100000, 'a').c_str()));
    EXPECT_EQ(GetLastError(), WSAHOST_NOT_FOUND);
    EXPECT_EQ(winsock::inet_addr("256.1.1.1"), AddressNone);
    EXPECT_EQ(winsock::inet_addr(nullptr), AddressNone);
    EXPECT_EQ((winsock::ntohs)((winsock::htons)(0x1234)), 0x1234);
    EXPECT_EQ((winsock::htons)(0x1234), (::htons)(0x1234));
}

} // namespace
