// Downloads through the real plug-in and embedded server: the RTSP request the
// gateway receives, both request forms, both transfer modes, exact framing, and
// what happens when the client or the gateway goes away. The cases that stream
// run on both delivery paths: block by block, and a file the gateway hands over
// (ext/DeliveryRequest.h), which ends with exactly one callback, before OnStop.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <ext/DeliveryRequest.h>
#include <ext/DownloadSendCodes.h>

#include "PluginFixture.h"
#include "ProcessResources.h"
#include "errors/HttpErrorHandler.h"
#include "frame/ErrorCodes.h"
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

    // A download far larger than the socket buffers hold, whose client reads only its first bytes.
    void startLargeDownload(RawHttpClient& client)
    {
        if (sink.deliverFiles) {
            sink.recordingSize = 32ull * 1024 * 1024;  // a file written out for the hand-over
            ASSERT_TRUE(client.connectTo(port, 4096));
            ASSERT_TRUE(client.send(jsonDownload("&name=big")));
            EXPECT_EQ(client.receiveSome(15, 5000), "HTTP/1.1 200 OK");
            ASSERT_TRUE(eventually([&] { return sink.lastDeliveryAnswer == 0; }));
            return;
        }
        sink.recordingSize = 512ull * 1024 * 1024;
        ASSERT_TRUE(client.start(jsonDownload("&name=big")));
        EXPECT_EQ(client.receiveAll(5000, 1 << 20).compare(0, 15, "HTTP/1.1 200 OK"), 0);
        EXPECT_EQ(singleton<CHttpSessionMgr>::instance()->getDownloadNum(), 1);
    }

    // On the hand-over path: one callback with this outcome, none out of order, and nothing left open.
    void expectOneEnd(int outcome)
    {
        EXPECT_TRUE(waitIdle());
        EXPECT_EQ(sink.deliveryOutcomes(), std::vector<int>{outcome});
        EXPECT_EQ(sink.deliveryOrderFaults, 0);
    }
};

// The same cases with the block-by-block path (false) and the hand-over path (true).
class BothPaths : public Download, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override
    {
        Download::SetUp();
        sink.deliverFiles = GetParam();
    }
};

class StrictBothPaths : public BothPaths {
protected:
    StrictBothPaths() { serverParams += "&strictSendTimeout=1&sendTimeout=300"; }
};

class Delivery : public Download {
protected:
    void SetUp() override
    {
        Download::SetUp();
        sink.deliverFiles = true;
    }
};

class SendfileDelivery : public Delivery {
protected:
    SendfileDelivery() { serverParams += "&sendfile=1"; }
};

}  // namespace

std::string pathName(const ::testing::TestParamInfo<bool>& info)
{
    return info.param ? "HandedOver" : "Blocks";
}

INSTANTIATE_TEST_SUITE_P(Paths, BothPaths, ::testing::Values(false, true), pathName);
INSTANTIATE_TEST_SUITE_P(Paths, StrictBothPaths, ::testing::Values(false, true), pathName);

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

TEST_P(BothPaths, JsonFormWithANameOrSizeStreamsWithContentLengthAndLeavesNoDescriptor)
{
    const int descriptors = testsupport::openDescriptorCount();
    for (size_t size : {0, 1, 65536, 3 * 65536 + 17}) {
        sink.recordingSize = size;
        RawResponse response = exchange(jsonDownload("&name=rec&size=" + std::to_string(size)), 20000);
        EXPECT_TRUE(response.complete) << size;
        EXPECT_TRUE(response.raw == lengthHead(size) + FakeServerSink::recordingBytes(0, size)) << size;
        EXPECT_TRUE(waitIdle());
        if (GetParam() && size > 0) {
            EXPECT_EQ(sink.lastDeliveredBytes, size);
        }
    }
    EXPECT_EQ(sink.opened(), 4);
    // One callback per file handed over; an empty recording has nothing to hand over and goes as blocks.
    EXPECT_EQ(sink.deliveryOutcomes(), std::vector<int>(GetParam() ? 3 : 0, PROTOCOL_WRAPPER::DELIVERY_COMPLETE));
    EXPECT_EQ(sink.deliveryOrderFaults, 0);
    // A finished connection lingers until its client closes; then nothing of the downloads is left.
    EXPECT_TRUE(eventually([&] { return testsupport::openDescriptorCount() == descriptors; }, 3000))
        << "a file's descriptor outlived its download";
}

