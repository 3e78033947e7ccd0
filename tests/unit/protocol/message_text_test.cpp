#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

#include "protocol/ProtocolFilter.h"

using namespace HttpWrapper;
using PROTOCOL_FILTER::IProtocolAttr;
using PROTOCOL_FILTER::IProtocolHead;
using PROTOCOL_FILTER::IProtocolRequest;

namespace {

int Parse(CProtocolRequest& request, std::string text)
{
    return request.ParseRequest(&text[0], static_cast<int>(text.size()));
}

int Parse(CProtocolResponse& response, std::string text)
{
    return response.ParseResponse(&text[0], static_cast<int>(text.size()));
}

std::string Build(CProtocolRequest& request)
{
    std::vector<char> buffer(4096);
    const int length = request.BuildRequest(buffer.data(), static_cast<int>(buffer.size()));
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

typedef std::vector<std::pair<std::string, std::string>> HeadList;

// Walks a request through the gateway's interfaces only.
HeadList HeadsOf(IProtocolRequest* request)
{
    HeadList heads;
    for (IProtocolHead* head = request->GetFirstHead(); head != nullptr; head = request->GetNextHead()) {
        heads.emplace_back(head->GetHeadName(), head->GetHeadValue());
    }
    return heads;
}

}  // namespace

TEST(ParseRequest, RequestLineHeadsAndAttributes)
{
    CProtocolRequest request;
    ASSERT_EQ(Parse(request,
                    "DESCRIBE rtsp://10.0.0.1/s RTSP/1.0\r\nCSeq: 1\r\n"
                    "Content-Length:  5 \r\r\n"
                    "Transport: RTP/AVP;unicast;client_port=8000-8001\r\n"
                    "X: a=1; b=2\r\nno colon here\r\n\r\n"),
              1);
    PROTOCOL_FILTER::IProtocolRequestLine* line = request.GetProtocolRequestLine();
    EXPECT_STREQ(line->GetProtocolMethod(), "DESCRIBE");
    EXPECT_STREQ(line->GetProtocolURL(), "rtsp://10.0.0.1/s");
    EXPECT_STREQ(line->getProtocolOriginalURL(), "rtsp://10.0.0.1/s");
    EXPECT_STREQ(line->GetProtocolName(), "RTSP");
    EXPECT_STREQ(line->GetProtocolVersion(), "1.0");

    EXPECT_EQ(HeadsOf(&request), (HeadList{{"CSeq", "1"},
                                           {"Content-Length", "5 "},
                                           {"Transport", "RTP/AVP;unicast;client_port=8000-8001"},
                                           {"X", "a=1; b=2"}}));
    // Blanks are trimmed before carriage returns, so the blank in front of
    // the stray CR survives; the number still reads as 5.
    EXPECT_EQ(request.GetHeadByName("Content-Length")->GetHeadIntValue(), 5);
    EXPECT_EQ(request.GetHeadByName("CSeq")->GetFirstAttr(), nullptr);  // a plain value has no attributes
    IProtocolHead* transport = request.GetHeadByName("Transport");
    ASSERT_NE(transport->GetAttrByName("unicast"), nullptr);
    EXPECT_FALSE(transport->GetAttrByName("unicast")->HasAttrValue());
    int low = 0;
    int high = 0;
    transport->GetAttrByName("client_port")->GetAttrIntRange(&low, &high);
    EXPECT_EQ(low, 8000);
    EXPECT_EQ(high, 8001);
    EXPECT_NE(request.GetHeadByName("X")->GetAttrByName(" b"), nullptr);  // attribute names are not trimmed
    EXPECT_TRUE(request.bNeedAuth());
}

TEST(ParseRequest, MalformedPartsAreSkipped)
{
    CProtocolRequest request;
    EXPECT_EQ(Parse(request, "GET /a RTSP/1.0\r\nCSeq: 1\r\n"), 0);  // no terminator
    EXPECT_EQ(request.GetFirstHead(), nullptr);
    EXPECT_STREQ(request.GetProtocolRequestLine()->GetProtocolMethod(), "");

    EXPECT_EQ(Parse(request, "GET /a b RTSP/1.0\r\nCSeq: 2\r\n\r\n"), 1);
    EXPECT_STREQ(request.GetProtocolRequestLine()->GetProtocolMethod(), "");
    EXPECT_STREQ(request.GetHeadByName("CSeq")->GetHeadValue(), "2");

    CProtocolRequest noVersion;
    EXPECT_EQ(Parse(noVersion, "GET /a RTSP\r\n\r\n"), 1);
    EXPECT_STREQ(noVersion.GetProtocolRequestLine()->GetProtocolMethod(), "GET");
    EXPECT_STREQ(noVersion.GetProtocolRequestLine()->GetProtocolName(), "");

    EXPECT_EQ(noVersion.ParseRequest(nullptr, 10), 0);
}

TEST(ParseRequest, BodyAndLengths)
{
    const std::string head = "PLAY /a RTSP/1.0\r\nCSeq: 3\r\n\r\n";
    CProtocolRequest exact;
    Parse(exact, head);
    char* content = nullptr;
    EXPECT_EQ(exact.GetProtocolBody()->GetBodyContent(&content), 0);
    EXPECT_EQ(content, nullptr);

    CProtocolRequest withBody;
    std::string text = head + std::string("ab\0c", 4);
    ASSERT_EQ(withBody.ParseRequest(&text[0], static_cast<int>(text.size())), 1);
    ASSERT_EQ(withBody.GetProtocolBody()->GetBodyContent(&content), 4);
    EXPECT_EQ(std::string(content, 4), std::string("ab\0c", 4));

    // More than 65 lines: the surplus stays in the last piece, read as one line.
    std::string many = "OPTIONS * RTSP/1.0\r\n";
    for (int i = 0; i < 70; ++i) {
        many += "H" + std::to_string(i) + ": v\r\n";
    }
    CProtocolRequest cut;
    Parse(cut, many + "\r\n");
    EXPECT_EQ(HeadsOf(&cut).size(), 64u);
    EXPECT_STREQ(cut.GetHeadByName("H63")->GetHeadValue(),
                 "v\r\nH64: v\r\nH65: v\r\nH66: v\r\nH67: v\r\nH68: v\r\nH69: v");
}

TEST(ParseResponse, StatusLineKeepsDefaultsForPhrasesWithBlanks)
{
    CProtocolResponse fresh;
    EXPECT_STREQ(fresh.GetProtocolStatusLine()->GetStatusCode(), "200");

    CProtocolResponse ok;
    ASSERT_EQ(Parse(ok, "RTSP/2.0 401 Unauthorized\r\nCSeq: 1\r\n\r\n"), 1);
    EXPECT_STREQ(ok.GetProtocolStatusLine()->GetProtocolVersion(), "2.0");
    EXPECT_STREQ(ok.GetProtocolStatusLine()->GetStatusCode(), "401");
    EXPECT_STREQ(ok.GetProtocolStatusLine()->GetStatusDescribe(), "Unauthorized");

    CProtocolResponse notFound;
    ASSERT_EQ(Parse(notFound, "HTTP/1.1 404 Not Found\r\nCSeq: 1\r\n\r\n"), 1);
    EXPECT_STREQ(notFound.GetProtocolStatusLine()->GetStatusCode(), "200");
    EXPECT_STREQ(notFound.GetProtocolStatusLine()->GetStatusDescribe(), "OK");
    EXPECT_STREQ(notFound.GetProtocolStatusLine()->GetProtocolName(), "RTSP");  // never parsed
    EXPECT_STREQ(notFound.GetHeadByName("CSeq")->GetHeadValue(), "1");
}

TEST(BuildMessage, HeadsAttributesAndBody)
{
    CProtocolRequest request;
    PROTOCOL_FILTER::IProtocolRequestLine* line = request.GetProtocolRequestLine();
    line->SetProtocolMethod("SETUP");
    line->SetProtocolURL("rtsp://h/a");
    line->SetProtocolName("RTSP");
    line->SetProtocolVersion("1.0");
    request.InsertHeadLast("CSeq", "2");
    IProtocolHead* x = request.InsertHeadLast("X", "");
    x->InsertAttrLast("a", "1");
    x->InsertAttrLast("b", "");
    request.InsertHeadLast("Empty", "");
    request.GetProtocolBody()->SetBodyContent("0123456789", 10);
    EXPECT_EQ(Build(request), "SETUP rtsp://h/a RTSP/1.0\r\nCSeq: 2\r\nX: a=1;b\r\nEmpty:\r\n\r\n0123456789");

    CProtocolResponse response;
    response.InsertHeadLast("Session", "12");
    char buffer[128];
    const int length = response.BuildResponse(buffer, sizeof(buffer));
    EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(length)), "RTSP/1.0 200 OK\r\nSession: 12\r\n\r\n");
}

