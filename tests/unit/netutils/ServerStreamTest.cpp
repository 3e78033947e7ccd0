/*
 * Streamed replies, driven the way the gateway's sessions drive them, and the
 * ways a streaming connection ends.
 */
#include "ServerFixture.h"
#include "TestClient.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

using nettest::ServerTest;
using nettest::TestClient;

namespace {

using Clock = std::chrono::steady_clock;

uint64_t fnv1a(uint64_t hash, const char* data, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        hash = (hash ^ static_cast<unsigned char>(data[i])) * 1099511628211ull;
    }
    return hash;
}

/* Reads up to the end of the head; body bytes read with it go to `rest`. */
std::string readHead(TestClient& client, std::string& rest)
{
    std::string bytes;
    while (bytes.find("\r\n\r\n") == std::string::npos) {
        const std::string piece = client.receiveSome(4096, 3000);
        if (piece.empty()) {
            return bytes;
        }
        bytes += piece;
    }
    const size_t end = bytes.find("\r\n\r\n") + 4;
    rest = bytes.substr(end);
    return bytes.substr(0, end);
}

}  // namespace

class StreamTest : public ServerTest {
protected:
    /* A request, then the head of a streamed reply as the sessions send it:
     * headers, time-out, Reply, then kind 6. */
    int openStream(TestClient& client, const std::string& lengthHeader, const std::string& lengthValue,
                   int receiveBuffer = 0)
    {
        EXPECT_TRUE(client.connectTo(port(), receiveBuffer));
        EXPECT_TRUE(client.send("GET /QUMEX/ContentMgmt/download HTTP/1.1\r\n\r\n"));
        const int handle = waitForRequest().handle;
        EXPECT_GT(handle, 0);
        EXPECT_EQ(stageHeader(handle, "Content-Type", "application/binary"), 0);
        EXPECT_EQ(stageHeader(handle, lengthHeader, lengthValue), 0);
        EXPECT_EQ(stageInt(handle, NET_HTTPSERVER_PARAM_SEND_TIMEOUT, 5000), 0);
        EXPECT_EQ(NET_HTTPSERVER_Reply(handle, 0), 0);
        EXPECT_EQ(NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_STREAM, nullptr, 0, nullptr, 0), 0);
        return handle;
    }

    /* One block, retried from where the socket stopped, as the sessions do; counts the
     * replies that wrote less than was staged. 0 when all was written, else -1. */
    static int sendBlock(int handle, const char* data, int length, int sendTimeoutMs, int* shortReplies = nullptr)
    {
        for (int done = 0; done < length;) {
            stageInt(handle, NET_HTTPSERVER_PARAM_SEND_TIMEOUT, sendTimeoutMs);
            NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_BODY, nullptr, 0, data + done, length - done);
            const int written = NET_HTTPSERVER_Reply(handle, 0);
            if (written < 0) {
                return -1;
            }
            if (shortReplies != nullptr && written < length - done) {
                ++*shortReplies;
            }
            done += written;
        }
        return 0;
    }

    /* A Reply of a large body on another thread, to a client that reads nothing. */
    std::thread blockedReply(int handle, const std::vector<char>& body, std::atomic<int>& result)
    {
        return std::thread([handle, &body, &result] {
            stageInt(handle, NET_HTTPSERVER_PARAM_SEND_TIMEOUT, 20000);
            NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_BODY, nullptr, 0, body.data(),
                                    static_cast<int>(body.size()));
            result = NET_HTTPSERVER_Reply(handle, 0);
        });
    }
};

TEST_F(StreamTest, HundredMebibytesReachASlowReaderByteExact)
{
    startListen();
    constexpr uint64_t kTotal = 100ull << 20;
    constexpr int kBlock = 1 << 20;
    TestClient client;
    const int handle = openStream(client, "Content-Length", std::to_string(kTotal), 64 * 1024);
    ASSERT_GT(handle, 0);

    std::string head;
    uint64_t received = 0;
    uint64_t receivedHash = 14695981039346656037ull;
    bool closedAtEnd = false;
    std::thread reader([&] {
        std::string piece;
        head = readHead(client, piece);
        receivedHash = fnv1a(receivedHash, piece.data(), piece.size());
        received = piece.size();
        for (uint64_t nextPause = 4 << 20; !(piece = client.receiveSome(65536, 5000)).empty();) {
            receivedHash = fnv1a(receivedHash, piece.data(), piece.size());
            received += piece.size();
            if (received >= nextPause) {
                // Longer than the send time-out: the reply in progress stops early.
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                nextPause += 4 << 20;
            }
        }
        closedAtEnd = client.waitForClose(100);
    });

    // One buffer reused for every block, as the gateway's media buffer is; each block is
    // stamped with its number, so that a lost, repeated or reordered block changes the hash.
    std::vector<char> block(kBlock);
    for (int i = 0; i < kBlock; ++i) {
        block[i] = static_cast<char>((i * 131) >> 3);
    }
    uint64_t sentHash = 14695981039346656037ull;
    int shortReplies = 0;
    for (uint64_t number = 0; number < kTotal / kBlock; ++number) {
        memcpy(block.data(), &number, sizeof(number));
        ASSERT_EQ(sendBlock(handle, block.data(), kBlock, 10, &shortReplies), 0) << "block " << number;
        sentHash = fnv1a(sentHash, block.data(), kBlock);
    }
    reader.join();

    EXPECT_EQ(head,
              "HTTP/1.1 200 OK\r\nContent-Type: application/binary\r\nContent-Length: 104857600\r\n"
              "Connection: close\r\n\r\n");
    EXPECT_EQ(received, kTotal);
    EXPECT_EQ(receivedHash, sentHash);
    EXPECT_TRUE(closedAtEnd) << "the server closes once the announced length is out";
    EXPECT_GT(shortReplies, 0) << "the reader never made a reply stop early";
    EXPECT_TRUE(waitForEnd(handle));
}

