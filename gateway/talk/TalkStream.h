// One talk as the gateway's device plays it: on start the stream header that
// names the codec, then the device's audio, looped and paced in real time (one
// packet per packet time, on the talk pacer's thread), through IServer::Send; what the client says comes
// in through OnInputData and goes to the capture file.
#ifndef GATEWAY_TALK_STREAM_H
#define GATEWAY_TALK_STREAM_H

#include <ProtocolWrapper.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "base/GatewayStream.h"
#include "base/ServerLatch.h"
#include "talk/TalkAudio.h"
#include "talk/SpeakingBudget.h"
#include "talk/TalkPacer.h"
#include "talk/WavFile.h"

class GatewayMetrics;
class Logger;

struct TalkStreamSetup {
    uint64_t id = 0;
    std::string devIndex;
    int channel = 0;
    int httpPort = 0;    // with the channel, the plug-in's key of the talk
    std::string client;  // the client's address as the plug-in forwarded it; may be empty
    std::string user;    // who opened the talk, and so owns it
    const TalkCodec* codec = nullptr;
    std::shared_ptr<const std::string> audio;  // the device's audio in its codec
    std::string capturePath;                   // empty: what the client says is not kept
};

class TalkStream : public GatewayStream {
public:
    // Audio bytes each way are counted in metrics as they pass.
    TalkStream(TalkStreamSetup setup, PROTOCOL_WRAPPER::IServerData* data, ServerLatch& server, TalkPacer& pacer,
               GatewayMetrics& metrics, Logger& log);
    ~TalkStream() override;
    TalkStream(const TalkStream&) = delete;
    TalkStream& operator=(const TalkStream&) = delete;

    Kind kind() const override { return Kind::kTalk; }
    uint64_t id() const override { return m_setup.id; }
    const TalkStreamSetup& setup() const { return m_setup; }
    uint64_t bytesToClient() const { return m_bytesToClient; }
    uint64_t bytesFromClient() const { return m_bytesFromClient; }
    double secondsOpen() const;

    // Opens the capture file; kInternalError (and logged) when it cannot be written.
    int prepare() override;
    // Starts the device's audio once; it is heard once the server is known.
    int start() override;
    // Stops the audio (a packet being sent is waited for), then closes the capture.
    void stop() override;
    // What the client said (STREAM_DATA); kept in order of arrival.
    int input(int dataType, const void* data, int length) override;
    // The talk's log line: device, channel, client, user, codec, seconds, bytes
    // each way, outcome.
    std::string summary(const char* outcome);

private:
    // The next packet of the device's audio; on the pacer's thread.
    void sendPacket();
    // The STREAM_INFO header naming the codec; the first thing the talk sends.
    void announceCodec(PROTOCOL_WRAPPER::IServer* server);

    const TalkStreamSetup m_setup;
    PROTOCOL_WRAPPER::IServerData* const m_data;  // the plug-in's talk; valid until OnClose
    ServerLatch& m_server;
    TalkPacer& m_pacer;
    GatewayMetrics& m_metrics;
    Logger& m_log;
    const std::chrono::steady_clock::time_point m_opened;
    std::atomic<uint64_t> m_bytesToClient{0};
    std::atomic<uint64_t> m_bytesFromClient{0};

    std::mutex m_captureLock;  // input arrives on the plug-in's completion threads
    CaptureFile m_capture;
    bool m_captureFailed = false;
    bool m_captureDropped = false;  // nothing was said: the empty file is gone
    SpeakingBudget m_budget;

    std::mutex m_controlLock;  // guards the start and the stop request
    bool m_stopRequested = false;
    bool m_started = false;
    // Written by start before the talk is paced, then only on the pacer's thread.
    bool m_codecAnnounced = false;
    std::string m_block = std::string(static_cast<size_t>(m_setup.codec->packetBytes), '\0');
    size_t m_offset = 0;
};

#endif  // GATEWAY_TALK_STREAM_H
