// The server sink's delivery against a fake plug-in server that records every
// Send: the order and bytes of a download, and that nothing is sent once the
// plug-in has closed the stream.
#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include <unistd.h>

#include <ext/DeliveryRequest.h>

#include "ops/AccessLog.h"
#include "download/DownloadResolver.h"
#include "base/GatewayMetrics.h"
#include "download/StreamBlocks.h"
#include "app/StreamSink.h"
#include "media_fixture.h"

namespace {

const std::string kCamera = "0a1b2c3d-0000-4000-8000-00000000c0de";

class RecordingServer : public PROTOCOL_WRAPPER::IServer {
public:
    int Start() override { return 0; }
    int Stop() override { return 0; }
    int SendMSG(PROTOCOL_WRAPPER::IServerData*, int, void*, int) override { return 0; }
    int Send(PROTOCOL_WRAPPER::IServerData* data, int index, int dataType, void* buffer, int length) override
    {
        std::this_thread::sleep_for(delayPerSend);
        if (connectionsClosed) {
            return -1;  // as the plug-in answers once the client's connection is gone
        }
        std::lock_guard<std::mutex> guard(lock);
        types.push_back(dataType);
        if (dataType == PROTOCOL_WRAPPER::STREAM_INFO) {
            info.assign(static_cast<char*>(buffer), length);
        } else if (dataType != PROTOCOL_WRAPPER::STREAM_END) {
            body.append(static_cast<char*>(buffer), length);
        }
        sendsAfterClose += closed ? 1 : 0;
        return 0;
    }
    std::vector<int> sentTypes()
    {
        std::lock_guard<std::mutex> guard(lock);
        return types;
    }

    std::mutex lock;
    std::vector<int> types;
    std::string info, body;
    std::atomic<bool> closed{false};
    std::atomic<bool> connectionsClosed{false};
    int sendsAfterClose = 0;
    std::chrono::milliseconds delayPerSend{0};
};

// A plug-in that takes delivery requests (or refuses them with a module error code) and reports each
// taken file's end from a thread of its own, after `callbackDelay`.
class FileTakingServer : public RecordingServer {
public:
    ~FileTakingServer() override
    {
        for (std::thread& thread : callbacks) {
            thread.join();
        }
    }
    int SendMSG(PROTOCOL_WRAPPER::IServerData*, int type, void* buffer, int length) override
    {
        if (type != PROTOCOL_WRAPPER::MSG_DELIVER_FILE || length != sizeof(PROTOCOL_WRAPPER::DeliveryRequest)) {
            return 0;
        }
        if (refuse) {
            return 0x1930F44;
        }
        const auto request = *static_cast<PROTOCOL_WRAPPER::DeliveryRequest*>(buffer);
        taken = request;
        file.assign(request.length, '\0');
        EXPECT_EQ(pread(request.fd, &file[0], request.length, static_cast<off_t>(request.offset)),
                  static_cast<ssize_t>(request.length));
        callbacks.emplace_back([this, request] {
            std::this_thread::sleep_for(callbackDelay);
            request.onDone(request.context, outcome, bytesReported);
        });
        return 0;
    }

    bool refuse = false;
    int outcome = PROTOCOL_WRAPPER::DELIVERY_COMPLETE;
    uint64_t bytesReported = 0;
    std::chrono::milliseconds callbackDelay{0};
    PROTOCOL_WRAPPER::DeliveryRequest taken{};
    std::string file;  // what the request's descriptor read
    std::vector<std::thread> callbacks;
};

class SessionData : public PROTOCOL_WRAPPER::IServerData {};

class StreamSinkTest : public MediaFixture {
protected:
    void SetUp() override
    {
        MediaFixture::SetUp();
        content.resize(10000);
        for (size_t i = 0; i < content.size(); ++i) {
            content[i] = static_cast<char>(i * 7);
        }
        addDevice(device(kCamera, 554),
                  R"({"recordings":[{"name":"r.bin","starttime":"20260101T000000Z","endtime":"20260101T010000Z"}]})",
                  {{"r.bin", content}});
        std::string error;
        auto library = std::make_shared<MediaLibrary>();
        ASSERT_TRUE(library->load(folder, devices, log, error)) << error;
        mediaUrl = makeMediaUrl(library->devices()[0], library->devices()[0].recordings[0]);
        catalog.replace(library);
    }

    void* openAndStart(StreamSink& sink, const std::string& filterUrl = "rtsp://h/download")
    {
        void* handle = nullptr;
        EXPECT_EQ(sink.OnOpen(filterUrl.c_str(), mediaUrl.c_str(), &session, &handle), 0);
        EXPECT_EQ(sink.pushStream(handle), 0);
        EXPECT_EQ(sink.OnStart(handle, 0), 0);
        return handle;
    }

