// What the plug-in holds for clients when the server URL asks for bounds: the audio port's gate (a
// deadline for the head, room made by the oldest waiting connection, no session before the head), the
// HTTP port's head deadline, and downloads that end when the gateway aborts them (the send time-out is
// download_test's, on both delivery paths).
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "PluginFixture.h"
#include "session/HttpSessionMgr.h"
#include "talk/AudioTalkSessionMgr.h"
#include "talk/HttpUnstandardSessionMgr.h"

using HttpWrapper::CHttpSessionMgr;
using HttpWrapper::CHttpUnstandardSessionMgr;
using HttpWrapper::singleton;
using Clock = std::chrono::steady_clock;

namespace {

void sleepMs(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

class Bounded : public PluginFixture {
protected:
    Bounded() { serverParams += "&headTimeout=700&maxConnections=8&maxConnectionsPerAddress=3&reserveFds=16"; }

    void SetUp() override
    {
        PluginFixture::SetUp();
        audioPort = singleton<CHttpUnstandardSessionMgr>::instance()->getListenPort();
        ASSERT_GT(audioPort, 0);
    }

    // A link request of the audio channel for a talk that is not open: answered by its session.
    std::string linkRequest() const
    {
        return "GET /QUMEX/System/TwoWayAudio/channels/1/audioData?sessionId=1 HTTP/1.1\r\nHost: 127.0.0.1:" +
               std::to_string(port) + "\r\n" + digestHeader() + "Content-Length: 0\r\n\r\n";
    }

    int audioPort = 0;
};

}  // namespace

TEST_F(Bounded, AnAudioConnectionWithoutAWholeHeadIsClosedAtItsDeadlineHoweverItTrickles)
{
    nettest::TestClient trickle;
    ASSERT_TRUE(trickle.connectTo(audioPort));
    const auto start = Clock::now();
    bool closed = false;
    for (int i = 0; i < 20 && !closed; ++i) {
        trickle.send("G");  // a byte every 150 ms resets no deadline
        closed = trickle.waitForClose(150);
    }
    EXPECT_TRUE(closed);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(600));
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(2000));
    EXPECT_EQ(singleton<CHttpUnstandardSessionMgr>::instance()->getSessionCount(), 0) << "a session before a head";
}

TEST_F(Bounded, WaitingAudioConnectionsMakeRoomAndAWholeHeadIsServed)
{
    nettest::TestClient idle[3];
    for (nettest::TestClient& client : idle) {
        ASSERT_TRUE(client.connectTo(audioPort));
    }
    sleepMs(100);
    EXPECT_EQ(singleton<CHttpUnstandardSessionMgr>::instance()->getSessionCount(), 0) << "idle ones have no session";
    // The address is at its bound: the oldest idle connection goes, the newcomer is served (refused, as its
    // talk is not open, by the session itself).
    nettest::TestClient link;
    ASSERT_TRUE(link.connectTo(audioPort));
    ASSERT_TRUE(link.send(linkRequest()));
    EXPECT_EQ(link.receiveAll(3000).compare(0, 9, "HTTP/1.1 "), 0);
    EXPECT_TRUE(idle[0].waitForClose(1000));
    EXPECT_FALSE(idle[1].waitForClose(50));
    // A request over the channel's 2048 bytes without a head's end is dropped at the door.
    nettest::TestClient flood;
    ASSERT_TRUE(flood.connectTo(audioPort));
    flood.send(std::string(3000, 'A'));
    EXPECT_TRUE(flood.waitForClose(1000));
    EXPECT_TRUE(eventually([] { return singleton<CHttpUnstandardSessionMgr>::instance()->getSessionCount() == 0; }));
}

TEST_F(Bounded, TheHttpPortClosesAConnectionWithoutAHeadAtTheHeadDeadline)
{
    nettest::TestClient idle;
    ASSERT_TRUE(idle.connectTo(port));
    const auto start = Clock::now();
    EXPECT_TRUE(idle.waitForClose(3000));
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(2000)) << "the receive time-out (5 s) was applied";
}

class StrictSend : public PluginFixture {
protected:
    StrictSend() { serverParams += "&sendTimeout=300&strictSendTimeout=1&streamAbort=1"; }
};

TEST_F(StrictSend, ADownloadTheGatewayAbortsEndsShortAtOnce)
{
    sink.recordingSize = 8ull * 1024 * 1024;
    sink.abortAfter = 1024 * 1024;
    RawResponse response = exchange(jsonDownload("&name=cut"), 3000);
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.header("content-length"), std::to_string(sink.recordingSize + 40));
    EXPECT_EQ(response.body.size(), 40u + 1024 * 1024) << "the body ends where the gateway stopped";
    EXPECT_TRUE(response.complete) << "the connection was left open";
    EXPECT_TRUE(waitIdle());
}

using Unasked = PluginFixture;

TEST_F(Unasked, AnAbortIsAnUnknownDataTypeToAGatewayThatDidNotAskForIt)
{
    sink.recordingSize = 8ull * 1024 * 1024;
    sink.abortAfter = 1024 * 1024;
    RawResponse response = exchange(jsonDownload("&name=cut"), 1000);
    EXPECT_EQ(response.body.size(), 40u + 1024 * 1024);
    EXPECT_FALSE(response.complete) << "ignored, the type closes nothing";
}
