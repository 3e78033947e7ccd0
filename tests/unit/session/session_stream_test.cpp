// The reply paths of a standard session against a stand-in reply interface:
// what is staged for the head, how each media block is framed, how partial
// writes, stalls and failures are handled.
#include <gtest/gtest.h>

#include <string.h>

#include <memory>

#include <ext/StreamBlockLayout.h>

#include "FakeNetServer.h"
#include "LogCapture.h"
#include "TestSession.h"
#include "frame/Clock.h"
#include "frame/HttpServerWrapper.h"

using namespace HttpWrapper;

namespace {

const int kHandle = 42;

ZRT_UINT64 g_fakeNow = 0;
// Every reading of the clock moves it on by a second.
ZRT_UINT64 steppingClock()
{
    return g_fakeNow += 1000;
}

class SessionStream : public ::testing::Test {
protected:
    void SetUp() override
    {
        net.reset();
        session.reset(new TestSession(nullptr, nullptr));
        ASSERT_EQ(session->init(kHandle), 0);
    }
    void TearDown() override
    {
        hpwSetTickSource(nullptr);
        // Drop the destroy jobs that sessions queued on the server that is not running.
        CHttpServerWrapper* server = singleton<CHttpServerWrapper>::instance();
        while (server->getAsyncQueueSize() > 0) {
            CAsyncRequestQueue::freeJob(server->popAsyncReq());
        }
    }

    void sendInfo(int index, unsigned int high, unsigned int low)
    {
        std::string info(StreamBlock::kInfoSize, '\0');
        StreamBlock::writeFileLength(&info[0], (static_cast<uint64_t>(high) << 32) | low);
        EXPECT_EQ(session->send(index, PROTOCOL_WRAPPER::STREAM_INFO, &info[0], static_cast<int>(info.size())), 0);
    }

    int sendData(std::string data)
    {
        return session->send(0, PROTOCOL_WRAPPER::STREAM_DATA, &data[0], static_cast<int>(data.size()));
    }

    int queuedDestroyJobs() { return singleton<CHttpServerWrapper>::instance()->getAsyncQueueSize(); }

    FakeNetServer& net = FakeNetServer::instance();
    std::unique_ptr<TestSession> session;
};

}  // namespace

TEST_F(SessionStream, OnlyTheFirstStreamInfoSendsTheHeadWithTheLengthPlusForty)
{
    sendInfo(0, 1, 5);  // both length words count
    EXPECT_EQ(session->getFileLength(), (1ull << 32) + 5 + 40);
    // 200 is the server's default; "a streamed body follows" comes after the head's reply.
    EXPECT_EQ(net.replies, std::vector<Staged>(
                               {{"Content-Type: application/binary", "Content-Length: 4294967341", "timeout 5000"}}));
    EXPECT_EQ(net.staged, Staged{"stream"});
    sendInfo(0, 0, 500);
    EXPECT_EQ(net.replies.size(), 1u);

    // A first block with index 1 stores nothing but still sends the head, with
    // the length read from the empty record 1.
    SetUp();
    sendInfo(1, 0, 1000);
    EXPECT_EQ(session->getFileLength(), 40u);
    EXPECT_EQ(net.replies.at(0).at(1), "Content-Length: 40");
}

// The heads of served ranges are the end-to-end tests'; here a report that makes no sense.
TEST_F(SessionStream, AnUnreadableRangeReportIsAnsweredFiveHundredNotWithUnknownBytes)
{
    session->m_strDownloadRange = "bytes=40-";
    std::string info(StreamBlock::kInfoSize, '\0');
    memcpy(&info[StreamBlock::kRangeOffset], "MGBR\x01\x07", 6);  // an outcome no gateway reports
    EXPECT_EQ(session->send(0, PROTOCOL_WRAPPER::STREAM_INFO, &info[0], static_cast<int>(info.size())), 0);
    EXPECT_EQ(net.replies, std::vector<Staged>({{"status 500", "timeout 5000"}}));
}

// The framing on the wire is the integration tests'; here what a gateway may
// repeat, and an empty block, which frames as a line of its own, as the
// gateway has always seen it.
TEST_F(SessionStream, AChunkedEndIsWrittenOnceAndUnknownTypesAreIgnored)
{
    session->m_framing.setChunked(true);
    sendInfo(0, 0, 3);
    EXPECT_EQ(sendData("abc"), 0);
    EXPECT_EQ(sendData(""), 0);
    for (int type : std::initializer_list<int>{PROTOCOL_WRAPPER::STREAM_END, PROTOCOL_WRAPPER::STREAM_END, 77}) {
        EXPECT_EQ(session->send(0, type, nullptr, 0), 0);
    }
    EXPECT_EQ(net.wire, "3\r\nabc\r\n\r\n\r\n0\r\n\r\n");
}

// A reply that makes progress is retried from where it stopped; one that makes
// none for a minute, or fails, ends the download and asks for the session's
// destruction.
TEST_F(SessionStream, WritesAreRetriedWhileTheyProgressAndEndTheDownloadOtherwise)
{
    const struct {
        std::deque<int> plan;  // what each Reply writes; then everything
        bool stagingFails;
        int result;
        const char* wire;
    } rows[] = {
        {{3, 0, 4}, false, 0, "0123456789"},
        {{-1}, false, -1, ""},
        {{}, true, -1, ""},
        {std::deque<int>(100, 0), false, -1, ""},  // the client takes nothing any more
    };
    for (const auto& row : rows) {
        TearDown();
        SetUp();
        hpwSetTickSource(steppingClock);
        sendInfo(0, 0, 10);
        session->increaseTimeoutCount();
        net.replyPlan = row.plan;
        net.setParamFailAt = row.stagingFails ? net.setParamCalls : -1;
        EXPECT_EQ(sendData("0123456789"), row.result);
        EXPECT_EQ(net.wire, row.wire);
        EXPECT_EQ(session->getTimeoutCount(), row.result == 0 ? 0 : 1);  // progress resets the idle count
        EXPECT_EQ(queuedDestroyJobs(), row.result == 0 ? 0 : 1);
    }
    // The stall ended after a minute of clock, not a hundred replies; once
    // destroy is requested nothing more is written, and it is not an error.
    EXPECT_LT(net.replyPlan.size(), 100u);
    EXPECT_GT(net.replyPlan.size(), 30u);
    net.replyPlan.clear();
    EXPECT_EQ(sendData("more"), 0);
    EXPECT_EQ(net.wire, "");
    EXPECT_EQ(queuedDestroyJobs(), 1);
}

TEST_F(SessionStream, AFailedHeadRequestsTheSessionsDestruction)
{
    net.replyPlan = {-1};
    sendInfo(0, 0, 10);
    EXPECT_TRUE(net.staged.empty());  // nothing staged after the failed reply
    EXPECT_EQ(queuedDestroyJobs(), 1);
}

// Compatibility Q18: the line operators know, spelling included.
TEST_F(SessionStream, BlocksAfterTheDestroyRequestAreDroppedWithTheKnownLine)
{
    LogCapture log;
    session->pushDestroyReq();
    EXPECT_EQ(sendData("late"), 0);
    EXPECT_EQ(net.wire, "");
    EXPECT_TRUE(log.contains("] - Http session allready destroyed"));
}
