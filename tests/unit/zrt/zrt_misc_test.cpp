// Start and stop, random numbers, dynamic loading, locks, semaphores and blocking sockets of the runtime.
#include "asyncio_test_helpers.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>

#include <atomic>
#include <set>

using namespace asyncio_test;

TEST(ZrtInit, IsReferenceCountedAndLetsBrokenPipesFailInsteadOfKilling)
{
    const int before = ZRT_InitCount();
    EXPECT_EQ(ZRT_InitEx(), 0);
    EXPECT_EQ(ZRT_InitEx(), 0);
    EXPECT_EQ(ZRT_InitCount(), before + 2);
    struct sigaction action;
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, SIG_IGN);
    EXPECT_EQ(ZRT_FiniEx(), 0);
    EXPECT_EQ(ZRT_FiniEx(), 0);
    EXPECT_EQ(ZRT_InitCount(), before);
    if (before == 0) {
        EXPECT_EQ(ZRT_FiniEx(), 0);  // an unmatched stop is harmless
        EXPECT_EQ(ZRT_InitCount(), 0);
    }
}

// The plug-in's digest nonces take their random part from here.
TEST(ZrtRand, NumbersStayInRangeAndVary)
{
    std::set<ZRT_INT32> seen;
    for (int i = 0; i < 1000; ++i) {
        const ZRT_INT32 value = ZRT_Rand();
        ASSERT_GE(value, 0);
        seen.insert(value);
    }
    EXPECT_GT(seen.size(), 990u);
}

TEST(ZrtDso, LoadsResolvesAndUnloadsALibraryAndFailsOnAMissingOne)
{
    void* dso = ZRT_LoadDSo(ZRT_TEST_DSO_PATH);
    ASSERT_NE(dso, nullptr) << ZRT_GetDsoError();
    auto answer = reinterpret_cast<int (*)(int)>(ZRT_GetDsoSym(dso, "zrt_test_answer"));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(20), 41);
    EXPECT_EQ(ZRT_GetDsoSym(dso, "no_such_symbol"), nullptr);
    EXPECT_EQ(ZRT_UnloadDSo(dso), 0);
    EXPECT_EQ(ZRT_LoadDSo("/nonexistent/libnothing.so"), nullptr);
    EXPECT_EQ(ZRT_LoadDSo(nullptr), nullptr);
}

// The session manager's release thread waits on one with a time-out.
TEST(ZrtSema, MaximumCountRefusesPostsAndProducerConsumerLosesNone)
{
    ZRT_Sema bounded(0, 2);
    EXPECT_EQ(ZRT_Sema_Post(&bounded), 0);
    EXPECT_EQ(ZRT_Sema_Post(&bounded), 0);
    EXPECT_EQ(ZRT_Sema_Post(&bounded), -1);
    EXPECT_EQ(ZRT_Sema_TimedWait(&bounded, 10), 0);
    EXPECT_EQ(ZRT_Sema_TimedWait(&bounded, 10), 0);
    const ZRT_UINT64 start = ZRT_GetTimeTick64();
    EXPECT_EQ(ZRT_Sema_TimedWait(&bounded, 100), -1);
    EXPECT_GE(elapsedMs(start), 95u);

    ZRT_Sema sema(0, 65535);
    const int posts = 20000;
    std::atomic<int> taken{0};
    std::thread consumer([&] {
        while (taken < posts) {
            taken += ZRT_Sema_TimedWait(&sema, 100) == 0 ? 1 : 0;
        }
    });
    for (int i = 0; i < posts; ++i) {
        while (ZRT_Sema_Post(&sema) != 0) {
            std::this_thread::yield();
        }
    }
    consumer.join();
    EXPECT_EQ(taken.load(), posts);
    EXPECT_EQ(ZRT_Sema_TimedWait(&sema, 0), -1);
}

TEST(ZrtMutex, OnlyTheRecursiveKindMayBeReenteredByItsOwner)
{
    ZRT_Mutex plain;
    plain.Lock();
    EXPECT_FALSE(plain.TryLock());
    plain.Unlock();
    ZRT_Mutex recursive(1);
    recursive.Lock();
    EXPECT_TRUE(recursive.TryLock());
    bool otherGot = true;
    std::thread([&] { otherGot = recursive.TryLock(); }).join();
    EXPECT_FALSE(otherGot);
    recursive.Unlock();
    recursive.Unlock();
}

TEST(ZrtSocket, AddressesConvertAndSocketsAreCloseOnExec)
{
    ZRT_ADDR_T addr;
    char text[32];
    ASSERT_EQ(ZRT_MakeAddrByString(&addr, "10.1.2.3", 8081), 0);
    EXPECT_STREQ(ZRT_GetAddrString(&addr, text, sizeof text), "10.1.2.3");
    EXPECT_EQ(ZRT_GetAddrPort(&addr), 8081);
    ASSERT_EQ(ZRT_MakeAddrByString(&addr, nullptr, 1), 0);
    EXPECT_STREQ(ZRT_GetAddrString(&addr, text, sizeof text), "0.0.0.0");
    EXPECT_EQ(ZRT_MakeAddrByString(&addr, "not-an-address", 1), -1);

    const int sock = ZRT_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    ASSERT_GE(sock, 0);
    EXPECT_TRUE(fcntl(sock, F_GETFD) & FD_CLOEXEC);
    EXPECT_EQ(ZRT_CloseSocket(sock, 0), 0);
}

TEST(ZrtSocket, AcceptTimesOutConnectStaysBlockingAndBusyOrClosedPortsFail)
{
    ZRT_UINT16 port = 0;
    const int listener = listenOnLoopback(&port);
    ASSERT_GE(listener, 0);
    const ZRT_UINT64 start = ZRT_GetTimeTick64();
    EXPECT_EQ(ZRT_Accept(listener, nullptr, 120), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(elapsedMs(start), 115u);

    ZRT_ADDR_T addr;
    ZRT_MakeAddrByString(&addr, "127.0.0.1", port);
    const int client = ZRT_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    ASSERT_EQ(ZRT_ConnectWithTimeOut(client, &addr, 5000), 0);
    EXPECT_EQ(fcntl(client, F_GETFL) & O_NONBLOCK, 0);
    ZRT_ADDR_T peer;
    char text[32];
    const int accepted = ZRT_Accept(listener, &peer, 5000);
    EXPECT_STREQ(ZRT_GetAddrString(&peer, text, sizeof text), "127.0.0.1");
    ZRT_CloseSocket(accepted, 0);
    ZRT_CloseSocket(client, 0);

    const int second = ZRT_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    EXPECT_EQ(ZRT_Bind(second, &addr), -1);
    EXPECT_EQ(ZRT_GetSystemLastError(), EADDRINUSE);
    ZRT_CloseSocket(listener, 0);  // nobody listens there any more
    EXPECT_EQ(ZRT_ConnectWithTimeOut(second, &addr, 5000), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    ZRT_CloseSocket(second, 0);
}

// The raw audio listener stops its accept thread by closing the listening socket.
TEST(ZrtSocket, BlockedAcceptReturnsWhenTheListenerIsClosed)
{
    ZRT_UINT16 port = 0;
    const int listener = listenOnLoopback(&port);
    ASSERT_GE(listener, 0);
    std::atomic<int> result{0};
    std::thread acceptor([&] { result = ZRT_Accept(listener, nullptr, 0xFFFFFFFFu); });
    ZRT_Sleep(100);
    EXPECT_EQ(result.load(), 0) << "returned before the listener was closed";
    ZRT_CloseSocket(listener, 0);
    acceptor.join();
    EXPECT_EQ(result.load(), -1);
}
