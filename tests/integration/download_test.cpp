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
    std::string lengthHead(unsigned long long size)
    {
        return "HTTP/1.1 200 OK\r\nContent-Type: application/binary\r\nContent-Length: " + std::to_string(size + 40) +
               "\r\nConnection: close\r\n\r\n" + sink.streamHead;
    }

    // Starts a download far larger than the socket buffers hold and reads its first bytes.
    void startLargeDownload(RawHttpClient& client)
    {
        sink.recordingSize = 512ull * 1024 * 1024;
        ASSERT_TRUE(client.start(jsonDownload("&name=big")));
        EXPECT_EQ(client.receiveAll(5000, 1 << 20).compare(0, 15, "HTTP/1.1 200 OK"), 0);
        EXPECT_EQ(singleton<CHttpSessionMgr>::instance()->getDownloadNum(), 1);
    }
};

}  // namespace

TEST_F(Download, TheGatewayReceivesTheRtspRequestHeadByHead)
{
    sink.recordingSize = 1000;
    const struct {
        std::string query, headers;
        const char* range;  // the Download-Range head forwarded; nullptr: none
    } rows[] = {
        {"&name=a", "X-Forwarded-For: 192.0.2.7\r\n", nullptr},
        // A gateway that reports no range served is answered the whole body, as before.
        {"&size=1000", "Range: bytes=-7\r\nIf-Range: \"x-1\"\r\n", "bytes=-7;if-range=\"x-1\""},
        {"&name=a", "Range: bytes=0-1,5-9\r\n", nullptr},  // a list of ranges is ignored
        {"", "Range: bytes=100-\r\n", nullptr},            // chunked: no length to count a range in
    };
    for (const auto& row : rows) {
        RawResponse response = exchange(jsonDownload(row.query, row.headers));
        EXPECT_TRUE(row.query.empty() || response.raw == lengthHead(1000) + FakeServerSink::recordingBytes(0, 1000));
        // The standard heads come first, as gateways have always read them.
        std::vector<std::pair<std::string, std::string>> heads = {
            {"CSeq", "1"},
            {"Accept", "application/sdp"},
            {"Download", "0"},
            {"Authorization", digestHeader().substr(15, digestHeader().size() - 17)},
            {"User-Agent", "httpClient"}};
        if (row.range != nullptr) {
            heads.emplace_back("Download-Range", row.range);
        }
        EXPECT_EQ(filter.seen().back().heads, heads) << row.headers;
        EXPECT_TRUE(waitIdle());
    }
    const SeenRequest first = filter.seen().at(0);
    EXPECT_EQ(first.method + " " + first.name + "/" + first.version, "POST RTSP/1.0");
    // The user name loses its last character, on purpose.
    EXPECT_EQ(first.url, "rtsp://10.0.0.5:554/Streaming/download?devIndex=" + std::string(kDevIndex) +
                             "&starttime=20260101T000000Z&endtime=20260101T010000Z&name=a"
                             "&clientIP=192.0.2.7&username=admi");
    EXPECT_TRUE(first.needAuth);
}

TEST_F(Download, JsonFormWithANameOrSizeStreamsWithContentLength)
{
    for (size_t size : {0, 1, 65536, 3 * 65536 + 17}) {
        sink.recordingSize = size;
        RawResponse response = exchange(jsonDownload("&name=rec&size=" + std::to_string(size)), 20000);
        EXPECT_TRUE(response.complete) << size;
        EXPECT_TRUE(response.raw == lengthHead(size) + FakeServerSink::recordingBytes(0, size)) << size;
        EXPECT_TRUE(waitIdle());
    }
    EXPECT_EQ(sink.opened(), 4);
}

TEST_F(Download, JsonFormWithoutNameOrSizeStreamsChunked)
{
    sink.blockSize = 300;
    sink.recordingSize = 1000;
    RawResponse response = exchange(jsonDownload(""));
    // One chunk per delivered block, upper-case hexadecimal sizes, one terminator.
    std::string expected =
        "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nTransfer-Encoding: chunked\r\n"
        "Connection: close\r\n\r\n28\r\n" +
        sink.streamHead + "\r\n";
    for (size_t offset = 0; offset < 1000; offset += 300) {
        size_t piece = std::min<size_t>(300, 1000 - offset);
        expected += (piece == 300 ? "12C\r\n" : "64\r\n") + FakeServerSink::recordingBytes(offset, piece) + "\r\n";
    }
    EXPECT_TRUE(response.raw == expected + "0\r\n\r\n") << response.raw.substr(0, 120);
    EXPECT_TRUE(waitIdle());
}

