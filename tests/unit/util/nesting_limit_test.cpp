// Request bodies are bounded in depth before a recursive parser sees them, and
// every parser that runs on a request worker survives the deepest hostile input
// on a worker's stack.
#include <gtest/gtest.h>

#include <string>

#include "WorkerStack.h"
#include "protocol/ProtocolRequest.h"
#include "session/DownloadUri.h"
#include "util/Base64.h"
#include "util/NestingLimit.h"
#include "xml/mkTinyXMLConverter.h"

using namespace HttpWrapper;

namespace {

const int kHostileDepth = 10000;

std::string repeat(const std::string& piece, int times)
{
    std::string text;
    for (int i = 0; i < times; ++i) {
        text += piece;
    }
    return text;
}

bool jsonWithin(const std::string& text, int limit = 3)
{
    return JsonNestingWithin(text.data(), text.size(), limit);
}

bool xmlWithin(const std::string& text, int limit = 3)
{
    return XmlNestingWithin(text.data(), text.size(), limit);
}

}  // namespace

TEST(NestingLimit, JsonCountsOnlyRealBrackets)
{
    EXPECT_TRUE(jsonWithin(R"({"a":{"b":[1,2]},"c":{}})"));
    EXPECT_FALSE(jsonWithin(R"({"a":{"b":[[1]]}})"));
    EXPECT_TRUE(jsonWithin(R"({"a":"{[{[{[","b":"\"{{{{"})"));            // brackets in strings
    EXPECT_TRUE(jsonWithin("{\"a\":1 // {{{{\n, /* [[[[ */ \"b\":{}}"));  // and in comments
    EXPECT_TRUE(jsonWithin(repeat("{}", 1000)));                          // wide is not deep
    EXPECT_FALSE(jsonWithin(repeat("[", kHostileDepth)));                 // unterminated still counts
}

TEST(NestingLimit, XmlCountsOnlyElements)
{
    EXPECT_TRUE(xmlWithin("<?xml version=\"1.0\"?><a><b><c/></b></a>"));
    EXPECT_FALSE(xmlWithin("<a><b><c><d></d></c></b></a>"));
    EXPECT_TRUE(xmlWithin("<a><b><c><d/></c></b></a>"));  // an empty element does not nest
    EXPECT_TRUE(xmlWithin("<a><!-- <b><c><d> --><b x=\"<>>\" y='/>'><![CDATA[<c><d><e>]]></b></a>"));
    EXPECT_TRUE(xmlWithin("<!DOCTYPE a [<!ELEMENT a (b)> <!ENTITY e \"<x>\">]><a><b/></a>"));
    EXPECT_TRUE(xmlWithin(repeat("<a></a>", 1000)));
    // Markup the parser reads as elements is counted, however it is disguised.
    EXPECT_FALSE(xmlWithin("<!DOCTYPE x [" + repeat("<a>", 10)));
    EXPECT_FALSE(xmlWithin("<a b=x\">" + repeat("<a>", 10)));
    EXPECT_FALSE(xmlWithin("<?pi " + repeat("<a>", 10)));
    EXPECT_FALSE(xmlWithin(repeat("<a>", kHostileDepth)));
}

// The parsers a request worker runs, fed the deepest bodies a client can send,
// on a worker's stack: each refuses or reads them without overflowing it.
TEST(NestingLimit, EveryRequestParserSurvivesHostileDepthOnAWorkerStack)
{
    const std::string deepJson = repeat("{\"a\":", kHostileDepth) + "1" + repeat("}", kHostileDepth);
    const std::string deepArrays = repeat("[", kHostileDepth) + repeat("]", kHostileDepth);
    const std::string deepXml = repeat("<a>", kHostileDepth) + repeat("</a>", kHostileDepth);
    // The message model reads heads one after another; a long request is long, not deep.
    std::string message = "DESCRIBE rtsp://h/" + std::string(4000, 'u') + " RTSP/1.0\r\n" +
                          repeat("X-A: " + repeat("v;", 50) + "\r\n", 2000) + "\r\n";
    const std::string base64 = repeat("QUJD", 100000);
    std::string uri;
    bool refusedJson = false, refusedArrays = false, refusedXml = false, readMessage = false, readBase64 = false;
    ASSERT_TRUE(testsupport::runOnWorkerStack([&] {
        refusedJson = !ReadJsonDownloadUri(deepJson.data(), static_cast<int>(deepJson.size()), uri);
        refusedArrays = !ReadJsonDownloadUri(deepArrays.data(), static_cast<int>(deepArrays.size()), uri);
        refusedXml = !CmkTinyXMLConverter().SetDoc(deepXml.c_str());
        readMessage = CProtocolRequest().ParseRequest(&message[0], static_cast<int>(message.size())) == 1;
        std::string out(base64.size(), '\0');
        readBase64 = base64_decode(base64.c_str(), reinterpret_cast<unsigned char*>(&out[0])) == 300000;
    }));
    EXPECT_TRUE(refusedJson && refusedArrays && refusedXml);
    EXPECT_TRUE(readMessage && readBase64);
}