TEST_F(StreamTest, ClientVanishingMidReplyFailsTheReplyAndIsReportedOnce)
{
    startListen();
    TestClient client;
    const int handle = openStream(client, "Content-Length", std::to_string(64 << 20), 64 * 1024);
    ASSERT_GT(handle, 0);
    std::thread vanishing([&] {
        client.receiveAll(3000, 256 * 1024);
        client.close(true);
    });
    std::vector<char> block(1 << 20, 'z');
    int status = 0;
    for (int i = 0; i < 64 && status == 0; ++i) {
        status = sendBlock(handle, block.data(), static_cast<int>(block.size()), 5000);
    }
    vanishing.join();
    EXPECT_EQ(status, -1);
    EXPECT_EQ(NET_UTILS_GetLastError(), NET_ERR_CLOSED);
    ASSERT_TRUE(waitForEnd(handle));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // room for a second, wrong report
    EXPECT_EQ(NET_HTTPSERVER_Close(handle, 0), 0);
}

TEST_F(StreamTest, CloseAndDestroyListenInterruptRepliesBlockedOnAFullSocket)
{
    startListen();
    TestClient closing;
    TestClient streaming;
    TestClient idle;
    TestClient unfinished;
    const int closingHandle = openStream(closing, "Content-Length", std::to_string(64 << 20), 16 * 1024);
    const int streamingHandle = openStream(streaming, "Content-Length", std::to_string(64 << 20), 16 * 1024);
    ASSERT_GT(closingHandle, 0);
    ASSERT_GT(streamingHandle, 0);
    ASSERT_TRUE(idle.connectTo(port()));
    ASSERT_TRUE(idle.send("GET /b HTTP/1.1\r\n\r\n"));
    const int idleHandle = waitForRequest().handle;
    ASSERT_GT(idleHandle, 0);
    ASSERT_TRUE(unfinished.connectTo(port()));
    ASSERT_TRUE(unfinished.send("GET /c HTTP/1.1\r\n"));
    const std::vector<char> body(32 << 20, 'd');
    std::atomic<int> closingResult{0};
    std::atomic<int> result{0};
    std::thread closingDelivery = blockedReply(closingHandle, body, closingResult);
    std::thread delivery = blockedReply(streamingHandle, body, result);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(closingResult.load() + result.load(), 0) << "the replies should still be waiting for the socket";

    auto start = Clock::now();
    EXPECT_EQ(NET_HTTPSERVER_Close(closingHandle, 1), 0);
    closingDelivery.join();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(closingResult.load(), -1);
    EXPECT_TRUE(closing.waitForClose(3000)) << "what was written drains, then the stream ends";
    EXPECT_EQ(endCount(closingHandle), 0) << "an owner that closed is not told again";

    const int listenPort = port();
    start = Clock::now();
    destroyListen();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
    delivery.join();
    EXPECT_EQ(result.load(), -1);
    // Both reported connections are ended and their owner told before DestroyListen returns.
    EXPECT_EQ(endCount(streamingHandle), 1);
    EXPECT_EQ(endCount(idleHandle), 1);
    EXPECT_TRUE(idle.waitForClose(3000));
    EXPECT_TRUE(unfinished.waitForClose(3000));
    EXPECT_EQ(requestCount(), 3u);

    // Handles stay known until closed.
    EXPECT_EQ(NET_HTTPSERVER_Reply(idleHandle, 0), -1);
    EXPECT_EQ(NET_UTILS_GetLastError(), NET_ERR_CLOSED);
    EXPECT_EQ(NET_HTTPSERVER_Close(streamingHandle, 1), 0);
    EXPECT_EQ(NET_HTTPSERVER_Close(idleHandle, 1), 0);
    TestClient late;
    EXPECT_FALSE(late.connectTo(listenPort)) << "nobody listens any more";
}