    // The access log's only line, once the log is closed.
    Json::Value accessLine(AccessLog& accessLog)
    {
        accessLog.close();
        Json::Value line;
        std::ifstream file(folder + "/access.log");
        EXPECT_TRUE(Json::Reader().parse(file, line));
        return line;
    }

    bool waitForSends(RecordingServer& server, size_t count)
    {
        for (int i = 0; i < 500 && server.sentTypes().size() < count; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return server.sentTypes().size() >= count;
    }

    std::string content;
    std::string mediaUrl;
    MediaCatalog catalog;
    SessionData session;
    GatewayMetrics metrics;
};

}  // namespace

TEST_F(StreamSinkTest, DeliversInfoHeadBlocksAndEndWithTheFileBytes)
{
    RecordingServer server;
    AccessLog accessLog(metrics, log);
    std::string error;
    ASSERT_TRUE(accessLog.open(folder + "/access.log", AccessLogFormat::kJson, error)) << error;
    StreamSink sink(catalog, 4096, metrics, &accessLog, log);
    sink.attachServer(&server);
    // The user and client the filter verified reach the access log, however odd the name.
    void* handle = openAndStart(sink, makeFilterUrl("rtsp://h/download?x=1", RequestOrigin{"2001:db8::1", "a&b#c%"}));
    // 10000 bytes in 4096-byte blocks: info, head, three blocks, end.
    ASSERT_TRUE(waitForSends(server, 6));
    EXPECT_EQ(server.sentTypes(), (std::vector<int>{10, 1, 2, 2, 2, 100}));
    ASSERT_EQ(server.info.size(), kStreamInfoSize);
    EXPECT_EQ(StreamBlock::readFileLength(server.info.data()), content.size());
    ASSERT_EQ(server.body.size(), kStreamHeadSize + content.size());
    EXPECT_EQ(server.body.compare(0, 4, "MGRH"), 0);
    EXPECT_EQ(server.body.substr(kStreamHeadSize), content);

    EXPECT_EQ(sink.OnStop(handle, 0), 0);
    EXPECT_EQ(sink.OnClose(handle), 0);
    EXPECT_EQ(metrics.openDownloads(), 0);
    EXPECT_EQ(metrics.downloadsStarted(), 1u);
    EXPECT_EQ(metrics.downloadsFinished(DownloadOutcome::kComplete), 1u);
    EXPECT_EQ(metrics.sentBytes(), kStreamHeadSize + content.size());
    const Json::Value line = accessLine(accessLog);
    EXPECT_EQ(line["client"].asString() + " " + line["user"].asString() + " " + line["device"].asString() + " " +
                  line["recording"].asString() + " " + line["outcome"].asString(),
              "2001:db8::1 a&b#c% " + kCamera + " r.bin complete");
    EXPECT_EQ(line["bytesSent"].asUInt64(), kStreamHeadSize + content.size());
}

TEST_F(StreamSinkTest, NoSendAfterOnCloseReturnsMidStream)
{
    RecordingServer server;
    server.delayPerSend = std::chrono::milliseconds(5);
    StreamSink sink(catalog, 1024, metrics, nullptr, log);
    void* handle = openAndStart(sink);
    sink.attachServer(&server);  // late, as when a request beats CreateServer's return
    ASSERT_TRUE(waitForSends(server, 3));
    EXPECT_EQ(sink.OnStop(handle, 0), 0);
    EXPECT_EQ(sink.OnClose(handle), 0);
    server.closed = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(server.sendsAfterClose, 0);
    EXPECT_LT(server.sentTypes().size(), 12u) << "delivery ended early";
    EXPECT_EQ(sink.openStreamCount(), 0);
}

// When the gateway stops, the plug-in closes the connections of the downloads
// still running, which the delivery sees as clients that went away; they were
// stopped. A client that leaves on its own still counts as gone.
TEST_F(StreamSinkTest, DownloadsCutOffByTheStopCountAsStopped)
{
    RecordingServer server;
    server.delayPerSend = std::chrono::milliseconds(5);
    StreamSink sink(catalog, 1024, metrics, nullptr, log);
    sink.attachServer(&server);
    void* handle = openAndStart(sink);
    ASSERT_TRUE(waitForSends(server, 3));
    sink.cutOffDownloads();
    server.connectionsClosed = true;
    EXPECT_EQ(sink.OnStop(handle, 0), 0);
    EXPECT_EQ(sink.OnClose(handle), 0);
    EXPECT_EQ(metrics.downloadsFinished(DownloadOutcome::kStopped), 1u);
    EXPECT_EQ(metrics.downloadsFinished(DownloadOutcome::kClientGone), 0u);

    server.connectionsClosed = false;
    const size_t sent = server.sentTypes().size();
    handle = openAndStart(sink);
    ASSERT_TRUE(waitForSends(server, sent + 3));
    server.connectionsClosed = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the delivery meets the closed connection
    EXPECT_EQ(sink.OnStop(handle, 0), 0);
    EXPECT_EQ(sink.OnClose(handle), 0);
    EXPECT_EQ(metrics.downloadsFinished(DownloadOutcome::kClientGone), 1u);
}

TEST_F(StreamSinkTest, RefusesUnknownHandlesAndMediaWithoutCrashing)
{
    StreamSink sink(catalog, 1024, metrics, nullptr, log);
    int unknown = 0;
    void* handle = nullptr;
    EXPECT_NE(sink.OnOpen("f", "recording://nope/r.bin", &session, &handle), 0);
    EXPECT_NE(sink.OnOpen("f", mediaUrl.c_str(), nullptr, &handle), 0);
    EXPECT_NE(sink.pushStream(&unknown), 0);
    EXPECT_NE(sink.OnStart(&unknown, 0), 0);
    EXPECT_NE(sink.OnStop(&unknown, 0), 0);
    EXPECT_NE(sink.OnClose(&unknown), 0);
    EXPECT_EQ(metrics.downloadsStarted(), 0u);

    ASSERT_EQ(sink.OnOpen("f", mediaUrl.c_str(), &session, &handle), 0);
    EXPECT_NE(sink.OnStart(handle, 0), 0) << "a stream starts only after pushStream";
    EXPECT_EQ(sink.OnClose(handle), 0);
}

TEST_F(StreamSinkTest, LoopDeliveryHandsTheFileOverAndCountsWhatThePluginReports)
{
    FileTakingServer server;
    server.bytesReported = content.size();
    AccessLog accessLog(metrics, log);
    std::string error;
    ASSERT_TRUE(accessLog.open(folder + "/access.log", AccessLogFormat::kJson, error)) << error;
    StreamSink sink(catalog, 4096, metrics, &accessLog, log);
    sink.setLoopDelivery(true);
    sink.attachServer(&server);
    void* handle = openAndStart(sink);
    // The head goes through Send on the caller's thread; the file is the plug-in's.
    EXPECT_EQ(server.sentTypes(), (std::vector<int>{10, 1}));
    EXPECT_EQ(server.taken.offset, 0u);
    EXPECT_EQ(server.taken.length, content.size());
    EXPECT_EQ(server.taken.blockSize, 4096u);
    EXPECT_EQ(server.file, content);
    EXPECT_EQ(sink.OnStop(handle, 0), 0);
    EXPECT_EQ(sink.OnClose(handle), 0);
    EXPECT_EQ(metrics.downloadsFinished(DownloadOutcome::kComplete), 1u);
    EXPECT_EQ(metrics.sentBytes(), kStreamHeadSize + content.size());
    EXPECT_EQ(metrics.openDownloads(), 0);
    const Json::Value line = accessLine(accessLog);
    EXPECT_EQ(line["outcome"].asString(), "complete");
    EXPECT_EQ(line["bytesSent"].asUInt64(), kStreamHeadSize + content.size());
}

TEST_F(StreamSinkTest, LoopDeliveryWaitsForALateCallbackAndFallsBackToBlocksWhenRefused)
{
    {
        // A stop from elsewhere than the plug-in (shutdown's closeAll) waits for the plug-in's word.
        FileTakingServer server;
        server.outcome = PROTOCOL_WRAPPER::DELIVERY_CLIENT_GONE;
        server.bytesReported = 1234;
        server.callbackDelay = std::chrono::milliseconds(200);
        StreamSink sink(catalog, 4096, metrics, nullptr, log);
        sink.setLoopDelivery(true);
        sink.attachServer(&server);
        openAndStart(sink);
        sink.closeAll();
        EXPECT_EQ(metrics.downloadsFinished(DownloadOutcome::kClientGone), 1u);
        EXPECT_EQ(metrics.sentBytes(), kStreamHeadSize + 1234);
    }
    FileTakingServer server;
    server.refuse = true;
    StreamSink sink(catalog, 4096, metrics, nullptr, log);
    sink.setLoopDelivery(true);
    sink.attachServer(&server);
    void* handle = openAndStart(sink);
    ASSERT_TRUE(waitForSends(server, 6));
    EXPECT_EQ(server.sentTypes(), (std::vector<int>{10, 1, 2, 2, 2, 100}));
    EXPECT_EQ(server.body.substr(kStreamHeadSize), content);
    EXPECT_EQ(sink.OnStop(handle, 0), 0);
    EXPECT_EQ(sink.OnClose(handle), 0);
    EXPECT_EQ(metrics.downloadsFinished(DownloadOutcome::kComplete), 1u);
}
