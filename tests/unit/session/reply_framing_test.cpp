// The framing of a download's reply, without a server: the head's headers and
// what surrounds each block, in both reply forms.
#include <gtest/gtest.h>

#include "session/ReplyFraming.h"

using namespace HttpWrapper;

TEST(ReplyFraming, WithALengthBlocksGoOutBareAfterTheAnnouncedLength)
{
    CReplyFraming framing;
    EXPECT_EQ(CReplyFraming::announcedLength(1000), 1040u);
    CReplyFraming::Headers expected = {{"Content-Type", "application/binary"}, {"Content-Length", "4294967341"}};
    EXPECT_EQ(framing.head(CReplyFraming::announcedLength((1ull << 32) + 5)), expected);
    EXPECT_EQ(framing.blockPrefix(300) + framing.blockSuffix() + framing.end(), "");
}

TEST(ReplyFraming, ChunkedBlocksCarryUpperCaseHexLengthsAndTheBodyEndsOnce)
{
    CReplyFraming framing;
    framing.setChunked(true);
    CReplyFraming::Headers expected = {{"Content-Type", "application/octet-stream"}, {"Transfer-Encoding", "chunked"}};
    EXPECT_EQ(framing.head(40), expected);
    EXPECT_EQ(framing.blockPrefix(300), "12C\r\n");
    EXPECT_EQ(framing.blockPrefix(65536), "10000\r\n");
    // An empty block still frames as a line of its own, as the gateway has always seen it.
    EXPECT_EQ(framing.blockPrefix(0), "\r\n");
    EXPECT_EQ(framing.blockSuffix(), "\r\n");
    EXPECT_EQ(framing.end(), "0\r\n\r\n");
    EXPECT_EQ(CReplyFraming::decToHex(-7), "");
}
