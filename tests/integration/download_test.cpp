// Downloads through the real plug-in and embedded server: the RTSP request the
// gateway receives, both request forms, both transfer modes, exact framing, and
// what happens when the client or the gateway goes away.
#include <gtest/gtest.h>

#include <chrono>

#include "PluginFixture.h"
#include "errors/HttpErrorHandler.h"
#include "frame/HttpServerWrapper.h"
#include "session/HttpSessionMgr.h"

using HttpWrapper::CHttpServerWrapper;
using HttpWrapper::CHttpSessionMgr;
using HttpWrapper::singleton;

namespace {

class Download : public PluginFixture {
protected:
    std::string recordingOf(size_t size)
    {
        std::string data(size, '\0');
        FakeServerSink::syntheticBytes(0, &data[0], size);
        return data;
    }

    RawResponse jsonDownload(const std::string& query)
    {
        RawHttpClient client(port);
        return client.exchange(
            RawHttpClient::request("POST", jsonDownloadTarget(), jsonDownloadBody(query), digestHeader()), 20000);
    }
};

}  // namespace

TEST_F(Download, TheGatewayReceivesTheRtspRequestHeadByHead)
{
    sink.recording = "0123456789";
    RawHttpClient client(port);
    std::string headers = digestHeader("admin") + "X-Forwarded-For: 192.0.2.7\r\n";
    RawResponse response =
        client.exchange(RawHttpClient::request("POST", jsonDownloadTarget(), jsonDownloadBody("&name=a"), headers));
    ASSERT_EQ(response.status, 200);

    std::vector<SeenRequest> seen = filter.seen();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].method, "POST");
    EXPECT_EQ(seen[0].url, "rtsp://10.0.0.5:554/Streaming/download?devIndex=" + std::string(kDevIndex) +
                               "&starttime=20260101T000000Z&endtime=20260101T010000Z&name=a"
                               "&clientIP=192.0.2.7&username=admi");
    EXPECT_EQ(seen[0].name, "RTSP");
    EXPECT_EQ(seen[0].version, "1.0");
    EXPECT_TRUE(seen[0].needAuth);
    std::string authorization = digestHeader("admin");
    authorization =
        authorization.substr(strlen("Authorization: "), authorization.size() - strlen("Authorization: ") - 2);
    std::vector<std::pair<std::string, std::string>> heads = {{"CSeq", "1"},
                                                              {"Accept", "application/sdp"},
                                                              {"Download", "0"},
                                                              {"Authorization", authorization},
                                                              {"User-Agent", "httpClient"}};
    EXPECT_EQ(seen[0].heads, heads);
    EXPECT_TRUE(waitIdle());
}

TEST_F(Download, ARangeTravelsAsOneMoreHeadAndAGatewayWithoutRangesIsAnsweredAsBefore)
{
    sink.recording = recordingOf(1000);
    const struct {
        std::string query, headers;  // without name or size the reply is chunked: no length to count a range in
        const char* forwarded;       // the Download-Range head; nullptr: none
    } rows[] = {{"&name=a", "", nullptr},
                {"&size=1000", "Range: bytes=-7\r\nIf-Range: \"x-1\"\r\n", "bytes=-7;if-range=\"x-1\""},
                {"&name=a", "Range: bytes=0-1,5-9\r\n", nullptr},  // a list of ranges is ignored
                {"", "Range: bytes=100-\r\n", nullptr}};
    for (const auto& row : rows) {
        RawHttpClient client(port);
        RawResponse response = client.exchange(RawHttpClient::request(
            "POST", jsonDownloadTarget(), jsonDownloadBody(row.query), digestHeader() + row.headers));
        client.close();  // a chunked reply ends with the connection
        EXPECT_EQ(response.status, 200);
        if (!row.query.empty()) {
            EXPECT_EQ(response.raw.substr(0, response.raw.size() - 1040),
                      "HTTP/1.1 200 OK\r\nContent-Type: application/binary\r\nContent-Length: 1040\r\n"
                      "Connection: close\r\n\r\n");
        }
        std::vector<std::pair<std::string, std::string>> heads = filter.seen().back().heads;
        ASSERT_EQ(heads.size(), row.forwarded ? 6u : 5u) << row.headers;
        EXPECT_EQ(heads[4].first, "User-Agent");  // the standard heads come first, as they are
        EXPECT_TRUE(!row.forwarded ||
                    heads[5] == std::make_pair(std::string("Download-Range"), std::string(row.forwarded)));
        EXPECT_TRUE(waitIdle());
    }
}

