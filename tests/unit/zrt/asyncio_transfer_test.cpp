// Data paths of the completion queue: byte-exact duplex streams under load,
// with sends completing in posting order, send buffers reusable at once, and
// peer close.
#include "asyncio_test_helpers.h"

#include <string.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <vector>

using namespace asyncio_test;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kStreamBytes = 2u << 20;  // instrumented builds: the same paths, less data
#else
constexpr size_t kStreamBytes = 8u << 20;
#endif

struct Endpoint {
    int sock = -1;
    unsigned inStream = 0;
    std::vector<char> out;
    std::vector<char> in = std::vector<char>(64 * 1024);
    // Only this socket's callbacks touch these, one at a time.
    uint64_t received = 0;
    int sendsCompleted = 0;
    std::atomic<bool> failed{false};
    Counter* finished = nullptr;
};

struct SendChunk {
    Endpoint* end;
    int index;  // posting order on its socket
    int length;
};

void onPatternSent(unsigned long error, unsigned long bytes, void* context)
{
    SendChunk* chunk = static_cast<SendChunk*>(context);
    // Sends complete whole and in posting order.
    if (error != 0 || bytes != (unsigned long)chunk->length || chunk->index != chunk->end->sendsCompleted++) {
        chunk->end->failed = true;
    }
    chunk->end->finished->add();
}

void onPatternReceived(unsigned long error, unsigned long bytes, void* context)
{
    Endpoint* end = static_cast<Endpoint*>(context);
    bool ok = error == 0 && bytes > 0 && matchesPattern(end->in.data(), bytes, end->received, end->inStream);
    end->received += ok ? bytes : 0;
    if (ok && end->received < kStreamBytes) {
        int want = (int)std::min<uint64_t>(end->in.size(), kStreamBytes - end->received);
        ok = ZRT_AsyncIO_RecvEx(end->sock, end->in.data(), want, end, onPatternReceived) == 0;
        if (ok) {
            return;
        }
    }
    end->failed = end->failed || !ok;
    end->finished->add();
}

