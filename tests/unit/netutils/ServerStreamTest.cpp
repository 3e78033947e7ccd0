// Streamed replies, driven the way the gateway's sessions drive them, to a slow reader and to one that
// reads nothing.
#include "ServerFixture.h"

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

using nettest::ServerTest;
using nettest::TestClient;
using Clock = std::chrono::steady_clock;

namespace {

constexpr uint64_t kFnvStart = 14695981039346656037ull;

uint64_t fnv1a(uint64_t hash, const std::string& data)
{
    for (char byte : data) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * 1099511628211ull;
    }
    return hash;
}

}  // namespace

class StreamTest : public ServerTest {
protected:
    // A request, then the head of a streamed reply as the sessions send it:
    // headers, time-out, Reply, then kind 6.
    int openStream(TestClient& client, int receiveBuffer)
    {
        const int handle =
            sendRequest(client, "GET /QUMEX/ContentMgmt/download HTTP/1.1\r\n\r\n", receiveBuffer).handle;
        EXPECT_GT(handle, 0);
        EXPECT_EQ(stageHeader(handle, "Content-Type", "application/binary"), 0);
        EXPECT_EQ(stageHeader(handle, "Content-Length", std::to_string(kStreamLength)), 0);
        EXPECT_EQ(stageInt(handle, NET_HTTPSERVER_PARAM_SEND_TIMEOUT, 5000), 0);
        EXPECT_EQ(NET_HTTPSERVER_Reply(handle, 0), 0);
        EXPECT_EQ(NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_STREAM, nullptr, 0, nullptr, 0), 0);
        return handle;
    }

    // One block, retried from where the socket stopped, as the sessions do; counts the
    // replies that wrote less than was staged. 0 when all was written, else -1.
    static int sendBlock(int handle, const char* data, size_t length, int sendTimeoutMs, int* shortReplies = nullptr)
    {
        for (size_t done = 0; done < length;) {
            stageInt(handle, NET_HTTPSERVER_PARAM_SEND_TIMEOUT, sendTimeoutMs);
            NET_HTTPSERVER_SetParam(handle, NET_HTTPSERVER_PARAM_BODY, nullptr, 0, data + done,
                                    static_cast<int>(length - done));
            const int written = NET_HTTPSERVER_Reply(handle, 0);
            if (written < 0) {
                return -1;
            }
            if (shortReplies != nullptr && static_cast<size_t>(written) < length - done) {
                ++*shortReplies;
            }
            done += static_cast<size_t>(written);
        }
        return 0;
    }

    static constexpr uint64_t kStreamLength = 100ull << 20;
};

TEST_F(StreamTest, HundredMebibytesReachASlowReaderByteExact)
{
    startListen();
    constexpr int kBlock = 1 << 20;
    TestClient client;
    const int handle = openStream(client, 64 * 1024);
    ASSERT_GT(handle, 0);
    uint64_t received = 0;
    uint64_t receivedHash = kFnvStart;
    bool closedAtEnd = false;
    std::thread reader([&] {
        std::string piece;
        for (uint64_t nextPause = 4 << 20; !(piece = client.receiveSome(65536, 5000)).empty();) {
            receivedHash = fnv1a(receivedHash, piece);
            received += piece.size();
            if (received >= nextPause) {
                // Longer than the send time-out: the reply in progress stops early.
                std::this_thread::sleep_for(std::chrono::milliseconds(30));
                nextPause += 4 << 20;
            }
        }
        closedAtEnd = client.waitForClose(100);
    });

    const std::string head =
        "HTTP/1.1 200 OK\r\nContent-Type: application/binary\r\nContent-Length: 104857600\r\nConnection: close\r\n\r\n";
    uint64_t sentHash = fnv1a(kFnvStart, head);
    // One buffer reused for every block, as the gateway's media buffer is; each block is
    // stamped with its number, so that a lost, repeated or reordered block changes the hash.
    std::string block(kBlock, '\0');
    for (int i = 0; i < kBlock; ++i) {
        block[i] = static_cast<char>((i * 131) >> 3);
    }
    int shortReplies = 0;
    for (uint64_t number = 0; number < kStreamLength / kBlock; ++number) {
        memcpy(&block[0], &number, sizeof(number));
        ASSERT_EQ(sendBlock(handle, block.data(), kBlock, 10, &shortReplies), 0) << "block " << number;
        sentHash = fnv1a(sentHash, block);
    }
    reader.join();
    EXPECT_EQ(received, head.size() + kStreamLength);
    EXPECT_EQ(receivedHash, sentHash);
    EXPECT_TRUE(closedAtEnd) << "the server closes once the announced length is out";
    EXPECT_GT(shortReplies, 0) << "the reader never made a reply stop early";
    EXPECT_EQ(endCount(handle, 5000), 1);
}

// As the owner's time-out passes do: a handle is closed while its reply waits on a client that reads nothing.
TEST_F(StreamTest, CloseInterruptsAReplyBlockedOnAFullSocket)
{
    startListen();
    TestClient client;
    const int handle = openStream(client, 16 * 1024);
    ASSERT_GT(handle, 0);
    const std::vector<char> body(32 << 20, 'd');
    std::atomic<int> result{0};
    std::thread delivery([&] { result = sendBlock(handle, body.data(), body.size(), 20000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(result.load(), 0) << "the reply should still be waiting for the socket";

    const auto start = Clock::now();
    EXPECT_EQ(NET_HTTPSERVER_Close(handle, 1), 0);
    delivery.join();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(2));
    EXPECT_EQ(result.load(), -1);
    EXPECT_TRUE(client.waitForClose(5000)) << "what was written drains, then the stream ends";
    EXPECT_EQ(endCount(handle), 0) << "an owner that closed is not told again";
}