TEST_F(Download, JsonFormWithANameStreamsWithContentLength)
{
    for (size_t size : {static_cast<size_t>(0), static_cast<size_t>(1), static_cast<size_t>(65536),
                        static_cast<size_t>(3 * 65536 + 17)}) {
        sink.recording = recordingOf(size);
        RawResponse response = jsonDownload("&name=rec&size=" + std::to_string(size));
        ASSERT_TRUE(response.complete) << size;
        EXPECT_EQ(response.status, 200);
        EXPECT_EQ(response.headers["content-type"], "application/binary");
        EXPECT_EQ(response.headers["content-length"], std::to_string(size + 40));
        EXPECT_EQ(response.headers.count("transfer-encoding"), 0u);
        EXPECT_TRUE(response.body == sink.streamHead + sink.recording) << "size " << size;
        EXPECT_TRUE(waitIdle());
    }
    EXPECT_EQ(sink.opened(), 4);
}

TEST_F(Download, JsonFormWithoutNameOrSizeStreamsChunked)
{
    sink.blockSize = 300;
    sink.recording = recordingOf(1000);
    RawResponse response = jsonDownload("");
    ASSERT_EQ(response.status, 200);
    EXPECT_EQ(response.headers["content-type"], "application/octet-stream");
    EXPECT_EQ(response.headers["transfer-encoding"], "chunked");
    EXPECT_EQ(response.headers.count("content-length"), 0u);
    // One chunk per delivered block, upper-case hexadecimal sizes, one terminator.
    std::string expected = "28\r\n" + sink.streamHead + "\r\n";
    for (size_t offset = 0; offset < 1000; offset += 300) {
        size_t piece = std::min<size_t>(300, 1000 - offset);
        expected += (piece == 300 ? "12C" : "64") + std::string("\r\n") + sink.recording.substr(offset, piece) + "\r\n";
    }
    expected += "0\r\n\r\n";
    EXPECT_TRUE(response.body == expected);
    std::string plain;
    EXPECT_TRUE(response.dechunk(plain));
    EXPECT_TRUE(waitIdle());
}

TEST_F(Download, XmlFormRewritesTheUriAndAlwaysAnnouncesTheLength)
{
    sink.recording = recordingOf(5000);
    RawHttpClient client(port);
    std::string body =
        xmlDownloadBody("rtsp://10.0.0.5:554/Streaming/tracks/playback/camera/1-2/?starttime=1&amp;endtime=2");
    RawResponse response =
        client.exchange(RawHttpClient::request("GET", "/QUMEX/ContentMgmt/download", body, digestHeader()));
    ASSERT_EQ(response.status, 200);
    EXPECT_EQ(response.headers["content-length"], "5040");
    EXPECT_TRUE(response.body == sink.streamHead + sink.recording);
    ASSERT_EQ(filter.seen().size(), 1u);
    EXPECT_EQ(filter.seen()[0].method, "GET");
    EXPECT_EQ(
        filter.seen()[0].url,
        "rtsp://10.0.0.5:554/Streaming/tracks/download/device/1-2/?starttime=1&endtime=2&clientIP=&username=admi");

    // Without a device identifier the RTSP port becomes a parameter.
    body = xmlDownloadBody("rtsp://10.0.0.5:554/a?b=1");
    response = client.exchange(RawHttpClient::request("GET", "/QUMEX/ContentMgmt/download", body, digestHeader()));
    ASSERT_EQ(response.status, 200);
    EXPECT_EQ(filter.seen()[1].url,
              "rtsp://10.0.0.5:554/a?b=1&indexType=rtspPort&rtspPort=554&clientIP=&username=admi");
    EXPECT_TRUE(waitIdle());
}

TEST_F(Download, XmlFormFailuresMixJsonAndXmlAnswers)
{
    const struct {
        std::string body;
        const char* contentType;
        const char* fragment;
    } rows[] = {{"", "application/json", ""},
                {"<a><b></a>", "application/json", ""},
                {"<downloadRequest/>", "application/xml", "<subStatusCode>badParameters</subStatusCode>"},
                {xmlDownloadBody("http//nothing"), "application/xml", ""}};
    RawHttpClient client(port);
    for (const auto& row : rows) {
        RawResponse response =
            client.exchange(RawHttpClient::request("GET", "/QUMEX/ContentMgmt/download", row.body, digestHeader()));
        EXPECT_EQ(response.status, 400) << row.body;
        EXPECT_EQ(response.headers["content-type"], row.contentType) << row.body;
        EXPECT_NE(response.body.find(row.fragment), std::string::npos) << response.body;
    }
    EXPECT_TRUE(waitIdle());
}