TEST_F(AsyncQueueTest, ConcurrentDuplexStreamsArriveByteExactAndSendsCompleteInOrder)
{
    Counter finished;
    std::vector<std::unique_ptr<Endpoint>> ends;
    for (unsigned pair = 0; pair < 6; ++pair) {
        int sockets[2];
        ASSERT_TRUE(makeTcpPair(sockets[0], sockets[1]));
        for (unsigned side = 0; side < 2; ++side) {
            std::unique_ptr<Endpoint> end(new Endpoint);
            end->sock = sockets[side];
            end->inStream = 2 * pair + 1 - side;
            end->finished = &finished;
            end->out.resize(kStreamBytes);
            fillPattern(end->out.data(), kStreamBytes, 0, 2 * pair + side);
            ASSERT_EQ(ZRT_AsyncIO_BindIOHandleToQueueEx(end->sock, m_queue), 0);
            ASSERT_EQ(ZRT_AsyncIO_RecvEx(end->sock, end->in.data(), (int)end->in.size(), end.get(), onPatternReceived),
                      0);
            ends.push_back(std::move(end));
        }
    }
    // One thread per socket posts all its sends at once, in chunks of up to
    // 1 MiB: far beyond the socket buffers, so most writes are short and are
    // continued inside the queue.
    std::vector<std::vector<SendChunk>> chunks(ends.size());
    std::vector<std::thread> posters;
    int expected = (int)ends.size();
    for (size_t s = 0; s < ends.size(); ++s) {
        for (size_t offset = 0, seed = s; offset < kStreamBytes; offset += (size_t)chunks[s].back().length) {
            seed = seed * 1103515245u + 12345u;
            int length = (int)std::min<size_t>(1 + (seed >> 8) % (1u << 20), kStreamBytes - offset);
            chunks[s].push_back(SendChunk{ends[s].get(), (int)chunks[s].size(), length});
        }
        expected += (int)chunks[s].size();
        posters.emplace_back([&, s] {
            size_t offset = 0;
            for (SendChunk& chunk : chunks[s]) {
                const char* data = &ends[s]->out[offset];
                if (ZRT_AsyncIO_SendEx(ends[s]->sock, data, chunk.length, &chunk, onPatternSent) != 0) {
                    ends[s]->failed = true;
                }
                offset += (size_t)chunk.length;
            }
        });
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    ASSERT_TRUE(finished.waitFor(expected, 120000)) << finished.count() << " of " << expected;
    for (auto& end : ends) {
        EXPECT_FALSE(end->failed) << "socket " << end->sock;
        EXPECT_EQ(end->received, kStreamBytes);
        EXPECT_EQ(ZRT_AsyncIO_UnBindIOHandleEx(end->sock, m_queue), 0);
        close(end->sock);
    }
}

// A poster may reuse its buffer as soon as the post returns, also when the peer
// does not read and the sends have to wait: what arrives is what was posted.
TEST_F(AsyncQueueTest, SendBufferIsFreeWhenThePostReturnsEvenWhileThePeerDoesNotRead)
{
    const int kSmallBuffer = 4096;
    setsockopt(m_server, SOL_SOCKET, SO_SNDBUF, &kSmallBuffer, sizeof kSmallBuffer);
    setsockopt(m_client, SOL_SOCKET, SO_RCVBUF, &kSmallBuffer, sizeof kSmallBuffer);
    ASSERT_EQ(ZRT_AsyncIO_BindIOHandleToQueueEx(m_server, m_queue), 0);

    const int kChunk = 1000;
    const int kChunks = 400;  // far more than the two socket buffers hold
    Counter sent;
    std::vector<char> reused(kChunk);
    for (int i = 0; i < kChunks; ++i) {
        fillPattern(reused.data(), reused.size(), (uint64_t)i * kChunk, 3);
        ASSERT_EQ(ZRT_AsyncIO_SendEx(m_server, reused.data(), kChunk, &sent, countCompletion), 0);
        memset(reused.data(), 0x5A, reused.size());  // the poster's buffer changes at once
    }

    std::vector<char> got((size_t)kChunk * kChunks);
    size_t have = 0;
    while (have < got.size()) {
        ssize_t n = recv(m_client, got.data() + have, got.size() - have, 0);
        ASSERT_GT(n, 0);
        have += (size_t)n;
    }
    EXPECT_TRUE(matchesPattern(got.data(), got.size(), 0, 3));
    EXPECT_TRUE(sent.waitFor(kChunks));
    EXPECT_EQ(ZRT_AsyncIO_UnBindIOHandleEx(m_server, m_queue), 0);
}

TEST_F(AsyncQueueTest, PeerCloseCompletesEveryReceiveWithZeroBytes)
{
    struct Results {
        std::mutex mutex;
        std::vector<std::pair<unsigned long, unsigned long>> items;  // (error, bytes)
        Counter done;
    } results;
    auto record = [](unsigned long error, unsigned long bytes, void* context) {
        Results* results = static_cast<Results*>(context);
        {
            std::lock_guard<std::mutex> guard(results->mutex);
            results->items.emplace_back(error, bytes);
        }
        results->done.add();
    };
    ASSERT_EQ(ZRT_AsyncIO_BindIOHandleToQueueEx(m_server, m_queue), 0);
    char buffer[64];
    ASSERT_EQ(ZRT_AsyncIO_RecvEx(m_server, buffer, sizeof buffer, &results, record), 0);
    ASSERT_EQ(send(m_client, "hi", 2, 0), 2);
    ASSERT_TRUE(results.done.waitFor(1));
    ASSERT_EQ(ZRT_AsyncIO_RecvEx(m_server, buffer, sizeof buffer, &results, record), 0);
    shutdown(m_client, SHUT_WR);
    ASSERT_TRUE(results.done.waitFor(2));
    ASSERT_EQ(ZRT_AsyncIO_RecvEx(m_server, buffer, sizeof buffer, &results, record), 0);  // after the close
    ASSERT_TRUE(results.done.waitFor(3));

    std::lock_guard<std::mutex> guard(results.mutex);
    std::vector<std::pair<unsigned long, unsigned long>> expected = {{0, 2}, {0, 0}, {0, 0}};
    EXPECT_EQ(results.items, expected);
    EXPECT_EQ(ZRT_AsyncIO_UnBindIOHandleEx(m_server, m_queue), 0);
}

}  // namespace
