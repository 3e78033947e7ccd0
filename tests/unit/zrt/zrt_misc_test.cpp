// Start and stop, dynamic loading, semaphores and blocking sockets of the runtime.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "AsyncIoKit.h"

using testsupport::listenOnLoopback;

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
    EXPECT_GE(ZRT_GetTimeTick64() - start, 95u);

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

TEST(ZrtSocket, AcceptTimesOutAndSocketsAreBlockingAndCloseOnExec)
{
    ZRT_ADDR_T addr;
    EXPECT_EQ(ZRT_MakeAddrByString(&addr, "not-an-address", 1), -1);
    ZRT_UINT16 port = 0;
    const int listener = listenOnLoopback(&port);
    ASSERT_GE(listener, 0);
    const ZRT_UINT64 start = ZRT_GetTimeTick64();
    EXPECT_EQ(ZRT_Accept(listener, nullptr, 120), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(ZRT_GetTimeTick64() - start, 115u);

    ZRT_MakeAddrByString(&addr, "127.0.0.1", port);
    const int client = ZRT_CreateSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
    ASSERT_EQ(ZRT_ConnectWithTimeOut(client, &addr, 5000), 0);
    EXPECT_EQ(fcntl(client, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_TRUE(fcntl(client, F_GETFD) & FD_CLOEXEC);
    ZRT_ADDR_T peer;
    char text[32];
    const int accepted = ZRT_Accept(listener, &peer, 5000);
    EXPECT_STREQ(ZRT_GetAddrString(&peer, text, sizeof text), "127.0.0.1");
    for (int sock : {accepted, client, listener}) {
        ZRT_CloseSocket(sock, 0);
    }
}

// The poller reports news once per arrival (edge-triggered), a peek leaves the bytes for the next read, and
// a peer's close is news too.
TEST(ZrtPoller, NewsOnceForEachArrivalAndPeekLeavesTheBytes)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    void* poller = ZRT_Poller_Create();
    ASSERT_NE(poller, nullptr);
    ASSERT_EQ(ZRT_Poller_Add(poller, pair[0], 42), 0);
    ZRT_UINT64 keys[4];
    EXPECT_EQ(ZRT_Poller_Wait(poller, keys, 4, 0), 0);
    char buffer[16];
    EXPECT_EQ(ZRT_Peek(pair[0], buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EAGAIN);

    ASSERT_EQ(write(pair[1], "GET", 3), 3);
    ASSERT_EQ(ZRT_Poller_Wait(poller, keys, 4, 1000), 1);
    EXPECT_EQ(keys[0], 42u);
    EXPECT_EQ(ZRT_Peek(pair[0], buffer, sizeof buffer), 3);
    EXPECT_EQ(ZRT_Poller_Wait(poller, keys, 4, 50), 0) << "bytes already reported came again";
    ASSERT_EQ(write(pair[1], " /", 2), 2);
    ASSERT_EQ(ZRT_Poller_Wait(poller, keys, 4, 1000), 1);
    EXPECT_EQ(ZRT_Peek(pair[0], buffer, sizeof buffer), 5);
    EXPECT_EQ(std::string(buffer, 5), "GET /");

    close(pair[1]);
    ASSERT_EQ(ZRT_Poller_Wait(poller, keys, 4, 1000), 1);
    EXPECT_EQ(ZRT_Peek(pair[0], buffer, sizeof buffer), 5) << "what was sent is still there";
    char sink[8];
    ASSERT_EQ(read(pair[0], sink, sizeof sink), 5);
    EXPECT_EQ(ZRT_Peek(pair[0], buffer, sizeof buffer), 0) << "then the close";
    EXPECT_EQ(ZRT_Poller_Remove(poller, pair[0]), 0);
    EXPECT_EQ(ZRT_Poller_Destroy(poller), 0);
    close(pair[0]);
    EXPECT_GT(ZRT_GetMaxFds(), 0);
}
