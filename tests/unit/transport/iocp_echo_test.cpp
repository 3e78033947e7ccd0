// A loopback echo through two TCP transmitters: the client streams a pattern
// with a window of sends in flight, the server sends back whatever it receives,
// and the client checks every byte that returns.
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

// The server has one receive or one send outstanding at a time: it sends back
// what it received, and receives again once that send completed.
struct EchoServer {
    CIocpTcpTransmitter* transmitter = nullptr;
    std::vector<char> buffer = std::vector<char>(1u << 20);
    std::atomic<bool> failed{false};
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

void serverReceived(unsigned long error, unsigned long bytes, void* context);

void postServerReceive(EchoServer* server)
{
    if (server->transmitter->RecvData(server->buffer.data(), (int)server->buffer.size(), (void*)serverReceived,
                                      server) != 0) {
        server->failed = true;
    }
}

void serverSent(unsigned long error, unsigned long bytes, void* context)
{
    EchoServer* server = static_cast<EchoServer*>(context);
    server->failed = server->failed || error != 0 || bytes == 0;
    postServerReceive(server);
}

void serverReceived(unsigned long error, unsigned long bytes, void* context)
{
    EchoServer* server = static_cast<EchoServer*>(context);
    if (error != 0 || bytes == 0) {
        server->failed = error != 0;  // 0 bytes: the client is gone, the echo is over
    } else if (server->transmitter->SendData(server->buffer.data(), (int)bytes, (void*)serverSent, server, 0) != 0) {
        server->failed = true;
    }
}

class TransmitterEcho : public TcpPairTest {};

TEST_F(TransmitterEcho, MovesTheWholeStreamThereAndBackByteExact)
{
    EchoClient client;  // both outlive the transmitters and their completions
    EchoServer server;
    CIocpTcpTransmitter clientTransmitter(m_queue);
    CIocpTcpTransmitter serverTransmitter(m_queue);
    ASSERT_EQ(clientTransmitter.Open(m_client), 0);
    ASSERT_EQ(serverTransmitter.Open(m_server), 0);
    m_server = -1;  // the server transmitter owns it now
    client.transmitter = &clientTransmitter;
    server.transmitter = &serverTransmitter;
    client.pattern.resize(kPatternLength);
    uint32_t state = 0x12345678u;
    for (char& byte : client.pattern) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = (char)state;
    }

    auto started = std::chrono::steady_clock::now();
    postServerReceive(&server);
    ASSERT_EQ(clientTransmitter.RecvData(client.input.data(), (int)client.input.size(), (void*)clientReceived, &client),
              0);
    postClientSends(&client);
    ASSERT_TRUE(client.done.waitFor(1, 300000));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    std::printf("echoed %llu MiB in %.2f s\n", (unsigned long long)(kEchoBytes >> 20), seconds);

    EXPECT_EQ(serverTransmitter.Close(), 0);
    EXPECT_EQ(clientTransmitter.Close(), 0);
    EXPECT_FALSE(client.failed);
    EXPECT_FALSE(server.failed);
    EXPECT_EQ(client.received, kEchoBytes);
}

}  // namespace
