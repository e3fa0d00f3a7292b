#include <gtest/gtest.h>

#include <winsock2.h>

#include <windows.h>

TEST(Wine, PollTellsOfNoEndWhileBytesAreUnread)
{
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    SOCKET const listening = socket(AF_INET, SOCK_STREAM, 0);
    SOCKET const client = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    int size = sizeof(address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto * const generic = reinterpret_cast<sockaddr *>(&address);
    ASSERT_EQ(bind(listening, generic, size) | listen(listening, 1) | getsockname(listening, generic, &size), 0);
    ASSERT_EQ(connect(client, generic, size), 0);
    SOCKET const server = accept(listening, nullptr, nullptr);
    EXPECT_EQ(send(client, "x", 1, 0), 1);
    EXPECT_EQ(shutdown(client, SD_BOTH), 0);
    Sleep(100);
    WSAPOLLFD state{server, POLLRDNORM, 0};
    EXPECT_EQ(WSAPoll(&state, 1, 0), 1);
    EXPECT_EQ(state.revents, POLLRDNORM); // and not POLLHUP as well
    char byte = 0;
    EXPECT_EQ(recv(server, &byte, 1, 0), 1);
    EXPECT_EQ(WSAPoll(&state, 1, 0), 1);
    EXPECT_NE(state.revents & POLLHUP, 0);
    for (SOCKET const one : {listening, client, server})
    {
        closesocket(one);
    }
    WSACleanup();
}
