// The TCP transmitter: failed opening, the send backlog limit and its log line,
// header and payload adjacency, and silence after Close.
#include "transport_test_support.h"

#include <fcntl.h>
#include <string.h>

#include <HttpProtocolWrapper.h>

#include <atomic>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "frame/ErrorCodes.h"
#include "transport/IocpTcpTransmitter.h"

using namespace HttpWrapper;
using namespace transport_test;

namespace {

class TcpTransmitter : public TcpPairTest {};

TEST_F(TcpTransmitter, FailedOpenClosesTheSocketAndLeavesNothingToUse)
{
    LogCapture log;
    CIocpTcpTransmitter noQueue(ZRT_INVALID_ASYNCIOQUEUE);
    EXPECT_EQ(noQueue.Open(m_client), HPW_ERR_ASYNC_QUEUE);
    EXPECT_EQ(fcntl(m_client, F_GETFD), -1);  // Open owned the socket, so it closed it
    EXPECT_TRUE(log.contains("STREAMerror|[Open("));
    EXPECT_TRUE(
        log.contains("] [0x01930807] - HttpProtocolWrapper CIocpTcpTransmitter Open fail, "
                     "m_hAsyncIocpQueue == ZRT_INVALID_ASYNCIOQUEUE"));
    EXPECT_EQ(noQueue.Close(), 0);

    CIocpTcpTransmitter noSocket(m_queue);
    EXPECT_EQ(noSocket.Open(ZRT_INVALID_SOCKET), HPW_ERR_THREAD);
    char byte = 0;
    Counter completions;
    EXPECT_EQ(noSocket.SendData(&byte, 1, (void*)countCompletion, &completions, 0), -1);
    EXPECT_EQ(noSocket.RecvData(&byte, 1, (void*)countCompletion, &completions), -1);
    EXPECT_EQ(noSocket.PostIoEvent(0, 0), -1);
    EXPECT_EQ(noSocket.GetBuffer(16), nullptr);
}

// Sets the host's global limit for one test.
class DeepNum {
public:
    explicit DeepNum(unsigned short value) : m_saved(g_iIocpDeepNum) { g_iIocpDeepNum = value; }
    ~DeepNum() { g_iIocpDeepNum = m_saved; }

private:
    unsigned short m_saved;
};

// The peer reads nothing, so a first send far larger than the socket buffers
// stays outstanding and every later one queues behind it.
struct Backlog {
    std::vector<char> bulk = std::vector<char>(32u << 20, 'b');
    std::vector<char> small = std::vector<char>(64, 's');
    Counter completions;

    int send(CIocpTcpTransmitter& transmitter, std::vector<char>& data, int checkLimit)
    {
        return transmitter.SendData(data.data(), (int)data.size(), (void*)countCompletion, &completions, checkLimit);
    }
};

TEST_F(TcpTransmitter, GlobalLimitRefusesTheEleventhOutstandingCheckedSendAndLogsOnce)
{
    DeepNum limit(10);
    LogCapture log;
    Backlog backlog;  // outlives the transmitter: completions run until Close
    CIocpTcpTransmitter transmitter(m_queue);
    ASSERT_EQ(transmitter.Open(m_client), 0);
    ASSERT_EQ(backlog.send(transmitter, backlog.bulk, 1), 0);
    for (int i = 2; i <= 10; ++i) {
        ASSERT_EQ(backlog.send(transmitter, backlog.small, 1), 0) << "send " << i;
    }
    // Pending is 11 now (ten sends plus the one held while open).
    EXPECT_EQ(backlog.send(transmitter, backlog.small, 1), IOCP_SEND_OVER_LIMIT);
    EXPECT_EQ(backlog.send(transmitter, backlog.small, 1), IOCP_SEND_OVER_LIMIT);
    EXPECT_EQ(log.count("Over MaxCount"), 1u);
    EXPECT_TRUE(log.contains("STREAMdebug|[SendData("));
    EXPECT_TRUE(log.contains("] - CIocpTcpTransmitter SendData fail, Over MaxCount<10> count 11"));
    EXPECT_EQ(backlog.send(transmitter, backlog.small, 0), 0);  // unchecked: no limit

    std::vector<char> sink(backlog.bulk.size() + 10 * backlog.small.size());
    ASSERT_TRUE(readExactly(m_server, sink.data(), sink.size()));
    ASSERT_TRUE(backlog.completions.waitFor(11));
    // Accepted again once the completions have left the trampoline.
    int result = IOCP_SEND_OVER_LIMIT;
    for (int attempt = 0; attempt < 1000 && result == IOCP_SEND_OVER_LIMIT; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(attempt == 0 ? 0 : 1));
        result = backlog.send(transmitter, backlog.small, 1);
    }
    EXPECT_EQ(result, 0);
}