TEST_F(Download, XmlFormRewritesTheUriAndAlwaysAnnouncesTheLength)
{
    sink.recordingSize = 5000;
    RawResponse response =
        exchange(xmlDownload("rtsp://10.0.0.5:554/Streaming/tracks/playback/camera/1-2/?starttime=1&amp;endtime=2"));
    EXPECT_TRUE(response.raw == lengthHead(5000) + FakeServerSink::recordingBytes(0, 5000));
    // Without a device identifier the RTSP port becomes a parameter.
    EXPECT_EQ(exchange(xmlDownload("rtsp://10.0.0.5:554/a?b=1")).status, 200);
    std::vector<SeenRequest> seen = filter.seen();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].method, "GET");
    EXPECT_EQ(
        seen[0].url,
        "rtsp://10.0.0.5:554/Streaming/tracks/download/device/1-2/?starttime=1&endtime=2&clientIP=&username=admi");
    EXPECT_EQ(seen[1].url, "rtsp://10.0.0.5:554/a?b=1&indexType=rtspPort&rtspPort=554&clientIP=&username=admi");
    EXPECT_TRUE(waitIdle());
}

TEST_F(Download, GatewayRefusalsAndTheDownloadLimitReachTheClient)
{
    // The gateway refuses the credentials: status index 10 means 401. The XML
    // form answers a bare head with the mapped status.
    filter.result = 0x40000003;
    filter.statusOnRefusal = 10;
    RawResponse json = exchange(jsonDownload("&name=a"));
    EXPECT_EQ(json.status, 401);
    EXPECT_EQ(json.header("content-type"), "application/json");
    EXPECT_EQ(json.body, HttpWrapper::CHttpErrorHandler().getJSONResponseStatus(0x40000003));
    RawResponse xml = exchange(xmlDownload("rtsp://10.0.0.5:554/a"));
    EXPECT_EQ(xml.status, 401);
    EXPECT_TRUE(xml.body.empty());
    filter.result = 0;

    // The 401st download, and a stream the sink cannot open.
    CHttpSessionMgr* sessions = singleton<CHttpSessionMgr>::instance();
    for (int i = 0; i < 400; ++i) {
        sessions->increaseDownloadNum();
    }
    RawResponse limited = exchange(jsonDownload("&name=a"));
    EXPECT_EQ(limited.status, 403);
    EXPECT_NE(limited.body.find("\"subStatusCode\":\"reachDownloadLimit\""), std::string::npos);
    for (int i = 0; i < 400; ++i) {
        sessions->decreaseDownloadNum();
    }
    sink.openResult = 0x30000001;
    RawResponse failed = exchange(jsonDownload("&name=a"));
    EXPECT_EQ(failed.status, 500);
    EXPECT_NE(failed.body.find("\"subStatusCode\":\"deviceError\""), std::string::npos);
    EXPECT_EQ(sink.opened(), 0);
    EXPECT_TRUE(waitIdle());
}

TEST_F(Download, AClientThatHangsUpMidDownloadReleasesEverything)
{
    RawHttpClient client(port);
    startLargeDownload(client);
    client.close();
    EXPECT_TRUE(waitIdle()) << "stream, session or download count outlived the client";
    EXPECT_EQ(sink.opened(), 1);
}

TEST_F(Download, AStreamThatStaysSilentIsAgedOutByTheTimeOutPasses)
{
    singleton<CHttpServerWrapper>::instance()->setTimeoutCheckSleeps(1);  // a pass every 100 ms
    sink.silent = true;
    RawHttpClient client(port);
    ASSERT_TRUE(client.start(jsonDownload("&name=a")));
    // No head ever comes; the passes end the session and the connection with it.
    EXPECT_EQ(client.receiveAll(10000), "");
    EXPECT_TRUE(client.waitForClose(0));
    EXPECT_TRUE(waitIdle());
    EXPECT_EQ(sink.opened(), 1);
}

// What DestroyServer does while a delivery thread waits on a client that reads
// nothing: the gateway's stream is stopped and closed, and the stop does not
// wait out the minute a stalled download is otherwise given.
TEST_F(Download, StoppingTheServerMidDownloadEndsTheStreamPromptly)
{
    RawHttpClient client(port);
    startLargeDownload(client);
    auto start = std::chrono::steady_clock::now();
    singleton<CHttpServerWrapper>::instance()->stopServer();
    singleton<CHttpServerWrapper>::free();
    server = nullptr;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_EQ(sink.opened(), 1);
    EXPECT_EQ(sink.openStreams(), 0);
}