TEST(BuildMessage, NeverWritesPastTheBuffer)
{
    CProtocolRequest request;
    request.GetProtocolRequestLine()->SetProtocolMethod("GET");
    request.InsertHeadLast("Long", std::string(100, 'v').c_str());
    request.GetProtocolBody()->SetBodyContent("0123456789", 10);
    const int full = static_cast<int>(Build(request).size());

    // The body does not fit the 5 bytes left: not copied, still counted.
    std::vector<char> room(static_cast<std::size_t>(full - 5), '#');
    EXPECT_EQ(request.BuildRequest(room.data(), static_cast<int>(room.size())), full);
    EXPECT_EQ(room.back(), '#');

    for (int size : {0, 1, 7, 40, 120}) {
        std::vector<char> guarded(static_cast<std::size_t>(size) + 16, '#');
        EXPECT_EQ(request.BuildRequest(guarded.data(), size), full);
        for (std::size_t i = static_cast<std::size_t>(size); i < guarded.size(); ++i) {
            ASSERT_EQ(guarded[i], '#') << "size " << size;
        }
    }
    EXPECT_EQ(request.BuildRequest(nullptr, 100), full);
}

TEST(MessageProperty, ParsingABuiltRequestYieldsTheSameHeads)
{
    std::mt19937 random(7);
    const std::string alphabet = "abcXYZ019-_/.:;= ";
    auto word = [&](std::size_t maxLength, const std::string& chars) {
        std::string text(1 + random() % maxLength, 'a');
        for (char& c : text) {
            c = chars[random() % chars.size()];
        }
        return text;
    };
    for (int round = 0; round < 200; ++round) {
        CProtocolRequest original;
        original.GetProtocolRequestLine()->SetProtocolMethod("GET");
        original.GetProtocolRequestLine()->SetProtocolURL("/p");
        original.GetProtocolRequestLine()->SetProtocolName("RTSP");
        original.GetProtocolRequestLine()->SetProtocolVersion("1.0");
        const int count = static_cast<int>(random() % 6);
        for (int i = 0; i < count; ++i) {
            // Names without ":" and values without surrounding blanks survive
            // the round trip unchanged.
            std::string value = word(12, alphabet);
            value = "v" + value + "v";
            original.InsertHeadLast(word(8, "abcXYZ-").c_str(), value.c_str());
        }
        std::string text = Build(original);
        CProtocolRequest parsed;
        ASSERT_EQ(parsed.ParseRequest(&text[0], static_cast<int>(text.size())), 1);
        ASSERT_EQ(HeadsOf(&parsed), HeadsOf(&original)) << text;
        EXPECT_STREQ(parsed.GetProtocolRequestLine()->GetProtocolMethod(), "GET");
    }
}

