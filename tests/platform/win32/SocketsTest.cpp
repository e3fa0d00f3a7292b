#include "SocketsFixture.h"

namespace
{

TEST_F(Sockets, CloseEndsEveryCall)
{
    KVX_LINUX_ALONE("the value of a closed handle isn't soon another's", "2026-11-22");
    Churn churn;
    Socket const listener = Listener();
    for (int nRound = 0; nRound < ROUNDS; ++nRound)
    {
        Socket const client = ConnectTo(PortOf(listener));
        Socket server = winsock::accept(listener, nullptr, nullptr);
        CloseUnder(server, nRound,
                   [&](SOCKET hServer)
                   {
                       static std::vector<char> const s_buffer(1 << 20);
                       char c;
                       int nResult = 1;
                       if (nRound % 4 == 0)
                       {
                           return winsock::recv(hServer, &c, 1, 0);
                       }
                       if (nRound % 4 >= 2)
                       {
                           return SelectOne(hServer, nRound % 4 == 2);
                       }
                       while (nResult > 0) // until the peer's window is full
                       {
                           nResult = winsock::send(hServer, s_buffer.data(), static_cast<int>(s_buffer.size()), 0);
                       }
                       return nResult;
                   });
        Socket other = Listener();
        CloseUnder(other, nRound,
                   [](SOCKET hListener)
                   { return winsock::accept(hListener, nullptr, nullptr) == INVALID_SOCKET ? SOCKET_ERROR : 0; });
    }
}

TEST_F(Sockets, BytesGoBothWaysWithoutSignals)
{
    WSADATA data;
    EXPECT_EQ(WSAStartup(0x0202, &data), 0);
    Socket hListener = Listener();
    Socket hClient = ConnectTo(PortOf(hListener));
    SockAddrIn peer{};
    int nLength = sizeof peer;
    Socket hServer = winsock::accept(hListener, reinterpret_cast<SockAddr *>(&peer), &nLength);
    ASSERT_NE(hServer, INVALID_SOCKET);
    EXPECT_EQ((winsock::ntohs)(peer.sin_port), PortOf(hClient));
    EXPECT_STREQ(winsock::inet_ntoa(peer.sin_addr), "127.0.0.1");
    SockAddrIn again{};
    EXPECT_EQ(winsock::getpeername(hServer, reinterpret_cast<SockAddr *>(&again), &nLength), 0);
    EXPECT_EQ(again.sin_port, peer.sin_port);
    nLength = 8;
    EXPECT_TRUE(
        Fails(winsock::getpeername(hServer, reinterpret_cast<SockAddr *>(&again), &nLength), WSAEFAULT, SOCKET_ERROR));

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
    {
        nReceived += static_cast<std::size_t>(n);
    }
    sender.join();
    EXPECT_EQ(nReceived, strSent.size());
    EXPECT_EQ(winsock::recv(hServer, szBuffer, 3000, 0), 0); // an orderly end

    // Handles and flags that can't be.
    EXPECT_EQ(winsock::recv(hServer, szBuffer, -1, 0), SOCKET_ERROR);
    EXPECT_TRUE(host::IsWindows() || // knows more flags than are documented (2026-11-22)
                Fails(winsock::recv(hServer, szBuffer, 1, 0x100), WSAEOPNOTSUPP, SOCKET_ERROR));
    for (SOCKET const hBad : {SOCKET{0}, INVALID_SOCKET, SOCKET{3}, SOCKET{0x7FFFFFFC}})
    {
        EXPECT_TRUE(Fails(winsock::recv(hBad, szBuffer, 1, 0), WSAENOTSOCK, SOCKET_ERROR));
    }

    // The peer gone: an error in the end, and no signal, which would end the program.
    hServer.Close();
    int nResult = 1;
    for (int n = 0; n < 1000 && nResult == 1; ++n)
    {
        nResult = winsock::send(hClient, "x", 1, 0);
        std::this_thread::yield();
    }
    EXPECT_EQ(nResult, SOCKET_ERROR);
    EXPECT_TRUE(GetLastError() == WSAECONNRESET || GetLastError() == WSAECONNABORTED || GetLastError() == WSAESHUTDOWN)
        << GetLastError();
    Socket const hRefused;
    EXPECT_TRUE(
        Fails(winsock::connect(hRefused, Generic(Local(1)), sizeof(SockAddrIn)), WSAECONNREFUSED, SOCKET_ERROR));
}

TEST_F(Sockets, LingeringAddressesCanBeBoundButLivingListenersNot)
{
    Socket hListener = Listener();
    USHORT const nPort = PortOf(hListener);
    // The server's side closes first: its address lingers.
    Socket hClient = ConnectTo(nPort);
    Socket(winsock::accept(hListener, nullptr, nullptr)).Close();
    char c;
    EXPECT_EQ(winsock::recv(hClient, &c, 1, 0), 0);
    hClient.Close();
    hListener.Close();
    Socket hAgain = Listener(nPort);

    for (ULONG const nAddress : {AddressLoopback, AddressAny})
    {
        Socket const hTaker;
        SockAddrIn address = Local(nPort);
        address.sin_addr.s_addr = (winsock::htonl)(nAddress);
        bool const bTaken =
            winsock::bind(hTaker, Generic(address), sizeof address) == 0 && winsock::listen(hTaker, 5) == 0;
        EXPECT_TRUE(Fails(bTaken, WSAEADDRINUSE));
    }
    hAgain.Close();

    // Of two that have bound before either listens, one gets it. Windows refuses the second bind.
    Socket const pair[2];
    EXPECT_EQ(winsock::bind(pair[0], Generic(Local(nPort)), sizeof(SockAddrIn)), 0);
    if (winsock::bind(pair[1], Generic(Local(nPort)), sizeof(SockAddrIn)) == 0)
    {
        EXPECT_EQ(winsock::listen(pair[0], 5), 0);
        winsock::listen(pair[1], 5);
    }
    EXPECT_EQ(GetLastError(), DWORD{WSAEADDRINUSE});
}

TEST_F(Sockets, SelectTellsWhatIsReady)
{
    Socket hListener = Listener();
    Socket hClient = ConnectTo(PortOf(hListener));
    Socket hServer = winsock::accept(hListener, nullptr, nullptr);
    TimeVal now = {0, 0};
    FdSet read;
    FdSet write;
    FdSet except;
    auto const select = [&](TimeVal * pTime)
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
    EXPECT_EQ(SelectOne(hServer, true), 1);
    EXPECT_EQ(select(&now), 2);
    EXPECT_TRUE(FdHas(hServer, read));
    EXPECT_FALSE(FdHas(hListener, read));

    // An exception set alone: nothing, also when the peer has hung up for good; an error once it is closed.
    auto const check = [&](TimeVal * pTime)
    {
        FdZero(except);
        FdAdd(hServer, except);
        return winsock::select(0, nullptr, nullptr, &except, pTime);
    };
    EXPECT_EQ(check(&now), 0);
    hClient.Close();
    winsock::shutdown(hServer, ShutdownBoth);
    EXPECT_EQ(check(&now), 0);
    TimeVal aLittle = {0, 2000};
    EXPECT_EQ(check(&aLittle), 0);
    SOCKET const hClosed = hServer;
    hServer.Close();
    FdZero(except);
    FdAdd(hClosed, except);
    EXPECT_TRUE(Fails(winsock::select(0, nullptr, nullptr, &except, &now), WSAENOTSOCK, SOCKET_ERROR));

    FdZero(except);
    EXPECT_TRUE(
        Fails(winsock::select(0, nullptr, nullptr, &except, nullptr), WSAEINVAL, SOCKET_ERROR)); // would wait forever
    except.fd_count = 65;
    EXPECT_EQ(winsock::select(0, nullptr, nullptr, &except, &now), SOCKET_ERROR);
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
    EXPECT_TRUE(host::IsWine() || GetLastError() == WSAEFAULT); // ShortAddressIsAnotherFamily, 2026-11-22
    EXPECT_TRUE(Fails(winsock::gethostbyname(std::string(100000, 'a').c_str()), WSAHOST_NOT_FOUND));
    EXPECT_EQ(winsock::inet_addr("256.1.1.1"), AddressNone);
    EXPECT_EQ(winsock::inet_addr(nullptr), AddressNone);
    EXPECT_EQ((winsock::htons)(0x1234), (::htons)(0x1234));
}

} // namespace
