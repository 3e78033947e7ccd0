// The transport: the socket helpers, and the TCP transmitter on a completion queue, as the audio channel
// uses them. Failures leave nothing behind, checked sends over the backlog limit are refused and logged once,
// a head and its payload stay adjacent, receivers post again from inside their completions, and nothing
// reaches an owner after Close.
#include <gtest/gtest.h>
#include <zrt/zrt.h>

#include <fcntl.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <HttpProtocolWrapper.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "AsyncIoKit.h"
#include "LogCapture.h"
#include "ProcessResources.h"
#include "frame/ErrorCodes.h"
#include "transport/IocpTcpTransmitter.h"
#include "transport/SocketHelpers.h"

using namespace HttpWrapper;
using testsupport::countCompletion;
using testsupport::Counter;
using testsupport::makeTcpPair;
using testsupport::openDescriptorCount;

namespace {

// The transmitters take their callbacks untyped.
void* untyped(void (*callback)(unsigned long, unsigned long, void*))
{
    return reinterpret_cast<void*>(callback);
}

bool readExactly(int sock, char* out, size_t length)
{
    ssize_t got = 1;
    for (size_t done = 0; done < length && got > 0; done += static_cast<size_t>(got)) {
        got = recv(sock, out + done, length - done, 0);
    }
    return got > 0;
}

// A completion queue per test, and TCP pairs: a test hands m_client to a transmitter's Open, which owns it
// from then on; m_server stays the test's.
class Transport : public ::testing::Test {
protected:
    void TearDown() override
    {
        close(m_server);
        EXPECT_EQ(ZRT_AsyncIO_DestroyQueueEx(m_queue), 0);
    }

    bool connectPair() { return close(m_server), makeTcpPair(m_client, m_server); }