TEST_P(BothPaths, JsonFormWithoutNameOrSizeStreamsChunkedOneChunkPerBlock)
{
    sink.blockSize = 300;
    sink.recordingSize = 1000;
    RawResponse response = exchange(jsonDownload(""));
    // One chunk per gateway block, upper-case hexadecimal sizes, one terminator.
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
    EXPECT_EQ(sink.deliveryOutcomes(), std::vector<int>(GetParam() ? 1 : 0, PROTOCOL_WRAPPER::DELIVERY_COMPLETE));
    EXPECT_EQ(sink.deliveryOrderFaults, 0);
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

TEST_P(BothPaths, AClientThatHangsUpMidDownloadReleasesEverythingAndEndsTheDeliveryOnce)
{
    RawHttpClient client(port);
    startLargeDownload(client);
    client.close(GetParam());  // a hand-over is ended by a reset, the blocks by an orderly close
    EXPECT_TRUE(waitIdle()) << "stream, session or download count outlived the client";
    EXPECT_EQ(sink.opened(), 1);
    if (GetParam()) {
        expectOneEnd(PROTOCOL_WRAPPER::DELIVERY_CLIENT_GONE);
        EXPECT_LT(sink.lastDeliveredBytes, sink.recordingSize);
    }
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

// What DestroyServer does while a download waits on a client that reads nothing: the gateway's stream is
// stopped and closed, a delivery ends once before it, and the stop does not wait out the minute a stalled
// download is otherwise given.
TEST_P(BothPaths, StoppingTheServerMidDownloadEndsTheStreamPromptlyAndTheDeliveryOnceBeforeIt)
{
    RawHttpClient client(port);
    startLargeDownload(client);
    auto start = std::chrono::steady_clock::now();
    singleton<CHttpServerWrapper>::instance()->stopServer();
    singleton<CHttpServerWrapper>::free();
    server = nullptr;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_EQ(sink.opened(), 1);
    EXPECT_TRUE(eventually([&] { return sink.openStreams() == 0; }));
    EXPECT_EQ(sink.deliveryOutcomes(), std::vector<int>(GetParam() ? 1 : 0, PROTOCOL_WRAPPER::DELIVERY_STOPPED));
    EXPECT_EQ(sink.deliveryOrderFaults, 0);
}

TEST_F(SendfileDelivery, SendfileWritesTheSameBytes)
{
    sink.recordingSize = 5 * 65536 + 3;
    RawResponse response = exchange(jsonDownload("&name=rec"), 20000);
    EXPECT_TRUE(response.raw == lengthHead(sink.recordingSize) + FakeServerSink::recordingBytes(0, sink.recordingSize));
    expectOneEnd(PROTOCOL_WRAPPER::DELIVERY_COMPLETE);
}

TEST_F(Delivery, ARefusedRequestLeavesTheDownloadToSendAndOtherMessagesAreAnsweredZero)
{
    sink.badRequest = true;
    sink.recordingSize = 100000;
    RawResponse response = exchange(jsonDownload("&name=rec"), 20000);
    EXPECT_TRUE(eventually([&] { return sink.lastDeliveryAnswer == HttpWrapper::HPW_ERR_PARAM; }));
    EXPECT_TRUE(response.raw == lengthHead(100000) + FakeServerSink::recordingBytes(0, 100000));
    EXPECT_TRUE(waitIdle());
    EXPECT_TRUE(sink.deliveryOutcomes().empty());
    EXPECT_EQ(sink.deliveryOrderFaults, 0);
    // Any other message, to any session, is answered as the interface specifies.
    EXPECT_EQ(server->SendMSG(nullptr, 7, nullptr, 0), 0);
    PROTOCOL_WRAPPER::DeliveryRequest request{};
    EXPECT_EQ(server->SendMSG(nullptr, PROTOCOL_WRAPPER::MSG_DELIVER_FILE, &request, sizeof request),
              HttpWrapper::HPW_ERR_PARAM);
}

TEST_P(StrictBothPaths, AClientThatTakesNothingForTheSendTimeOutEndsTheDownloadAndTellsTheGateway)
{
    RawHttpClient client(port);
    startLargeDownload(client);
    const auto start = std::chrono::steady_clock::now();
    if (GetParam()) {
        expectOneEnd(PROTOCOL_WRAPPER::DELIVERY_SEND_TIMEOUT);
        EXPECT_TRUE(client.waitForClose(1000));
    } else {
        ASSERT_TRUE(eventually([this] { return sink.openStreams() == 0; }, 10000)) << "the stalled download held on";
        EXPECT_EQ(sink.lastDeliveryResult, HPW_SEND_TIMEOUT);
        EXPECT_TRUE(waitIdle());
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(Delivery, AClientUnderTheMinimumRateIsEnded)
{
    sink.minRate = 64 * 1024 * 1024;
    sink.minRateSeconds = 1;
    RawHttpClient client(port);
    startLargeDownload(client);
    expectOneEnd(PROTOCOL_WRAPPER::DELIVERY_TOO_SLOW);
}

TEST_F(Delivery, ADeliveryOutlivesTheSessionTimeOutPasses)
{
    // Without Sends the session looks idle to the passes; the server's own limits govern it instead.
    RawHttpClient client(port);
    startLargeDownload(client);
    singleton<CHttpServerWrapper>::instance()->setTimeoutCheckSleeps(1);  // a pass every 100 ms from now
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_TRUE(sink.deliveryOutcomes().empty());
    client.close(true);
    expectOneEnd(PROTOCOL_WRAPPER::DELIVERY_CLIENT_GONE);
}
