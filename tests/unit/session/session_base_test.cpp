// The step that joins an HTTP request to the gateway (RTSP conversion, filter
// chain, sink), the status mapping and the XML error reply of the session base.
#include <gtest/gtest.h>

#include <string.h>

#include "FakeNetServer.h"
#include "errors/HttpErrorHandler.h"
#include "TestSession.h"

using namespace HttpWrapper;
using ::testing::_;
using ::testing::DoAll;
using ::testing::Return;
using ::testing::SetArgPointee;

namespace {

void* const kStream = reinterpret_cast<void*>(0x5EED);

class SessionBase : public ::testing::Test {
protected:
    void SetUp() override
    {
        FakeNetServer::instance().reset();
        reset(&filter, &sink);
    }

    void reset(PROTOCOL_FILTER::IProtocolFilter* chain, PROTOCOL_WRAPPER::IServerSink* serverSink)
    {
        session.reset(new TestSession(chain, serverSink));
        session->m_strMethod = "POST";
        session->m_strPlaybackURI = "rtsp://10.0.0.5:554/download?devIndex=x";
        session->m_strAuthorization = " Digest username=\"admin\", realm=\"r\"";
    }

    std::string convertedUrl() { return session->getRequest().GetProtocolRequestLine()->GetProtocolURL(); }

    MockFilter filter;
    MockSink sink;
    std::unique_ptr<TestSession> session;
};

}  // namespace

TEST(RtspStatus, SmallStatusValuesIndexTheRtspTable)
{
    TestSession session(nullptr, nullptr);
    const struct {
        int status, code;
    } rows[] = {{0, 100}, {10, 401}, {36, 500}, {42, 551}, {43, -1}, {50, -1}, {99, -1}, {404, 404}, {-5, -5}};
    for (const auto& row : rows) {
        session.SetStatusCode(row.status);
        EXPECT_EQ(session.getStatusCodeRtspInt(), row.code) << row.status;
    }
}

TEST_F(SessionBase, LongOrUnterminatedUserNamesAreNotForwarded)
{
    EXPECT_CALL(filter, Request(_, _, _)).WillRepeatedly(Return(1));
    for (const std::string& name : {std::string(65, 'u') + "\"", std::string(64, 'u')}) {
        reset(&filter, &sink);
        session->m_strAuthorization = "Digest username=\"" + name;
        session->convertToRtspProcess(false);
        EXPECT_EQ(convertedUrl(), "rtsp://10.0.0.5:554/download?devIndex=x&clientIP=") << name;
    }
}

TEST_F(SessionBase, AMissingOrFailingStepAnswersWithItsCodeAndStartsNothing)
{
    reset(nullptr, &sink);
    session->SetStatusCode(13);
    EXPECT_EQ(session->convertToRtspProcess(true), 0x19308C0);
    EXPECT_EQ(session->GetStatusCode(), 404);  // the status as the table maps it

    EXPECT_CALL(filter, Request(_, _, _)).WillRepeatedly(Return(0));
    reset(&filter, nullptr);
    EXPECT_EQ(session->convertToRtspProcess(true), 0x19308C0);
    EXPECT_EQ(session->GetStatusCode(), 500);

    // A refusal of the filter chain or of OnOpen reaches the client in the integration tests.
    reset(&filter, &sink);
    EXPECT_CALL(sink, OnOpen(_, _, _, _)).WillOnce(DoAll(SetArgPointee<3>(kStream), Return(0)));
    EXPECT_CALL(sink, pushStream(kStream)).WillOnce(Return(0x20000004));
    EXPECT_CALL(sink, OnStart(_, _)).Times(0);
    EXPECT_EQ(session->convertToRtspProcess(true), 0x20000004);
    EXPECT_EQ(session->GetErrorCode(), 0x20000004);
    EXPECT_EQ(session->GetStatusCode(), 500);
}

TEST_F(SessionBase, XmlErrorReplyHasTheDoubledStatusCodeAndOneBlankLine)
{
    strcpy(FakeNetServer::instance().params.szUrl, "/QUMEX/x?y=1");
    ASSERT_EQ(session->init(9), 0);
    // The document itself is the error handler's; the request's URL goes in.
    const std::string body = CHttpErrorHandler::buildXMLReply(0x40000003, "/QUMEX/x?y=1").strBody;
    EXPECT_EQ(session->getHttpXmlResponse(0x40000003, ""),
              "HTTP/1.1 401 401 Unauthorized\r\nContent-Length: " + std::to_string(body.size()) +
                  "\r\nContent-Type: application/xml\r\n\r\n" + body);
    std::string withHeader = session->getHttpXmlResponse(0x60000001, "WWW-Authenticate: x");
    EXPECT_EQ(withHeader.compare(0, 29, "HTTP/1.1 400 400 Bad Request\r"), 0);
    EXPECT_NE(withHeader.find("application/xml\r\nWWW-Authenticate: x\r\n\r\n<"), std::string::npos);
}
