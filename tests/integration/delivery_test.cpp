// Downloads whose gateway hands the file over (ext/DeliveryRequest.h): the same bytes on the wire as
// block-by-block delivery, the fallback when the plug-in refuses, and exactly one callback, before OnStop,
// whichever way the download ends.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <ext/DeliveryRequest.h>

#include "PluginFixture.h"
#include "ProcessResources.h"
#include "frame/ErrorCodes.h"
#include "frame/HttpServerWrapper.h"
#include "session/HttpSessionMgr.h"

using HttpWrapper::CHttpServerWrapper;
using HttpWrapper::CHttpSessionMgr;
using HttpWrapper::singleton;

namespace {

class Delivery : public PluginFixture {
protected:
    void SetUp() override
    {
        PluginFixture::SetUp();
        sink.deliverFiles = true;
    }

    std::string lengthHead(unsigned long long size)
    {
        return "HTTP/1.1 200 OK\r\nContent-Type: application/binary\r\nContent-Length: " + std::to_string(size + 40) +
               "\r\nConnection: close\r\n\r\n" + sink.streamHead;
    }

    // One callback with this outcome, none out of order, and nothing left open.
    void expectOneEnd(int outcome)
    {
        EXPECT_TRUE(waitIdle());
        EXPECT_EQ(sink.deliveryOutcomes(), std::vector<int>{outcome});
        EXPECT_EQ(sink.deliveryOrderFaults, 0);
    }

    // A download far larger than the socket buffers, from a client that reads only its first bytes.
    void startLargeDownload(RawHttpClient& client, int receiveBuffer = 4096)
    {
        sink.recordingSize = 32ull * 1024 * 1024;
        ASSERT_TRUE(client.connectTo(port, receiveBuffer));
        ASSERT_TRUE(client.send(jsonDownload("&name=big")));
        EXPECT_EQ(client.receiveSome(15, 5000), "HTTP/1.1 200 OK");
        ASSERT_TRUE(eventually([&] { return sink.lastDeliveryAnswer == 0; }));
    }
};

class StrictDelivery : public Delivery {
protected:
    StrictDelivery() { serverParams += "&strictSendTimeout=1&sendTimeout=300"; }
};

class SendfileDelivery : public Delivery {
protected:
    SendfileDelivery() { serverParams += "&sendfile=1"; }
};

}  // namespace

TEST_F(Delivery, ATakenFileArrivesAsTheBlocksWouldHaveWithBothFramings)
{
    const int descriptors = testsupport::openDescriptorCount();
    for (size_t size : {1, 3 * 65536 + 17}) {
        sink.recordingSize = size;
        RawResponse response = exchange(jsonDownload("&name=rec&size=" + std::to_string(size)), 20000);
        EXPECT_TRUE(eventually([&] { return sink.lastDeliveryAnswer == 0; }));  // the bytes may beat SendMSG's return
        EXPECT_TRUE(response.raw == lengthHead(size) + FakeServerSink::recordingBytes(0, size)) << size;
        EXPECT_TRUE(waitIdle());
        EXPECT_EQ(sink.lastDeliveredBytes, size);
    }
    // Chunked: one chunk per gateway block, as Send of blocks makes them.
    sink.blockSize = 300;
    sink.recordingSize = 1000;
    RawResponse response = exchange(jsonDownload(""));
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
    EXPECT_EQ(sink.deliveryOutcomes(), std::vector<int>(3, PROTOCOL_WRAPPER::DELIVERY_COMPLETE));
    EXPECT_EQ(sink.deliveryOrderFaults, 0);
    // A finished connection lingers until its client closes; then nothing of the downloads is left.
    EXPECT_TRUE(eventually([&] { return testsupport::openDescriptorCount() == descriptors; }, 3000))
        << "a file's descriptor outlived its download";
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

TEST_F(Delivery, AClientThatHangsUpEndsTheDeliveryOnce)
{
    RawHttpClient client(port);
    startLargeDownload(client);
    client.close(true);
    expectOneEnd(PROTOCOL_WRAPPER::DELIVERY_CLIENT_GONE);
    EXPECT_LT(sink.lastDeliveredBytes, sink.recordingSize);
}

TEST_F(StrictDelivery, AClientThatReadsNothingEndsAtTheSendTimeOut)
{
    RawHttpClient client(port);
    const auto start = std::chrono::steady_clock::now();
    startLargeDownload(client);
    expectOneEnd(PROTOCOL_WRAPPER::DELIVERY_SEND_TIMEOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(client.waitForClose(1000));
}

TEST_F(Delivery, AClientUnderTheMinimumRateIsEnded)
{
    sink.minRate = 64 * 1024 * 1024;
    sink.minRateSeconds = 1;
    RawHttpClient client(port);
    startLargeDownload(client);
    expectOneEnd(PROTOCOL_WRAPPER::DELIVERY_TOO_SLOW);
}

TEST_F(Delivery, StoppingTheServerMidDownloadEndsTheDeliveryOnceBeforeTheStreamStops)
{
    RawHttpClient client(port);
    startLargeDownload(client);
    const auto start = std::chrono::steady_clock::now();
    singleton<CHttpServerWrapper>::instance()->stopServer();
    singleton<CHttpServerWrapper>::free();
    server = nullptr;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_TRUE(eventually([&] { return sink.openStreams() == 0; }));
    EXPECT_EQ(sink.deliveryOutcomes(), std::vector<int>{PROTOCOL_WRAPPER::DELIVERY_STOPPED});
    EXPECT_EQ(sink.deliveryOrderFaults, 0);
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