TEST_F(Download, GatewayRefusalsReachTheClient)
{
    // The gateway refuses the credentials: status index 10 means 401.
    filter.result = 0x40000003;
    filter.statusOnRefusal = 10;
    RawResponse json = jsonDownload("&name=a");
    EXPECT_EQ(json.status, 401);
    EXPECT_EQ(json.headers["content-type"], "application/json");
    EXPECT_EQ(json.body, HttpWrapper::CHttpErrorHandler().getJSONResponseStatus(0x40000003));

    RawHttpClient client(port);
    RawResponse xml = client.exchange(RawHttpClient::request("GET", "/QUMEX/ContentMgmt/download",
                                                             xmlDownloadBody("rtsp://10.0.0.5:554/a"), digestHeader()));
    EXPECT_EQ(xml.status, 401);  // a bare head with the mapped status
    EXPECT_TRUE(xml.body.empty());

    // The sink cannot open the stream: 500.
    filter.result = 0;
    sink.openResult = 0x30000001;
    RawResponse failed = jsonDownload("&name=a");
    EXPECT_EQ(failed.status, 500);
    EXPECT_NE(failed.body.find("\"subStatusCode\":\"deviceError\""), std::string::npos);
    EXPECT_EQ(sink.opened(), 0);
    EXPECT_TRUE(waitIdle());
}

TEST_F(Download, TheFourHundredAndFirstDownloadIsRefused)
{
    CHttpSessionMgr* sessions = singleton<CHttpSessionMgr>::instance();
    for (int i = 0; i < 400; ++i) {
        sessions->increaseDownloadNum();
    }
    RawResponse response = jsonDownload("&name=a");
    EXPECT_EQ(response.status, 403);
    EXPECT_NE(response.body.find("\"subStatusCode\":\"reachDownloadLimit\""), std::string::npos);
    EXPECT_EQ(sink.opened(), 0);
    for (int i = 0; i < 400; ++i) {
        sessions->decreaseDownloadNum();
    }
    EXPECT_TRUE(waitIdle());
}

TEST_F(Download, AClientThatHangsUpMidDownloadReleasesEverything)
{
    sink.syntheticSize = 512ull * 1024 * 1024;  // far more than the socket buffers hold
    RawHttpClient client(port);
    ASSERT_TRUE(client.connect());
    ASSERT_TRUE(client.sendAll(
        RawHttpClient::request("POST", jsonDownloadTarget(), jsonDownloadBody("&name=big"), digestHeader())));
    std::string first = client.readSome(1 << 20);
    EXPECT_EQ(first.compare(0, 15, "HTTP/1.1 200 OK"), 0);
    EXPECT_EQ(singleton<CHttpSessionMgr>::instance()->getDownloadNum(), 1);
    client.close();
    EXPECT_TRUE(waitIdle()) << "stream, session or download count outlived the client";
    EXPECT_EQ(sink.closed(), 1);
}

TEST_F(Download, AStreamThatStaysSilentIsAgedOutByTheTimeOutPasses)
{
    singleton<CHttpServerWrapper>::instance()->setTimeoutCheckSleeps(1);  // a pass every 100 ms
    sink.silent = true;
    RawHttpClient client(port);
    ASSERT_TRUE(client.connect());
    ASSERT_TRUE(client.sendAll(
        RawHttpClient::request("POST", jsonDownloadTarget(), jsonDownloadBody("&name=a"), digestHeader())));
    // No head ever comes; the passes end the session and the connection with it.
    EXPECT_EQ(client.readSome(1 << 16, 10000), "");
    EXPECT_TRUE(waitIdle());
    EXPECT_EQ(sink.closed(), 1);
}

// What DestroyServer does while a delivery thread waits on a client that reads
// nothing: the gateway's stream is stopped and closed, and the stop does not
// wait out the minute a stalled download is otherwise given.
TEST_F(Download, StoppingTheServerMidDownloadEndsTheStreamPromptly)
{
    sink.syntheticSize = 512ull * 1024 * 1024;
    RawHttpClient client(port);
    ASSERT_TRUE(client.connect());
    ASSERT_TRUE(client.sendAll(
        RawHttpClient::request("POST", jsonDownloadTarget(), jsonDownloadBody("&name=big"), digestHeader())));
    EXPECT_EQ(client.readSome(4096).compare(0, 15, "HTTP/1.1 200 OK"), 0);
    auto start = std::chrono::steady_clock::now();
    singleton<CHttpServerWrapper>::instance()->stopServer();
    singleton<CHttpServerWrapper>::free();
    server = nullptr;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_EQ(sink.openStreams(), 0);
    EXPECT_EQ(sink.closed(), 1);
}
