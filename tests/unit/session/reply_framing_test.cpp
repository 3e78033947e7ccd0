// The framing of a download's reply, without a server: the head of each reply
// form, and what surrounds each block.
#include <gtest/gtest.h>

#include "session/ReplyFraming.h"

using namespace HttpWrapper;

TEST(ReplyFraming, HeadsAndBlockFramingOfEachReplyForm)
{
    CReplyFraming framing;
    EXPECT_EQ(framing.head(CReplyFraming::announcedLength(1000)),
              (CReplyFraming::Headers{{"Content-Type", "application/binary"}, {"Content-Length", "1040"}}));
    EXPECT_EQ(framing.blockPrefix(300) + framing.blockSuffix() + framing.end(), "");

    framing.setChunked(true);
    EXPECT_EQ(framing.head(40),
              (CReplyFraming::Headers{{"Content-Type", "application/octet-stream"}, {"Transfer-Encoding", "chunked"}}));
    EXPECT_EQ(framing.blockPrefix(65536) + framing.blockSuffix() + framing.end(), "10000\r\n\r\n0\r\n\r\n");

    CServedRange served;
    served.outcome = CServedRange::PART;
    served.first = 20;
    served.last = 59;
    served.entityTag = "\"t\"";
    EXPECT_EQ(CReplyFraming::rangedStatus(served), 206);
    EXPECT_EQ(CReplyFraming::rangedHead(served, 1040), (CReplyFraming::Headers{{"Content-Type", "application/binary"},
                                                                               {"Content-Length", "40"},
                                                                               {"Content-Range", "bytes 20-59/1040"},
                                                                               {"Accept-Ranges", "bytes"},
                                                                               {"ETag", "\"t\""}}));
    served.outcome = CServedRange::UNSATISFIABLE;
    served.entityTag.clear();
    EXPECT_EQ(CReplyFraming::rangedStatus(served), 416);
    EXPECT_EQ(CReplyFraming::rangedHead(served, 1040),
              (CReplyFraming::Headers{
                  {"Content-Range", "bytes */1040"}, {"Content-Length", "0"}, {"Accept-Ranges", "bytes"}}));
}
