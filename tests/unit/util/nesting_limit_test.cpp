// Request bodies are bounded by a count of their openings before a recursive
// parser sees them, and every parser that runs on a request worker survives
// the largest body the bound lets through, and the deepest it refuses, on a
// worker's stack.
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

size_t jsonCount(const std::string& text)
{
    return CountJsonOpenings(text.data(), text.size());
}

size_t xmlCount(const std::string& text)
{
    return CountXmlOpenings(text.data(), text.size());
}

}  // namespace

// Whatever the parser would make of strings, comments or odd bytes, every
// opening counts: the count is never below the depth.
TEST(NestingLimit, CountsEveryOpeningWhereverItStands)
{
    EXPECT_EQ(jsonCount(R"({"a":{"b":[1,2]},"c":{}})"), 4u);
    EXPECT_EQ(jsonCount(R"({"a":"{[{[","b":"\"{{"})"), 7u);            // inside strings
    EXPECT_EQ(jsonCount("{\"a\"://\r[[[\n]]]}"), 4u);                  // a comment the reader ends at CR
    EXPECT_EQ(jsonCount(std::string("{\0[", 3)), 2u);                  // past a NUL
    EXPECT_EQ(xmlCount("<?xml version=\"1.0\"?><a><b/></a>"), 3u);     // declaration, a, b
    EXPECT_EQ(xmlCount("<a><!-- <b><c> --><![CDATA[<d>]]></a>"), 6u);  // comments and CDATA too
    EXPECT_EQ(xmlCount("<a x=\"<>\"><\xe9></\xe9></a>"), 3u);          // quoted, and any byte as a name
    EXPECT_EQ(xmlCount("</a></b><"), 1u);                              // only "</" is a closing
}

// The reproductions: each was read as shallow by a scanner that imitated the
// parsers, and overflowed a worker's stack; the count refuses them.
TEST(NestingLimit, RefusesWhatCrashedTheImitatingScanners)
{
    const std::string commentAtCr = "{\"downloadRequest\"://\r" + repeat("[", 900) + repeat("]", 900) + "}";
    const std::string highBytes = "<downloadRequest>" + repeat("<\xe9>", 1500) + repeat("</\xe9>", 1500) +
                                  "<playbackURI>rtsp://h/</playbackURI></downloadRequest>";
    std::string uri = "unchanged";
    bool readJson = true, readXml = true, placedXml = true;
    ASSERT_TRUE(testsupport::runOnWorkerStack([&] {
        readJson = ReadJsonDownloadUri(commentAtCr.data(), static_cast<int>(commentAtCr.size()), uri);
        readXml = CmkTinyXMLConverter().SetDoc(highBytes.c_str());
        CmkTinyXMLConverter fragment;
        fragment.AddElem("root");
        placedXml = fragment.SetElemContent(highBytes.c_str());
    }));
    EXPECT_FALSE(readJson || readXml || placedXml);
    EXPECT_EQ(uri, "unchanged");
}

TEST(NestingLimit, ARealDocumentIsFarBelowTheBound)
{
    const std::string json = R"({"downloadRequest":{"playbackURI":"rtsp://h/x?starttime=1&endtime=2"}})";
    std::string uri;
    EXPECT_TRUE(ReadJsonDownloadUri(json.data(), static_cast<int>(json.size()), uri));
    const std::string xml =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?><downloadRequest version=\"2.0\">"
        "<playbackURI>rtsp://h:554/x</playbackURI></downloadRequest>";
    EXPECT_TRUE(CmkTinyXMLConverter().SetDoc(xml.c_str()));
    EXPECT_LE(jsonCount(json) * 16, kMaxRequestOpenings);
}

// The parsers a request worker runs, fed the deepest bodies the bound lets
// through and far deeper ones, on a worker's stack: each reads or refuses them
// without overflowing it.
TEST(NestingLimit, EveryRequestParserSurvivesHostileDepthOnAWorkerStack)
{
    const int allowed = static_cast<int>(kMaxRequestOpenings);
    const std::string deepestJson = repeat("[", allowed) + repeat("]", allowed);
    const std::string deepestXml = repeat("<a>", allowed) + repeat("</a>", allowed);
    const std::string deepJson = repeat("{\"a\":", kHostileDepth) + "1" + repeat("}", kHostileDepth);
    const std::string deepXml = repeat("<a>", kHostileDepth) + repeat("</a>", kHostileDepth);
    // The message model reads heads one after another; a long request is long, not deep.
    std::string message = "DESCRIBE rtsp://h/" + std::string(4000, 'u') + " RTSP/1.0\r\n" +
                          repeat("X-A: " + repeat("v;", 50) + "\r\n", 2000) + "\r\n";
    const std::string base64 = repeat("QUJD", 100000);
    std::string uri;
    bool refusedDeepest = false, readDeepestXml = false, refusedJson = false, refusedXml = false;
    bool readMessage = false, readBase64 = false;
    ASSERT_TRUE(testsupport::runOnWorkerStack([&] {
        refusedDeepest = !ReadJsonDownloadUri(deepestJson.data(), static_cast<int>(deepestJson.size()), uri);
        readDeepestXml = CmkTinyXMLConverter().SetDoc(deepestXml.c_str());
        refusedJson = !ReadJsonDownloadUri(deepJson.data(), static_cast<int>(deepJson.size()), uri);
        refusedXml = !CmkTinyXMLConverter().SetDoc(deepXml.c_str());
        readMessage = CProtocolRequest().ParseRequest(&message[0], static_cast<int>(message.size())) == 1;
        std::string out(base64.size(), '\0');
        readBase64 = base64_decode(base64.c_str(), reinterpret_cast<unsigned char*>(&out[0])) == 300000;
    }));
    EXPECT_TRUE(refusedDeepest);  // parsed (an array, not a download request), without overflow
    EXPECT_TRUE(readDeepestXml);
    EXPECT_TRUE(refusedJson && refusedXml);
    EXPECT_TRUE(readMessage && readBase64);
}
