// The message text the filter chain speaks: the odd inputs and the builder's
// bounds. What the gateway sees of a parsed request is pinned end to end by the
// integration tests, and arbitrary bytes by the message fuzz target.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "protocol/ProtocolFilter.h"

using namespace HttpWrapper;
using PROTOCOL_FILTER::IProtocolHead;
using PROTOCOL_FILTER::IProtocolRequestLine;

namespace {

int Parse(CProtocolRequest& request, std::string text)
{
    return request.ParseRequest(&text[0], static_cast<int>(text.size()));
}

std::string Build(CProtocolRequest& request)
{
    std::vector<char> buffer(4096);
    const int length = request.BuildRequest(buffer.data(), static_cast<int>(buffer.size()));
    return std::string(buffer.data(), static_cast<std::size_t>(length));
}

typedef std::vector<std::pair<std::string, std::string>> HeadList;

HeadList HeadsOf(PROTOCOL_FILTER::IProtocolRequest& request)
{
    HeadList heads;
    for (IProtocolHead* head = request.GetFirstHead(); head != nullptr; head = request.GetNextHead()) {
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
    IProtocolRequestLine* line = request.GetProtocolRequestLine();
    EXPECT_EQ(std::string(line->GetProtocolMethod()) + "|" + line->GetProtocolURL() + "|" +
                  line->getProtocolOriginalURL() + "|" + line->GetProtocolName() + "|" + line->GetProtocolVersion(),
              "DESCRIBE|rtsp://10.0.0.1/s|rtsp://10.0.0.1/s|RTSP|1.0");
    // Blanks are trimmed before carriage returns, so the blank in front of
    // the stray CR survives; the number still reads as 5.
    EXPECT_EQ(HeadsOf(request), (HeadList{{"CSeq", "1"},
                                          {"Content-Length", "5 "},
                                          {"Transport", "RTP/AVP;unicast;client_port=8000-8001"},
                                          {"X", "a=1; b=2"}}));
    EXPECT_EQ(request.GetHeadByName("Content-Length")->GetHeadIntValue(), 5);
    EXPECT_EQ(request.GetHeadByName("CSeq")->GetFirstAttr(), nullptr);  // a plain value has no attributes
    IProtocolHead* transport = request.GetHeadByName("Transport");
    EXPECT_FALSE(transport->GetAttrByName("unicast")->HasAttrValue());
    int low = 0;
    int high = 0;
    transport->GetAttrByName("client_port")->GetAttrIntRange(&low, &high);
    EXPECT_EQ(std::make_pair(low, high), std::make_pair(8000, 8001));
    EXPECT_NE(request.GetHeadByName("X")->GetAttrByName(" b"), nullptr);  // attribute names are not trimmed
    EXPECT_TRUE(request.bNeedAuth());
}

TEST(ParseRequest, MalformedPartsAreSkipped)
{
    CProtocolRequest request;
    EXPECT_EQ(Parse(request, "GET /a RTSP/1.0\r\nCSeq: 1\r\n"), 0);  // no terminator
    EXPECT_EQ(request.GetFirstHead(), nullptr);
    EXPECT_EQ(request.ParseRequest(nullptr, 10), 0);

    EXPECT_EQ(Parse(request, "GET /a b RTSP/1.0\r\nCSeq: 2\r\n\r\n"), 1);
    EXPECT_STREQ(request.GetProtocolRequestLine()->GetProtocolMethod(), "");
    EXPECT_STREQ(request.GetHeadByName("CSeq")->GetHeadValue(), "2");

    CProtocolRequest noVersion;
    EXPECT_EQ(Parse(noVersion, "GET /a RTSP\r\n\r\n"), 1);
    EXPECT_STREQ(noVersion.GetProtocolRequestLine()->GetProtocolMethod(), "GET");
    EXPECT_STREQ(noVersion.GetProtocolRequestLine()->GetProtocolName(), "");
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
    ASSERT_EQ(Parse(withBody, head + std::string("ab\0c", 4)), 1);
    ASSERT_EQ(withBody.GetProtocolBody()->GetBodyContent(&content), 4);
    EXPECT_EQ(std::string(content, 4), std::string("ab\0c", 4));

    // More than 65 lines: the surplus stays in the last piece, read as one line.
    std::string many = "OPTIONS * RTSP/1.0\r\n";
    for (int i = 0; i < 70; ++i) {
        many += "H" + std::to_string(i) + ": v\r\n";
    }
    CProtocolRequest cut;
    Parse(cut, many + "\r\n");
    EXPECT_EQ(HeadsOf(cut).size(), 64u);
    EXPECT_STREQ(cut.GetHeadByName("H63")->GetHeadValue(),
                 "v\r\nH64: v\r\nH65: v\r\nH66: v\r\nH67: v\r\nH68: v\r\nH69: v");
}

// The request text as built; the result is always the whole
// length, and a buffer too small is never written past.
TEST(BuildMessage, HeadsAttributesBodyAndBounds)
{
    CProtocolRequest request;
    IProtocolRequestLine* line = request.GetProtocolRequestLine();
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
    const std::string full = Build(request);
    EXPECT_EQ(full, "SETUP rtsp://h/a RTSP/1.0\r\nCSeq: 2\r\nX: a=1;b\r\nEmpty:\r\n\r\n0123456789");

    // full - 5: the body does not fit the 5 bytes left and is not copied.
    const int length = static_cast<int>(full.size());
    for (int size : {0, 1, 7, 40, length - 5}) {
        std::vector<char> guarded(static_cast<std::size_t>(size) + 16, '#');
        EXPECT_EQ(request.BuildRequest(guarded.data(), size), length);
        EXPECT_EQ(std::string(guarded.begin() + size, guarded.end()), std::string(16, '#')) << "size " << size;
    }
    EXPECT_EQ(request.BuildRequest(nullptr, 100), length);
}