    void* m_queue = ZRT_AsyncIO_CreateQueueEx_New(4);
    int m_client = -1;
    int m_server = -1;
};

TEST_F(Transport, SocketHelperFailuresLogTheirStepAndLeaveNoSocketOpen)
{
    LogCapture log;
    int listener = Listen("127.0.0.1", 0);
    ZRT_ADDR_T address;
    ASSERT_EQ(ZRT_GetSockName(listener, &address), 0);
    const int before = openDescriptorCount();
    EXPECT_EQ(Listen("127.0.0.1", ZRT_GetAddrPort(&address)), -1);
    EXPECT_TRUE(log.contains("] [0x01930822] - HttpProtocolWrapper Listen fail, ZRT_Bind fail, errCode<98>"));
    EXPECT_EQ(Listen("localhost", 8080), -1);
    EXPECT_TRUE(log.contains("Listen fail, ZRT_MakeAddrByString fail, Addr<0.0.0.0:8080>, errCode<"));
    EXPECT_EQ(openDescriptorCount(), before);

    // CloseSocket closes and forgets a socket, and leaves an invalid one alone.
    CloseSocket(listener);
    EXPECT_EQ(listener, -1);
    CloseSocket(listener);
    EXPECT_EQ(openDescriptorCount(), before - 1);
}

TEST_F(Transport, FailedTcpOpenClosesTheSocketAndLeavesNothingToUse)
{
    ASSERT_TRUE(connectPair());
    LogCapture log;
    CIocpTcpTransmitter noQueue(ZRT_INVALID_ASYNCIOQUEUE);
    EXPECT_EQ(noQueue.Open(m_client), HPW_ERR_ASYNC_QUEUE);
    EXPECT_EQ(fcntl(m_client, F_GETFD), -1);  // Open owned the socket, so it closed it
    EXPECT_TRUE(
        log.contains("] [0x01930807] - HttpProtocolWrapper CIocpTcpTransmitter Open fail, "
                     "m_hAsyncIocpQueue == ZRT_INVALID_ASYNCIOQUEUE"));
    CIocpTcpTransmitter noSocket(m_queue);
    EXPECT_EQ(noSocket.Open(ZRT_INVALID_SOCKET), HPW_ERR_THREAD);
    char byte = 0;
    EXPECT_EQ(noSocket.SendData(&byte, 1, untyped(countCompletion), nullptr, 0), -1);
    EXPECT_EQ(noSocket.RecvData(&byte, 1, untyped(countCompletion), nullptr), -1);
    EXPECT_EQ(noSocket.PostIoEvent(0, 0), -1);
    EXPECT_EQ(noSocket.GetBuffer(16), nullptr);
}

// The peer reads nothing at first, so a first send far larger than the socket buffers stays outstanding and
// every later one queues behind it. The host's global limit wins over the transmitter's own, and the line
// always prints the global one (1500 when unset).
TEST_F(Transport, CheckedTcpSendsOverTheBacklogLimitAreRefusedAndLoggedOnce)
{
    const struct {
        unsigned short global;
        int own;
        const char* line;
    } cases[] = {
        {10, IOCP_DEFAULT_MAX_COUNT, "] - CIocpTcpTransmitter SendData fail, Over MaxCount<10> count 11"},
        {IOCP_DEEP_NUM_UNSET, 3, "] - CIocpTcpTransmitter SendData fail, Over MaxCount<1500> count 4"},
    };
    struct RestoreGlobal {
        unsigned short saved = g_iIocpDeepNum;
        ~RestoreGlobal() { g_iIocpDeepNum = saved; }
    } restore;
    for (const auto& c : cases) {
        ASSERT_TRUE(connectPair());
        g_iIocpDeepNum = c.global;
        LogCapture log;
        std::vector<char> bulk(8u << 20, 'b');
        char small[64] = {};
        Counter completions;  // outlives the transmitter: completions run until Close
        CIocpTcpTransmitter transmitter(m_queue, c.own);
        ASSERT_EQ(transmitter.Open(m_client), 0);
        auto send = [&](char* data, size_t length, int checkLimit) {
            return transmitter.SendData(data, static_cast<int>(length), untyped(countCompletion), &completions,
                                        checkLimit);
        };
        const int accepted = std::min<int>(c.global, c.own);
        ASSERT_EQ(send(bulk.data(), bulk.size(), 1), 0);
        for (int i = 1; i < accepted; ++i) {
            ASSERT_EQ(send(small, sizeof small, 1), 0) << "send " << i + 1;
        }
        // Pending is one more than the limit now: the sends plus the one held while open.
        EXPECT_EQ(send(small, sizeof small, 1), IOCP_SEND_OVER_LIMIT);
        EXPECT_EQ(send(small, sizeof small, 1), IOCP_SEND_OVER_LIMIT);
        EXPECT_EQ(log.count("Over MaxCount"), 1u);
        EXPECT_TRUE(log.contains(c.line));
        EXPECT_EQ(send(small, sizeof small, 0), 0) << "an unchecked send knows no limit";

        std::vector<char> sink(bulk.size() + accepted * sizeof small);
        ASSERT_TRUE(readExactly(m_server, sink.data(), sink.size()));
        ASSERT_TRUE(completions.waitFor(accepted + 1));
        // Accepted again once the completions have left the trampoline.
        int result = IOCP_SEND_OVER_LIMIT;
        for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
             result == IOCP_SEND_OVER_LIMIT && std::chrono::steady_clock::now() < end;) {
            std::this_thread::yield();
            result = send(small, sizeof small, 1);
        }
        EXPECT_EQ(result, 0);
    }
}

// One message per SendData: an 8-byte head naming sender, sequence and payload length, then the payload,
// whose bytes derive from the head.
struct Frame {
    uint16_t sender;
    uint16_t length;
    uint32_t sequence;
};

char payloadByte(const Frame& frame, size_t i)
{
    return static_cast<char>(frame.sender * 31 + frame.sequence * 7 + i);
}

