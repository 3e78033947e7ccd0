// The one check of a client's text before it enters the RTSP request.
#include <gtest/gtest.h>

#include "util/RequestText.h"

using namespace HttpWrapper;

TEST(RequestText, RefusesEveryControlByteAndASpaceWhereNoneFits)
{
    EXPECT_TRUE(IsSafeRequestText("rtsp://h:554/a?name=x.bin&devIndex=%20~", SPACES_REFUSED));
    EXPECT_TRUE(IsSafeRequestText("Digest username=\"a\", uri=\"/\"", SPACES_ALLOWED));
    EXPECT_TRUE(IsSafeRequestText("caf\xc3\xa9", SPACES_REFUSED));  // bytes past ASCII are text
    for (const std::string& text : {std::string("a RTSP/1.0\r\nX: y"), std::string("a\nb"), std::string("a\0b", 3),
                                    std::string("a\tb"), std::string("a\x7f"), std::string("\x1b[31m")}) {
        EXPECT_FALSE(IsSafeRequestText(text, SPACES_ALLOWED)) << text;
    }
    EXPECT_FALSE(IsSafeRequestText("a b", SPACES_REFUSED));
}
