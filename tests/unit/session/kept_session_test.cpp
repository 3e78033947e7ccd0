// Odd behaviour of a session that the gateway's filter chain or the client
// relies on (docs/compatibility.md, Q7, Q8 and Q15).
#include <gtest/gtest.h>

#include <string>

#include "FakeNetServer.h"
#include "LogCapture.h"
#include "TestSession.h"
#include "session/ReplyFraming.h"

using namespace HttpWrapper;
using ::testing::_;

TEST(KeptGatewayView, AnUnparsableRequestIsReportedOnlyThroughTheErrorCode)
{
    FakeNetServer::instance().reset();
    MockFilter filter;
    MockSink sink;
    TestSession session(&filter, &sink);
    session.m_strMethod = "POST";
    // A zero byte hides the end of the head from the parser.
    session.m_strPlaybackURI = std::string("rtsp://10.0.0.5:554/a\0b", 24);
    EXPECT_CALL(filter, Request(_, _, _)).Times(0);
    EXPECT_CALL(sink, OnOpen(_, _, _, _)).Times(0);
    LogCapture log;
    EXPECT_EQ(session.convertToRtspProcess(true), 0);
    EXPECT_EQ(session.GetErrorCode(), 0x1930F48);
    EXPECT_TRUE(log.contains("] [0x01930f48] - CovertToRtspProcess fail, cProtocolRequest ParseMsg fail, request:"));
}

TEST(KeptGatewayView, TheServerAddressIsNotTheFilterChainsToSet)
{
    TestSession session(nullptr, nullptr);
    session.SetServerIP("192.0.2.1");
    EXPECT_STREQ(session.GetServerIP(), "");
}

TEST(KeptFraming, AnEmptyChunkedBlockGetsABareLineEnd)
{
    CReplyFraming framing;
    framing.setChunked(true);
    EXPECT_EQ(framing.blockPrefix(0) + framing.blockSuffix(), "\r\n\r\n");
}
