/*
 * Requests that never reach the owner: malformed, over a limit, or too slow.
 */
#include "ServerFixture.h"
#include "TestClient.h"

#include <chrono>
#include <string>

using nettest::ServerTest;
using nettest::TestClient;

TEST_F(ServerTest, MalformedAndOversizedRequestsAreRefusedWithoutCallback)
{
    startListen();
    const std::string bad = "HTTP/1.1 400 Bad Request\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    const std::string tooLarge =
        "HTTP/1.1 413 Request Entity Too Large\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    const std::pair<std::string, std::string> cases[] = {
        {"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03 not http\r\n\r\n", bad},
        {"GET / HTTP/1.1\r\nContent-Length: -1\r\n\r\n", bad},
        {"GET /" + std::string(9000, 'a') + " HTTP/1.1\r\n\r\n", tooLarge},
        {"GET / HTTP/1.1\r\nX-Big: " + std::string(9000, 'h') + "\r\n\r\n", tooLarge},
        // The client goes on sending after the refusal: the server reads and drops it, so
        // that a reset does not destroy the 413 before the client has read it.
        {"POST / HTTP/1.1\r\nContent-Length: 3000000\r\n\r\n" + std::string(512 * 1024, 'x'), tooLarge},
    };
    for (const auto& c : cases) {
        TestClient client;
        ASSERT_TRUE(client.connectTo(port()));
        client.send(c.first);
        EXPECT_EQ(client.receiveAll(3000), c.second) << c.first.substr(0, 40);
    }
    EXPECT_EQ(requestCount(), 0u);
}

TEST_F(ServerTest, OtherMethodsGet405AtOnceAndNeverReachTheOwner)
{
    startListen(30000);
    const std::string notAllowed =
        "HTTP/1.1 405 Method Not Allowed\r\nAllow: GET, PUT, POST, DELETE\r\n"
        "Connection: close\r\nContent-Length: 0\r\n\r\n";
    for (const char* request : {"HEAD /QUMEX/ContentMgmt/download HTTP/1.1\r\nHost: a\r\n\r\n",
                                "OPTIONS * HTTP/1.1\r\nHost: a\r\n\r\n", "PATCH /x HTTP/1.1\r\n"}) {
        TestClient client;
        ASSERT_TRUE(client.connectTo(port()));
        const auto start = std::chrono::steady_clock::now();
        client.send(request);
        EXPECT_EQ(client.receiveAll(3000), notAllowed) << request;
        EXPECT_TRUE(client.waitForClose(1000)) << request;
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1)) << request;
    }
    EXPECT_EQ(requestCount(), 0u);
}

TEST_F(ServerTest, PipelinedBytesAfterTheRequestAreIgnored)
{
    startListen();
    TestClient client;
    ASSERT_TRUE(client.connectTo(port()));
    ASSERT_TRUE(
        client.send("PUT /one HTTP/1.1\r\nContent-Length: 2\r\n\r\nokGET /two HTTP/1.1\r\n\r\n\x01\x02garbage"));
    const Request request = waitForRequest();
    ASSERT_GT(request.handle, 0);
    EXPECT_EQ(request.url, "/one");
    EXPECT_EQ(request.body, "ok");
    ASSERT_TRUE(client.send("more garbage after the request\r\n\r\n"));
    EXPECT_EQ(replyWith(request.handle, 0, {}, "done"), 4);
    EXPECT_EQ(client.receiveAll(3000), "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 4\r\n\r\ndone");
    EXPECT_EQ(waitForRequest(200).handle, -1);
}

TEST_F(ServerTest, StalledRequestIsClosedSilentlyAfterTheReceiveTimeout)
{
    startListen(300);
    TestClient inHeaders;
    TestClient inBody;
    ASSERT_TRUE(inHeaders.connectTo(port()));
    ASSERT_TRUE(inBody.connectTo(port()));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(inHeaders.send("GET /slow HTTP/1.1\r\nHost: x\r\n"));
    ASSERT_TRUE(inBody.send("POST /slow HTTP/1.1\r\nContent-Length: 10\r\n\r\n12345"));
    EXPECT_TRUE(inHeaders.waitForClose(3000));
    EXPECT_TRUE(inBody.waitForClose(3000));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
    EXPECT_EQ(requestCount(), 0u);
}
