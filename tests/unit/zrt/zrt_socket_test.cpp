#include "asyncio_test_helpers.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <atomic>

using namespace asyncio_test;

TEST(ZrtSocket, AddressesConvertAndSocketsAreCloseOnExec)
{
    ZRT_ADDR_T addr;
    ASSERT_EQ(ZRT_MakeAddrByString(&addr, "10.1.2.3", 8081), 0);
    char text[32];
    EXPECT_STREQ(ZRT_GetAddrString(&addr, text, sizeof text), "10.1.2.3");
    EXPECT_EQ(ZRT_GetAddrPort(&addr), 8081);
    ASSERT_EQ(ZRT_MakeAddrByString(&addr, nullptr, 1), 0);
    EXPECT_STREQ(ZRT_GetAddrString(&addr, text, sizeof text), "0.0.0.0");
    EXPECT_EQ(ZRT_MakeAddrByString(&addr, "not-an-address", 1), -1);
    EXPECT_EQ(ZRT_MakeAddrByString(&addr, "256.1.1.1", 1), -1);

    int sock = ZRT_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    ASSERT_GE(sock, 0);
    EXPECT_TRUE(fcntl(sock, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(ZRT_CloseSocket(sock, 0), 0);
    EXPECT_EQ(ZRT_CloseSocket(-1, 0), -1);
}

TEST(ZrtSocket, AcceptAndConnectOnLoopback)
{
    ZRT_UINT16 port = 0;
    int listener = listenOnLoopback(&port);
    ASSERT_GE(listener, 0);
    int client = ZRT_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    ZRT_ADDR_T server;
    ZRT_MakeAddrByString(&server, "127.0.0.1", port);
    ASSERT_EQ(ZRT_ConnectWithTimeOut(client, &server, 2000), 0);
    EXPECT_EQ(fcntl(client, F_GETFL) & O_NONBLOCK, 0);  // blocking mode is restored

    ZRT_ADDR_T peer;
    int accepted = ZRT_Accept(listener, &peer, 2000);
    ASSERT_GE(accepted, 0);
    char text[32];
    EXPECT_STREQ(ZRT_GetAddrString(&peer, text, sizeof text), "127.0.0.1");
    EXPECT_EQ(send(client, "ping", 4, 0), 4);
    char buffer[4];
    EXPECT_EQ(recv(accepted, buffer, sizeof buffer, MSG_WAITALL), 4);
    EXPECT_EQ(memcmp(buffer, "ping", 4), 0);

    EXPECT_EQ(ZRT_SetBuffSize(accepted, 0x80000, 0x80000), 0);
    EXPECT_EQ(ZRT_SetReuseAddr(accepted, 1), 0);
    EXPECT_EQ(ZRT_LingerOn(accepted, 0), 0);
    ZRT_CloseSocket(accepted, 0);
    ZRT_CloseSocket(client, 0);
    ZRT_CloseSocket(listener, 0);
}

TEST(ZrtSocket, AcceptTimesOutAndBusyOrClosedPortsFail)
{
    ZRT_UINT16 port = 0;
    int listener = listenOnLoopback(&port);
    ASSERT_GE(listener, 0);
    ZRT_UINT64 start = ZRT_GetTimeTick64();
    EXPECT_EQ(ZRT_Accept(listener, nullptr, 120), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(elapsedMs(start), 115u);
    EXPECT_LT(elapsedMs(start), 2000u);

    ZRT_ADDR_T addr;
    ZRT_MakeAddrByString(&addr, "127.0.0.1", port);
    int second = ZRT_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_EQ(ZRT_Bind(second, &addr), -1);
    EXPECT_EQ(ZRT_GetSystemLastError(), EADDRINUSE);

    ZRT_CloseSocket(listener, 0);  // nobody listens there any more
    EXPECT_EQ(ZRT_ConnectWithTimeOut(second, &addr, 1000), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    ZRT_CloseSocket(second, 0);
}

// The raw audio listener stops its accept thread by closing the listening socket.
TEST(ZrtSocket, BlockedAcceptReturnsWhenTheListenerIsClosed)
{
    ZRT_UINT16 port = 0;
    int listener = listenOnLoopback(&port);
    ASSERT_GE(listener, 0);
    std::atomic<int> result{0};
    std::atomic<bool> returned{false};
    std::thread acceptor([&] {
        result = ZRT_Accept(listener, nullptr, 0xFFFFFFFFu);
        returned = true;
    });
    ZRT_Sleep(100);
    EXPECT_FALSE(returned.load());
    ZRT_UINT64 start = ZRT_GetTimeTick64();
    ZRT_CloseSocket(listener, 0);
    acceptor.join();
    EXPECT_EQ(result.load(), -1);
    EXPECT_LT(elapsedMs(start), 1000u);
}
