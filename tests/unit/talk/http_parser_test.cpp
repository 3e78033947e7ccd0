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

int isEnd(CHttpParser& parser, const std::string& text)
{
    return parser.IsEnd(text.c_str(), static_cast<int>(text.size()), false);
}

}  // namespace

TEST(HttpParser, FramesByBlankLineAndContentLength)
{
    CHttpParser bare;
    EXPECT_EQ(parse(bare, "GET / HTTP/1.1\r\n\r\n"), 0);
    EXPECT_EQ(bare.GetTotalLen(), 18);
    EXPECT_EQ(bare.getMethod() + " " + bare.getURL(), "GET /");

    const std::string head = "PUT /a HTTP/1.1\r\nContent-Length: 10\r\n\r\n";
    CHttpParser parser;
    EXPECT_EQ(isEnd(parser, head + "12345"), 1) << "body incomplete";
    EXPECT_EQ(parser.SimpleParse((head + "12345").c_str(), static_cast<unsigned>(head.size()) + 5), 1);
    EXPECT_EQ(parse(parser, head + "0123456789"), 0);
    EXPECT_EQ(parser.getBody(), "0123456789");
    EXPECT_EQ(parser.GetTotalLen(), static_cast<int>(head.size()) + 10);

    // Only the exact spelling counts: a lower-case header ends at the blank line.
    CHttpParser lower;
    EXPECT_EQ(parse(lower, "PUT /a HTTP/1.1\r\ncontent-length: 10\r\n\r\n"), 0);
    EXPECT_EQ(lower.GetTotalLen(), lower.GetHeadLen());

    // A length no request can have waits for ever rather than overflow.
    CHttpParser huge;
    EXPECT_EQ(isEnd(huge, "PUT /a HTTP/1.1\r\nContent-Length: 99999999999999999999999\r\n\r\n"), 1);
    EXPECT_EQ(isEnd(huge, "GET / HTTP/1.1\r\nHost: a\r\n"), -1);
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

// The head is dissected only when the request names its length: the audio
// clients always send "Content-Length: 0".
TEST(HttpParser, HeaderMapKeepsTheFirstValueAndIsCaseSensitive)
{
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
    EXPECT_EQ(name, std::string("admi") + std::string(61, '\0'));  // the zero-padded buffer the gateway receives

    EXPECT_TRUE(parser.getAuthName(name, "Digest username=\"" + std::string(64, 'u') + "\""));
    EXPECT_FALSE(parser.getAuthName(name, "Digest username=\"" + std::string(65, 'u') + "\""));
    EXPECT_FALSE(parser.getAuthName(name, "Basic YWRtaW46eA=="));
    EXPECT_FALSE(parser.getAuthName(name, "Digest username=\"unterminated"));
}