TEST_F(TcpTransmitter, SmallerMaxCountLimitsWhenUnsetButTheLinePrints1500)
{
    DeepNum unset(IOCP_DEEP_NUM_UNSET);
    LogCapture log;
    Backlog backlog;  // outlives the transmitter: completions run until Close
    CIocpTcpTransmitter transmitter(m_queue, 3);
    ASSERT_EQ(transmitter.Open(m_client), 0);
    ASSERT_EQ(backlog.send(transmitter, backlog.bulk, 1), 0);
    ASSERT_EQ(backlog.send(transmitter, backlog.small, 1), 0);
    ASSERT_EQ(backlog.send(transmitter, backlog.small, 1), 0);
    EXPECT_EQ(backlog.send(transmitter, backlog.small, 1), IOCP_SEND_OVER_LIMIT);
    EXPECT_TRUE(log.contains("] - CIocpTcpTransmitter SendData fail, Over MaxCount<1500> count 4"));
}

// One message per SendData: an 8-byte head naming sender, sequence and payload
// length, then the payload, whose bytes derive from the head.
struct Frame {
    uint16_t sender;
    uint16_t length;
    uint32_t sequence;
};

char payloadByte(const Frame& frame, size_t i)
{
    return (char)(frame.sender * 31 + frame.sequence * 7 + i);
}

TEST_F(TcpTransmitter, HeadAndPayloadStayAdjacentWhenThreadsSendAtOnce)
{
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
        heads[i] = Frame{(uint16_t)(i / kFrames), (uint16_t)(1 + i * 37 % 700), (uint32_t)(i % kFrames)};
        for (size_t b = 0; b < heads[i].length; ++b) {
            payloads[i].push_back(payloadByte(heads[i], b));
        }
        total += sizeof(Frame) + heads[i].length;
    }
    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            for (int i = s * kFrames; i < (s + 1) * kFrames; ++i) {
                EXPECT_EQ(transmitter.SendData(reinterpret_cast<char*>(&heads[i]), (int)sizeof(Frame), &payloads[i][0],
                                               heads[i].length, (void*)countCompletion, &completions, 0),
                          0);
            }
        });
    }
    std::vector<char> stream(total);
    bool complete = readExactly(m_server, stream.data(), total);
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
        for (size_t b = 0; b < frame.length; ++b) {
            ASSERT_EQ(stream[offset + b], payloadByte(frame, b))
                << "sender " << frame.sender << " frame " << frame.sequence;
        }
        offset += frame.length;
    }
    EXPECT_TRUE(completions.waitFor(2 * kSenders * kFrames));
}

TEST_F(TcpTransmitter, NothingReachesTheOwnerAfterClose)
{
    Counter completions;
    CIocpTcpTransmitter transmitter(m_queue);
    ASSERT_EQ(transmitter.Open(m_client), 0);
    char* buffer = transmitter.GetBuffer(64);
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer[64], 0);
    ASSERT_EQ(transmitter.RecvData(buffer, 64, (void*)countCompletion, &completions), 0);
    ASSERT_EQ(transmitter.PostIoEvent((int)ZRT_ASYNCIO_ABORTED, 0), 0);
    ASSERT_TRUE(completions.waitFor(1));

    EXPECT_EQ(transmitter.Close(), 0);
    EXPECT_EQ(transmitter.Close(), 0);
    send(m_server, "late", 4, MSG_NOSIGNAL);
    settle();
    EXPECT_EQ(completions.count(), 1);
    char byte;
    EXPECT_EQ(recv(m_server, &byte, 1, 0), 0);  // the peer sees the close
    EXPECT_EQ(transmitter.RecvData(&byte, 1, (void*)countCompletion, &completions), -1);
    EXPECT_EQ(transmitter.PostIoEvent(0, 0), -1);
}

}  // namespace
