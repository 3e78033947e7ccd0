// The raw audio channel's request parser: framing by blank line and
// Content-Length, the request-line limits, the header map, and the Digest user
// name as the gateway expects it (one character short).
#include <gtest/gtest.h>

#include <string>

#include "talk/HttpParser.h"

using HttpWrapper::CHttpParser;

namespace {

int parse(CHttpParser& parser, const std::string& text)
{
    return parser.Parse(text.c_str(), static_cast<unsigned int>(text.size()));
}

}  // namespace

TEST(HttpParser, FramesByBlankLineAndContentLength)
{
    CHttpParser bare;
    EXPECT_EQ(parse(bare, "GET / HTTP/1.1\r\n\r\n"), 0);
    EXPECT_EQ(bare.GetHeadLen(), 18);
    EXPECT_EQ(bare.GetTotalLen(), 18);
    EXPECT_EQ(bare.getMethod(), "GET");
    EXPECT_EQ(bare.getURL(), "/");

    const std::string head = "PUT /a HTTP/1.1\r\nContent-Length: 10\r\n\r\n";
    CHttpParser parser;
    EXPECT_EQ(parser.IsEnd((head + "12345").c_str(), (int)head.size() + 5, false), 1) << "body incomplete";
    EXPECT_EQ(parser.SimpleParse((head + "12345").c_str(), (unsigned)head.size() + 5), 1);
    EXPECT_EQ(parse(parser, head + "0123456789"), 0);
    EXPECT_EQ(parser.getBody(), "0123456789");
    EXPECT_EQ(parser.GetTotalLen(), (int)head.size() + 10);

    // Only the exact spelling counts: a lower-case header ends at the blank line.
    CHttpParser lower;
    EXPECT_EQ(parse(lower, "PUT /a HTTP/1.1\r\ncontent-length: 10\r\n\r\n"), 0);
    EXPECT_EQ(lower.GetTotalLen(), lower.GetHeadLen());

    // A length no request can have waits for ever rather than overflow.
    CHttpParser huge;
    const std::string hugeHead = "PUT /a HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n\r\n";
    EXPECT_EQ(huge.IsEnd(hugeHead.c_str(), (int)hugeHead.size(), false), 1);

    CHttpParser incomplete;
    EXPECT_EQ(incomplete.IsEnd("GET / HTTP/1.1\r\nHost: a\r\n", 25, false), -1);
    EXPECT_EQ(incomplete.SimpleParse("GET / HTTP/1.1\r\nHost: a\r\n", 25), 1);
}

TEST(HttpParser, RefusesOversizedOrMalformedRequests)
{
    struct Case {
        std::string text;
        int result;
    } cases[] = {
        {std::string(65, 'M') + " / HTTP/1.1\r\n\r\n", -1},
        {std::string(64, 'M') + " / HTTP/1.1\r\n\r\n", 0},
        {"GET /" + std::string(511, 'u') + " HTTP/1.1\r\n\r\n", 0},
        {"GET /" + std::string(512, 'u') + " HTTP/1.1\r\n\r\n", -1},
        {"GET / HTTP/1.1\r\nContent-Length: 2040\r\n\r\n" + std::string(2040, 'b'), -1},  // over 2048 in all
        {"GET /nothing\r\nHost: a\r\n\r\n", -1},                                          // no version
        // A malformed header reads as "more data needed", once the head is dissected.
        {"GET / HTTP/1.1\r\nNo colon here\r\nContent-Length: 0\r\n\r\n", 1},
    };
    for (const Case& c : cases) {
        CHttpParser parser;
        EXPECT_EQ(parse(parser, c.text), c.result) << c.text.substr(0, 80);
    }
}

TEST(HttpParser, HeaderMapKeepsTheFirstValueAndIsCaseSensitive)
{
    // The head is dissected only when the request names its length: the audio
    // clients always send "Content-Length: 0".
    CHttpParser unsized;
    ASSERT_EQ(parse(unsized, "GET /x HTTP/1.1\r\nHost: 127.0.0.1:8080\r\n\r\n"), 0);
    EXPECT_EQ(unsized.getHttpHeadValue("Host"), "");
    EXPECT_EQ(unsized.getHeader(), "");

    CHttpParser parser;
    ASSERT_EQ(parse(parser, "GET /x HTTP/1.1\r\nHost: 127.0.0.1:8080\r\nX-A: 1\r\nX-A: 2\r\nContent-Length: 0\r\n\r\n"),
              0);
    EXPECT_EQ(parser.getHttpHeadValue("Host"), "127.0.0.1:8080");
    EXPECT_EQ(parser.getHttpHeadValue("host"), "");
    EXPECT_EQ(parser.getHttpHeadValue("X-A"), "1");
    // Clear keeps the map: a reused parser accumulates header names.
    parser.Clear();
    EXPECT_EQ(parser.getURL(), "");
    EXPECT_EQ(parser.getHttpHeadValue("Host"), "127.0.0.1:8080");
}

TEST(HttpParser, DigestUserNameLosesItsLastCharacter)
{
    CHttpParser parser;
    std::string name;
    ASSERT_TRUE(parser.getAuthName(name, "Digest username=\"admin\", realm=\"r\""));
    EXPECT_STREQ(name.c_str(), "admi");
    EXPECT_EQ(name.size(), 65u);  // the zero-padded buffer, as the gateway receives it

    EXPECT_TRUE(parser.getAuthName(name, "Digest username=\"" + std::string(64, 'u') + "\""));
    EXPECT_FALSE(parser.getAuthName(name, "Digest username=\"" + std::string(65, 'u') + "\""));
    EXPECT_FALSE(parser.getAuthName(name, "Basic YWRtaW46eA=="));
    EXPECT_FALSE(parser.getAuthName(name, "Digest username=\"unterminated"));
}
