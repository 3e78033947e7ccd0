// A gateway in miniature for the plug-in's tests: a utility sink that answers
// from a map of settings, a filter chain that records every RTSP request and
// may refuse it, and a server sink that delivers a generated recording on its
// own thread, as a real gateway does, and plays a talking device: it sends
// device audio to a talk and records what the client says.
#ifndef TESTS_SUPPORT_FAKEGATEWAY_H
#define TESTS_SUPPORT_FAKEGATEWAY_H

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <HttpProtocolWrapper.h>
#include <ext/DownloadSendCodes.h>
#include <ext/StreamBlockLayout.h>

// The gateway's settings and log output. Header-only: the host's test, which
// loads the plug-in as a library, uses it too.
class TestUtilitySink : public IProtocolWrapperUtilitySink {
public:
    const char* GetGatewayName() override { return "test-gateway"; }
    int GetConfigValue(const std::string& key, std::string& value) override
    {
        return config.count(key) != 0 ? (value = config[key], 0) : -1;
    }
    int SetConfigValue(const std::string& key, const std::string& value) override { return config[key] = value, 0; }
    int GetLogLevel() override { return 2; }
    void OutputLog(int, const char*, const char*) override { ++lines; }

    std::map<std::string, std::string> config;
    std::atomic<int> lines{0};  // forwarded log lines
};

// Polls the condition until it holds (true) or timeoutMs pass (false).
bool eventually(const std::function<bool()>& condition, int timeoutMs = 10000);

// The RTSP request as the filter chain saw it.
struct SeenRequest {
    std::string method, url, name, version;
    std::vector<std::pair<std::string, std::string>> heads;
    bool needAuth = false;
};

class FakeFilterChain : public PROTOCOL_FILTER::IProtocolFilter {
public:
    static const int kTalkAccepted = 0x1930844;  // the gateway's answer to an accepted talk request

    int Request(PROTOCOL_FILTER::IProtocolRequest* request, int flags,
                PROTOCOL_FILTER::IConnectContext* context) override;
    int Response(PROTOCOL_FILTER::IProtocolResponse*, int, PROTOCOL_FILTER::IConnectContext*) override { return 0; }

    std::vector<SeenRequest> seen();

    // What a download request is answered; a talk request (".../TwoWayAudio/...")
    // is answered talkResult, a talk's DESCRIBE (".../dac/talk/...", media URL
    // "fake://talk") describeResult. A refusal sets statusOnRefusal.
    std::atomic<int> result{0};
    std::atomic<int> talkResult{kTalkAccepted};
    std::atomic<int> describeResult{0};
    std::atomic<int> statusOnRefusal{0};

private:
    std::mutex m_lock;
    std::vector<SeenRequest> m_seen;
};

// Delivers a recording of recordingSize bytes (recordingBytes) for every
// opened download stream: STREAM_INFO with the length, the 40-byte stream
// head, the data in blocks, STREAM_END.
class FakeServerSink : public PROTOCOL_WRAPPER::IServerSink {
public:
    void setServer(PROTOCOL_WRAPPER::IServer* server) { m_server = server; }

    int OnOpen(const char* filterUrl, const char* mediaUrl, PROTOCOL_WRAPPER::IServerData* data,
               void** sessionHandle) override;
    int OnClose(void* sessionHandle) override;
    int pushStream(void*) override { return pushResult; }
    int OnStart(void* sessionHandle, int reserved) override;
    int OnStop(void* sessionHandle, int reserved) override;
    int OnInputData(void* sessionHandle, int index, int dataType, void* data, int length) override;

    int openStreams() const { return m_open; }
    int opened() const { return m_opened; }

    static std::string recordingBytes(unsigned long long offset, size_t length);
    unsigned long long recordingSize = 0;
    const std::string streamHead = std::string(StreamBlock::kHeadSize, 'H');
    size_t blockSize = 64 * 1024;
    std::atomic<int> openResult{0};
    std::atomic<int> pushResult{0};
    std::atomic<bool> silent{false};  // accepts the stream, then sends nothing at all
    // After this many bytes of data, ends the download short (HPW_STREAM_ABORT); -1: never.
    std::atomic<long long> abortAfter{-1};
    std::atomic<int> lastDeliveryResult{0};  // Send's result that ended the last delivery (0: it ran to its end)

    // Hands the recording over as a file (ext/DeliveryRequest.h) after the stream head instead of sending
    // blocks; when the plug-in refuses, sends the blocks as before. badRequest: a request it must refuse.
    std::atomic<bool> deliverFiles{false};
    std::atomic<bool> badRequest{false};
    uint32_t minRate = 0;
    uint32_t minRateSeconds = 0;
    std::atomic<int> lastDeliveryAnswer{-1};  // SendMSG's answer to the last request
    // Each delivery's callbacks, in order; and callbacks that came after OnStop or never came before OnClose.
    std::vector<int> deliveryOutcomes();
    std::atomic<uint64_t> lastDeliveredBytes{0};
    std::atomic<int> deliveryOrderFaults{0};

    // A talk stream first gets the stream header naming talkCodec, then
    // talkAudioBytes of deviceAudio in 160-byte packets, one every
    // talkPacketIntervalMs, from one reused buffer, as a real gateway's.
    // Each packet is held until the talk takes it (a client listens), so that a
    // test can check the audio byte-exact; a live device would drop it.
    std::string talkCodec = "PCMU";
    size_t talkAudioBytes = 0;
    int talkPacketIntervalMs = 0;
    static const int kBacklogRefused = -180;          // Send's answer when the backlog limit refuses a packet
    std::atomic<int> talkPacketsRefusedByBacklog{0};  // refused packets; each is sent again
    static std::string deviceAudio(size_t length, size_t offset = 0)
    {
        return recordingBytes(offset + 1000003, length);  // differs in every byte from a recording
    }

    // What the talks' clients said, as handed to OnInputData, all talks together.
    std::string clientAudio();
    std::vector<int> clientPacketSizes();
    bool waitForClientAudio(size_t bytes)
    {
        return eventually([&] { return clientAudio().size() >= bytes; });
    }
    int talkStreamsOpen() const { return m_talksOpen; }

private:
    struct Stream;
    void deliver(Stream* stream);
    // The file of the recording, handed over; false when the plug-in refused it.
    bool handOver(Stream* stream);
    static void onDelivered(void* context, int outcome, uint64_t bytes);
    void speak(Stream* stream);

    PROTOCOL_WRAPPER::IServer* m_server = nullptr;
    std::atomic<int> m_open{0}, m_opened{0}, m_talksOpen{0};
    std::mutex m_inputLock;
    std::string m_clientAudio;
    std::vector<int> m_deliveryOutcomes;  // under m_inputLock
    std::vector<int> m_clientPackets;
};

#endif  // TESTS_SUPPORT_FAKEGATEWAY_H
