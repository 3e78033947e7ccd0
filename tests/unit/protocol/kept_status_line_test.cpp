// How a response's status line reads into the filter chain's model, as the
// gateway relies on it (docs/compatibility.md, Q16).
#include <gtest/gtest.h>

#include <string>

#include "protocol/ProtocolResponse.h"

using namespace HttpWrapper;

namespace {
PROTOCOL_FILTER::IProtocolStatusLine* parsed(CProtocolResponse& response, std::string text)
{
    EXPECT_EQ(response.ParseResponse(&text[0], static_cast<int>(text.size())), 1);
    return response.GetProtocolStatusLine();
}
}  // namespace

TEST(KeptStatusLine, OnlyAOneWordPhraseIsReadAndTheProtocolNameNever)
{
    CProtocolResponse gone;
    PROTOCOL_FILTER::IProtocolStatusLine* line = parsed(gone, "HTTP/1.1 410 Gone\r\n\r\n");
    EXPECT_STREQ(line->GetStatusCode(), "410");
    EXPECT_STREQ(line->GetStatusDescribe(), "Gone");
    EXPECT_STREQ(line->GetProtocolVersion(), "1.1");  // set from the name, then from the version
    EXPECT_STREQ(line->GetProtocolName(), "RTSP");    // the default, never read from the line

    CProtocolResponse notFound;
    line = parsed(notFound, "RTSP/1.0 404 Not Found\r\n\r\n");
    EXPECT_STREQ(line->GetStatusCode(), "200");
    EXPECT_STREQ(line->GetStatusDescribe(), "OK");
}
