// One request per connection, over real sockets: requests that reach the owner and one-shot replies, and
// connections that do not reach it (malformed, over a limit, too slow, or waiting while the process is out
// of descriptors).
#include "ServerFixture.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>

using nettest::ServerTest;
using nettest::TestClient;
using Clock = std::chrono::steady_clock;

TEST_F(ServerTest, OneShotReplyIsExactOnTheWireAndEndsTheConnection)
{
    startListen();
    // Bytes after the request, in its last read or later, are read and ignored.
    TestClient client;
    const Request request = sendRequest(client,
                                        "PUT /path?q=1&r=%41 HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 2\r\n\r\n"
                                        "okGET /two HTTP/1.1\r\n\r\n\x01\x02garbage");
    const int handle = request.handle;
    ASSERT_GT(handle, 0);
    EXPECT_EQ(request.url + request.body, "/path?q=1&r=%41ok");
    ASSERT_TRUE(client.send("more garbage after the request\r\n\r\n"));
    EXPECT_EQ(stageHeader(handle, "X-Bad", "a\r\nb"), -1) << "a header cannot end the head";
    EXPECT_EQ(NET_UTILS_GetLastError(), NET_ERR_PARAM);
    // The default status; the owner's length wins, nothing past it is written, and the connection is not kept.
    EXPECT_EQ(replyWith(handle, 0, {{"content-length", "5"}, {"Connection", "keep-alive"}}, "12345678"), 5);
    EXPECT_EQ(client.receiveAll(3000), "HTTP/1.1 200 OK\r\ncontent-length: 5\r\nConnection: close\r\n\r\n12345");
    EXPECT_TRUE(client.waitForClose(100));
    ASSERT_EQ(endCount(handle, 5000), 1) << "the owner learns at once that the connection is over";
    // The handle stays known until the owner closes it: replies fail with "closed", the request stays
    // readable (an owner that sets up after the client left still learns the handle it must close).
    EXPECT_EQ(NET_HTTPSERVER_Reply(handle, 0), -1);
    EXPECT_EQ(NET_UTILS_GetLastError(), NET_ERR_CLOSED);
    char host[64];
    EXPECT_EQ(NET_HTTPSERVER_GetParamV2(handle, 0, 255, "Host", 4, host, sizeof(host)), 0);
    EXPECT_STREQ(host, "127.0.0.1");
    EXPECT_EQ(NET_HTTPSERVER_Close(handle, 1), 0);
    EXPECT_EQ(NET_HTTPSERVER_Close(handle, 1), -1);
    EXPECT_EQ(NET_HTTPSERVER_Reply(handle, 0), -1);
    EXPECT_EQ(NET_UTILS_GetLastError(), NET_ERR_HANDLE);
}

TEST_F(ServerTest, HeaderValuesAreFoundWithoutRegardToCaseAndMustFit)
{
    startListen();
    TestClient client;
    const int handle = sendRequest(client, "GET / HTTP/1.1\r\nX-Forwarded-For: 10.0.0.7\r\n\r\n").handle;
    ASSERT_GT(handle, 0);
    char value[32];
    ASSERT_EQ(NET_HTTPSERVER_GetParamV2(handle, 0, 255, "x-forwarded-FOR", 15, value, 9), 0) << "fits exactly";
    EXPECT_STREQ(value, "10.0.0.7");
    const struct {
        int handle;
        const char* name;
        int size;
        int error;
    } failures[] = {{handle, "X-Forwarded-For", 8, NET_ERR_BUFFER},
                    {handle, "Authorization", 32, NET_ERR_NOT_FOUND},
                    {handle + 1000, "Host", 32, NET_ERR_HANDLE}};
    for (const auto& f : failures) {
        EXPECT_EQ(NET_HTTPSERVER_GetParamV2(f.handle, 0, 255, f.name, static_cast<int>(strlen(f.name)), value, f.size),
                  -1);
        EXPECT_EQ(NET_UTILS_GetLastError(), f.error) << f.name;
    }
    NET_HTTPSERVER_REQUEST_PARAM block;
    EXPECT_EQ(NET_HTTPSERVER_GetParamV2(handle, 0, 0, nullptr, 0, &block, sizeof(block) - 1), -1);
    EXPECT_EQ(NET_UTILS_GetLastError(), NET_ERR_BUFFER);
}

TEST_F(ServerTest, ContinueIsSentBeforeAnAnnouncedBody)
{
    startListen();
    TestClient client;
    ASSERT_TRUE(client.connectTo(m_port));
    ASSERT_TRUE(client.send("PUT /x HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 3\r\n\r\n"));
    EXPECT_EQ(client.receiveAll(3000, 25), "HTTP/1.1 100 Continue\r\n\r\n");
    ASSERT_TRUE(client.send("abc"));
    EXPECT_EQ(waitForRequest().body, "abc");
}