TEST_F(Transport, TcpHeadAndPayloadStayAdjacentWhenThreadsSendAtOnce)
{
    ASSERT_TRUE(connectPair());
    Counter completions;
    CIocpTcpTransmitter transmitter(m_queue);
    ASSERT_EQ(transmitter.Open(m_client), 0);
    constexpr int kSenders = 4;
    constexpr int kFrames = 1500;
    // Every buffer lives until its completion: the transmitter copies nothing.
    std::vector<Frame> heads(kSenders * kFrames);
    std::vector<std::string> payloads(kSenders * kFrames);
    size_t total = 0;
    for (int i = 0; i < kSenders * kFrames; ++i) {
        heads[i] = Frame{static_cast<uint16_t>(i / kFrames), static_cast<uint16_t>(1 + i * 37 % 700),
                         static_cast<uint32_t>(i % kFrames)};
        for (size_t b = 0; b < heads[i].length; ++b) {
            payloads[i].push_back(payloadByte(heads[i], b));
        }
        total += sizeof(Frame) + heads[i].length;
    }
    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            for (int i = s * kFrames; i < (s + 1) * kFrames; ++i) {
                EXPECT_EQ(
                    transmitter.SendData(reinterpret_cast<char*>(&heads[i]), static_cast<int>(sizeof(Frame)),
                                         &payloads[i][0], heads[i].length, untyped(countCompletion), &completions, 0),
                    0);
            }
        });
    }
    std::vector<char> stream(total);
    const bool complete = readExactly(m_server, stream.data(), total);
    for (std::thread& sender : senders) {
        sender.join();
    }
    ASSERT_TRUE(complete);
    std::vector<uint32_t> next(kSenders, 0);
    for (size_t offset = 0; offset < total;) {
        Frame frame;
        memcpy(&frame, &stream[offset], sizeof frame);
        offset += sizeof frame;
        ASSERT_LT(frame.sender, kSenders) << "offset " << offset;
        ASSERT_EQ(frame.sequence, next[frame.sender]++) << "sender " << frame.sender;
        ASSERT_LE(offset + frame.length, total);
        for (size_t b = 0; b < frame.length; ++b, ++offset) {
            ASSERT_EQ(stream[offset], payloadByte(frame, b))
                << "sender " << frame.sender << " frame " << frame.sequence;
        }
    }
    EXPECT_TRUE(completions.waitFor(2 * kSenders * kFrames));
}

// Receivers post again from inside their completions, as the sessions do; once Close returns, nothing
// reaches them any more.
struct Receiver {
    CIocpTcpTransmitter* transmitter = nullptr;
    char* buffer = nullptr;
    std::string received;  // touched by one completion at a time
    Counter completions;

    static void onReceived(unsigned long error, unsigned long bytes, void* context)
    {
        Receiver* self = static_cast<Receiver*>(context);
        if (error == ZRT_ASYNCIO_ABORTED) {
            self->received += "<aborted>";
        } else if (error == 0 && bytes > 0) {
            self->received.append(self->buffer, bytes);
            EXPECT_EQ(self->transmitter->RecvData(self->buffer, 64, untyped(onReceived), self), 0);
        }
        self->completions.add();
    }
};

TEST_F(Transport, TcpReceiversPostAgainFromInsideTheirCompletionsAndHearNothingAfterClose)
{
    ASSERT_TRUE(connectPair());
    Receiver receiver;  // outlives the transmitter and its completions
    CIocpTcpTransmitter transmitter(m_queue);
    receiver.transmitter = &transmitter;
    ASSERT_EQ(transmitter.Open(m_client), 0);
    receiver.buffer = transmitter.GetBuffer(64);
    ASSERT_NE(receiver.buffer, nullptr);
    EXPECT_EQ(receiver.buffer[64], 0);
    ASSERT_EQ(transmitter.RecvData(receiver.buffer, 64, untyped(Receiver::onReceived), &receiver), 0);
    ASSERT_EQ(transmitter.PostIoEvent(static_cast<int>(ZRT_ASYNCIO_ABORTED), 0), 0);
    ASSERT_TRUE(receiver.completions.waitFor(1));
    for (int round = 2; round <= 3; ++round) {
        ASSERT_EQ(send(m_server, round == 2 ? "one" : "two", 3, 0), 3);
        ASSERT_TRUE(receiver.completions.waitFor(round));
    }

    EXPECT_EQ(transmitter.Close(), 0);
    EXPECT_EQ(transmitter.Close(), 0);
    send(m_server, "late", 4, MSG_NOSIGNAL);
    testsupport::settle();
    EXPECT_EQ(receiver.completions.count(), 3);
    EXPECT_EQ(receiver.received, "<aborted>onetwo");
    char byte;
    EXPECT_EQ(recv(m_server, &byte, 1, 0), 0);  // the peer sees the close
    EXPECT_EQ(transmitter.RecvData(&byte, 1, untyped(countCompletion), &receiver.completions), -1);
    EXPECT_EQ(transmitter.PostIoEvent(0, 0), -1);
}

}  // namespace