TEST(MessageProperty, ArbitraryBytesParseAndBuildSafely)
{
    std::mt19937 random(11);
    const char bytes[] = {'\r', '\n', ':', ';', '=', ' ', '/', '-', 'a', '\0', '\xff'};
    for (int round = 0; round < 2000; ++round) {
        std::string text(random() % 96, 'a');
        for (char& c : text) {
            c = bytes[random() % sizeof(bytes)];
        }
        // The text ends at its first zero byte, as the parser's callers promise.
        const int expected = std::string(text.c_str()).find("\r\n\r\n") != std::string::npos ? 1 : 0;
        std::string copy = text;
        CProtocolRequest request;
        CProtocolResponse response;
        ASSERT_EQ(request.ParseRequest(&text[0], static_cast<int>(text.size())), expected);
        ASSERT_EQ(response.ParseResponse(&copy[0], static_cast<int>(copy.size())), expected);

        std::vector<char> small(16);
        std::vector<char> large(1024);
        ASSERT_EQ(request.BuildRequest(small.data(), static_cast<int>(small.size())),
                  request.BuildRequest(large.data(), static_cast<int>(large.size())));
        ASSERT_EQ(response.BuildResponse(small.data(), static_cast<int>(small.size())),
                  response.BuildResponse(large.data(), static_cast<int>(large.size())));
    }
}

TEST(GatewayView, WalksAParsedRequestThroughTheInterfacesAlone)
{
    CProtocolRequest* concrete = new CProtocolRequest;
    std::string text = "DESCRIBE rtsp://h/s RTSP/1.0\r\nCSeq: 9\r\nTransport: RTP/AVP;unicast\r\n\r\n";
    ASSERT_EQ(concrete->ParseRequest(&text[0], static_cast<int>(text.size())), 1);
    concrete->setNeedAuth(false);

    IProtocolRequest* request = concrete;
    EXPECT_FALSE(request->bNeedAuth());
    EXPECT_STREQ(request->GetProtocolRequestLine()->GetProtocolMethod(), "DESCRIBE");
    std::vector<std::string> seen;
    for (IProtocolHead* head = request->GetFirstHead(); head != nullptr; head = request->GetNextHead()) {
        for (IProtocolAttr* attr = head->GetFirstAttr(); attr != nullptr; attr = head->GetNextAttr()) {
            seen.push_back(std::string(head->GetHeadName()) + "." + attr->GetAttrName());
        }
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"Transport.RTP/AVP", "Transport.unicast"}));
    request->InsertHeadBefore("Authorization", "Digest x", request->GetHeadByName("CSeq"));
    request->DeleteHead(request->GetHeadByName("Transport"));
    EXPECT_EQ(HeadsOf(request), (HeadList{{"Authorization", "Digest x"}, {"CSeq", "9"}}));
    delete request;  // through the interface's virtual destructor
}