TEST_F(ServerTest, RefusedRequestsAreAnsweredAtOnceWithoutCallback)
{
    startListen();
    const std::string end = "Connection: close\r\nContent-Length: 0\r\n\r\n";
    const std::string bad = "HTTP/1.1 400 Bad Request\r\n" + end;
    const std::string tooLarge = "HTTP/1.1 413 Request Entity Too Large\r\n" + end;
    const std::string notAllowed = "HTTP/1.1 405 Method Not Allowed\r\nAllow: GET, PUT, POST, DELETE\r\n" + end;
    const std::pair<std::string, std::string> cases[] = {
        {"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03 not http\r\n\r\n", bad},
        // The client goes on sending after the refusal: the server reads and drops it, so
        // that a reset does not destroy the 413 before the client has read it.
        {"POST / HTTP/1.1\r\nContent-Length: 3000000\r\n\r\n" + std::string(512 * 1024, 'x'), tooLarge},
        // Refused at the request line: the server waits neither for the rest nor for its receive time-out.
        {"HEAD /QUMEX/ContentMgmt/download HTTP/1.1\r\nHost: a\r\n\r\n", notAllowed},
        {"PATCH /x HTTP/1.1\r\n", notAllowed},
        {"GET /x HTTP/9.9\r\nHost: a\r\n\r\n", "HTTP/1.1 505 HTTP Version Not Supported\r\n" + end},
    };
    for (const auto& c : cases) {
        TestClient client;
        ASSERT_TRUE(client.connectTo(m_port));
        client.send(c.first);
        EXPECT_EQ(client.receiveAll(3000), c.second) << c.first.substr(0, 40);
        EXPECT_TRUE(client.waitForClose(100)) << c.first.substr(0, 40);
    }
    EXPECT_EQ(waitForRequest(0).handle, -1) << "a request reached the owner";
}

TEST_F(ServerTest, StalledRequestIsClosedSilentlyAfterTheReceiveTimeout)
{
    startListen(300);
    TestClient inHeaders;
    TestClient inBody;
    ASSERT_TRUE(inHeaders.connectTo(m_port));
    ASSERT_TRUE(inBody.connectTo(m_port));
    const auto start = Clock::now();
    ASSERT_TRUE(inHeaders.send("GET /slow HTTP/1.1\r\nHost: x\r\n"));
    ASSERT_TRUE(inBody.send("POST /slow HTTP/1.1\r\nContent-Length: 10\r\n\r\n12345"));
    EXPECT_TRUE(inHeaders.waitForClose(5000));
    EXPECT_TRUE(inBody.waitForClose(5000));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(250));
    EXPECT_EQ(waitForRequest(0).handle, -1) << "a request reached the owner";
}

namespace {

double processCpuMs()
{
    timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return used.tv_sec * 1e3 + used.tv_nsec / 1e6;
}

struct RestoreLimit {
    rlimit saved;
    ~RestoreLimit() { setrlimit(RLIMIT_NOFILE, &saved); }
};

}  // namespace

// A listener out of descriptors can accept nothing. It must neither spin on the connection that waits nor
// give up, and must take that connection once descriptors are free again.
TEST_F(ServerTest, OutOfDescriptorsTheListenerWaitsWithoutSpinningAndAcceptsWhenSomeAreFree)
{
    startListen();
    TestClient holders[2];
    int held[2];
    for (int i = 0; i < 2; ++i) {
        held[i] = sendRequest(holders[i], "GET /hold HTTP/1.1\r\n\r\n").handle;
        ASSERT_GT(held[i], 0);
    }
    // One free descriptor below the lowered limit: the waiting client's socket takes it, leaving none to accept
    // its connection with.
    RestoreLimit restore;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &restore.saved), 0);
    const int lowestFree = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(lowestFree, 0);
    close(lowestFree);
    rlimit lowered = restore.saved;
    lowered.rlim_cur = static_cast<rlim_t>(lowestFree) + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    TestClient waiting;
    ASSERT_TRUE(waiting.connectTo(m_port));
    ASSERT_TRUE(waiting.send("GET /waiting HTTP/1.1\r\n\r\n"));

    // The test thread sleeps meanwhile: the time the process computes is the listener's.
    const auto wallStart = Clock::now();
    const double cpuStart = processCpuMs();
    EXPECT_EQ(waitForRequest(500).handle, -1) << "accepted without a free descriptor";
    const double wallMs = std::chrono::duration<double, std::milli>(Clock::now() - wallStart).count();
    EXPECT_LT(processCpuMs() - cpuStart, wallMs / 5) << "ms of processor time in " << wallMs << " ms: it spins";

    for (int handle : held) {
        EXPECT_EQ(NET_HTTPSERVER_Close(handle, 0), 0);  // frees their descriptors
    }
    const Request late = waitForRequest(10000);
    ASSERT_GT(late.handle, 0) << "not accepted once descriptors were free";
    EXPECT_EQ(late.url, "/waiting");
    EXPECT_EQ(replyWith(late.handle, 0, {}, "ok"), 2);
    EXPECT_EQ(waiting.receiveAll(3000), "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 2\r\n\r\nok");
}
