// A loopback echo through a TCP transmitter: it streams a pattern with a window
// of sends in flight, the peer sends back whatever it receives, and every byte
// that returns is checked.
#include "transport_test_support.h"

#include <string.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <vector>

#include "transport/IocpTcpTransmitter.h"

using namespace HttpWrapper;
using namespace transport_test;

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr uint64_t kEchoBytes = 256ull << 20;  // the race detector: the same paths, less data
#else
constexpr uint64_t kEchoBytes = 1ull << 30;
#endif
// The stream repeats a pattern of this length: not a multiple of any chunk size,
// so a lost, doubled or reordered chunk shows.
constexpr size_t kPatternLength = (4u << 20) + 13;
constexpr int kChunk = 256 * 1024;
constexpr int kSendWindow = 16;

struct EchoClient {
    CIocpTcpTransmitter* transmitter = nullptr;
    std::vector<char> pattern;
    std::vector<char> input = std::vector<char>(1u << 20);
    std::mutex mutex;  // guards the two send fields
    uint64_t sendOffset = 0;
    int sendsInFlight = 0;
    uint64_t received = 0;  // touched by receive callbacks only, one at a time
    std::atomic<bool> failed{false};
    Counter done;

    void fail()
    {
        failed = true;
        done.add();
    }
};

void clientSent(unsigned long error, unsigned long bytes, void* context);

void postClientSends(EchoClient* client)
{
    std::lock_guard<std::mutex> guard(client->mutex);
    while (client->sendsInFlight < kSendWindow && client->sendOffset < kEchoBytes) {
        size_t start = (size_t)(client->sendOffset % kPatternLength);
        uint64_t length =
            std::min<uint64_t>({(uint64_t)kChunk, kEchoBytes - client->sendOffset, kPatternLength - start});
        if (client->transmitter->SendData(&client->pattern[start], (int)length, (void*)clientSent, client, 0) != 0) {
            return client->fail();
        }
        client->sendOffset += length;
        ++client->sendsInFlight;
    }
}

void clientSent(unsigned long error, unsigned long bytes, void* context)
{
    EchoClient* client = static_cast<EchoClient*>(context);
    if (error != 0 || bytes == 0) {
        return client->fail();
    }
    {
        std::lock_guard<std::mutex> guard(client->mutex);
        --client->sendsInFlight;
    }
    postClientSends(client);
}

void clientReceived(unsigned long error, unsigned long bytes, void* context)
{
    EchoClient* client = static_cast<EchoClient*>(context);
    if (error != 0 || bytes == 0) {
        return client->fail();
    }
    for (size_t done = 0; done < bytes;) {
        size_t start = (size_t)((client->received + done) % kPatternLength);
        size_t piece = std::min(bytes - done, kPatternLength - start);
        if (memcmp(&client->input[done], &client->pattern[start], piece) != 0) {
            return client->fail();
        }
        done += piece;
    }
    client->received += bytes;
    if (client->received >= kEchoBytes) {
        client->done.add();
    } else if (client->transmitter->RecvData(client->input.data(), (int)client->input.size(), (void*)clientReceived,
                                             client) != 0) {
        client->fail();
    }
}

// The server side echoes with plain blocking calls until the client goes away.
void echoUntilClosed(int sock)
{
    std::vector<char> buffer(1u << 20);
    for (ssize_t got; (got = recv(sock, buffer.data(), buffer.size(), 0)) > 0;) {
        for (ssize_t done = 0, sent; done < got; done += sent) {
            if ((sent = send(sock, &buffer[(size_t)done], (size_t)(got - done), MSG_NOSIGNAL)) <= 0) {
                return;
            }
        }
    }
}

class TransmitterEcho : public TcpPairTest {};

TEST_F(TransmitterEcho, MovesTheWholeStreamThereAndBackByteExact)
{
    EchoClient client;  // outlives the transmitter and its completions
    CIocpTcpTransmitter clientTransmitter(m_queue);
    ASSERT_EQ(clientTransmitter.Open(m_client), 0);
    client.transmitter = &clientTransmitter;
    client.pattern.resize(kPatternLength);
    uint32_t state = 0x12345678u;
    for (char& byte : client.pattern) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = (char)state;
    }

    auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(clientTransmitter.RecvData(client.input.data(), (int)client.input.size(), (void*)clientReceived, &client),
              0);
    std::thread server(echoUntilClosed, m_server);
    postClientSends(&client);
    bool done = client.done.waitFor(1, 300000);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::printf("echoed %llu MiB in %.2f s\n", (unsigned long long)(kEchoBytes >> 20), seconds);

    EXPECT_EQ(clientTransmitter.Close(), 0);  // the server sees the end and stops
    server.join();
    ASSERT_TRUE(done);
    EXPECT_FALSE(client.failed);
    EXPECT_EQ(client.received, kEchoBytes);
}

}  // namespace
