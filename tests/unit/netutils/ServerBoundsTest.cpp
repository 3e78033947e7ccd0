// What a listener holds for clients that are slow, idle or many: a deadline for the head and one for the
// body, and bounds in total, per address and by descriptor number, at which the oldest connection that has
// not delivered its request makes room.
#include "ServerFixture.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

using nettest::ServerTest;
using nettest::TestClient;
using Clock = std::chrono::steady_clock;

namespace {

const std::string kBusy = "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";

void sleepMs(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// True when the server has not closed the connection (nothing arrives within a moment).
bool stillOpen(TestClient& client)
{
    return !client.waitForClose(50);
}

}  // namespace

TEST_F(ServerTest, HeadAndBodyHaveDeadlinesOfTheirOwn)
{
    NET_HTTPSERVER_LISTEN_PARAM param{};
    param.dwHeadTimeout = 400;
    param.dwRecvTimeout = 1500;
    startListenWith(param);
    TestClient trickle;  // a byte of head now and then: alive, but never whole
    TestClient slowBody;
    TestClient patient;  // its body takes longer than the head's deadline, within the receive time-out
    ASSERT_TRUE(trickle.connectTo(m_port));
    ASSERT_TRUE(slowBody.connectTo(m_port));
    ASSERT_TRUE(patient.connectTo(m_port));
    const auto start = Clock::now();
    ASSERT_TRUE(slowBody.send("POST /slow HTTP/1.1\r\nContent-Length: 10\r\n\r\n12345"));
    ASSERT_TRUE(patient.send("POST /patient HTTP/1.1\r\nContent-Length: 4\r\n\r\nab"));
    for (const char* piece : {"GET /slow HTTP/1.1\r\n", "X-A: 1\r\n", "X-B: 2\r\n"}) {
        trickle.send(piece);
        sleepMs(150);
    }
    EXPECT_TRUE(trickle.waitForClose(3000));
    const auto headClosed = Clock::now() - start;
    EXPECT_GE(headClosed, std::chrono::milliseconds(350));
    EXPECT_LT(headClosed, std::chrono::milliseconds(1200)) << "the head's deadline was not applied";
    EXPECT_TRUE(stillOpen(slowBody)) << "a whole head has the receive time-out for its body";
    sleepMs(400);
    ASSERT_TRUE(patient.send("cd"));
    const Request request = waitForRequest(3000);
    EXPECT_EQ(request.body, "abcd");
    EXPECT_TRUE(slowBody.waitForClose(3000));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(1400));
    EXPECT_EQ(waitForRequest(0).handle, -1) << "a request reached the owner";
}

TEST_F(ServerTest, AtItsBoundTheOldestWaitingConnectionOfTheSameAddressMakesRoom)
{
    NET_HTTPSERVER_LISTEN_PARAM param{};
    param.dwMaxPerAddress = 2;
    param.dwMaxConnections = 3;
    startListenWith(param);
    TestClient idle[2];
    for (TestClient& client : idle) {
        ASSERT_TRUE(client.connectTo(m_port));
    }
    sleepMs(50);
    // A new client of the same address gets in: the oldest idle one goes, the other stays.
    TestClient first;
    const int firstHandle = sendRequest(first, "GET /first HTTP/1.1\r\n\r\n").handle;
    ASSERT_GT(firstHandle, 0);
    EXPECT_TRUE(idle[0].waitForClose(1000));
    EXPECT_TRUE(stillOpen(idle[1]));
    // Another address is not pushed out by this one's newcomers ...
    TestClient other;
    ASSERT_TRUE(other.connectTo(m_port, 0, "127.0.0.2"));
    sleepMs(50);
    TestClient second;
    const int secondHandle = sendRequest(second, "GET /second HTTP/1.1\r\n\r\n").handle;
    ASSERT_GT(secondHandle, 0);
    EXPECT_TRUE(idle[1].waitForClose(1000));
    EXPECT_TRUE(stillOpen(other));
    // ... and once every connection of the address is served, the next one is refused at once.
    TestClient refused;
    ASSERT_TRUE(refused.connectTo(m_port));
    EXPECT_EQ(refused.receiveAll(2000), kBusy);
    EXPECT_TRUE(stillOpen(other));
    // At the total bound the oldest waiting connection of any address makes room.
    TestClient otherNew;
    ASSERT_TRUE(otherNew.connectTo(m_port, 0, "127.0.0.2"));
    EXPECT_TRUE(other.waitForClose(1000));
    EXPECT_TRUE(stillOpen(otherNew));
    // A served connection frees its place when it ends.
    EXPECT_EQ(replyWith(firstHandle, 0, {}, "ok"), 2);
    EXPECT_TRUE(first.waitForClose(2000));
    EXPECT_EQ(NET_HTTPSERVER_Close(firstHandle, 1), 0);
    EXPECT_EQ(NET_HTTPSERVER_Close(secondHandle, 0), 0);
    TestClient later;
    EXPECT_GT(sendRequest(later, "GET /later HTTP/1.1\r\n\r\n").handle, 0);
}

TEST_F(ServerTest, DescriptorsInReserveAreNotHeldForConnections)
{
    // A reserve that reaches down to the lowest free descriptor leaves no place for a connection.
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const int lowestFree = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(lowestFree, 0);
    close(lowestFree);
    NET_HTTPSERVER_LISTEN_PARAM param{};
    param.dwReserveFds = static_cast<uint32_t>(limit.rlim_cur - static_cast<rlim_t>(lowestFree));
    startListenWith(param);
    TestClient client;
    ASSERT_TRUE(client.connectTo(m_port));
    EXPECT_EQ(client.receiveAll(2000), kBusy);
    EXPECT_EQ(waitForRequest(0).handle, -1);
}
