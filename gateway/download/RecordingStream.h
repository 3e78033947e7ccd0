// One opened download: the recording file and the thread that delivers it to
// the plug-in through IServer::Send as STREAM_INFO, STREAM_HEAD, the file in
// blocks, then STREAM_END. With loop delivery the file itself is handed to the
// plug-in after STREAM_HEAD (ext/DeliveryRequest.h): its HTTP server's event
// loop sends it, no thread of ours waits for the client, and the plug-in's
// callback says how it ended; a plug-in that refuses gets the blocks. The plug-in's Send blocks while the client is
// slow, so the socket paces the thread; a non-zero result means the client is gone, or (HPW_SEND_TIMEOUT) took nothing
// for the send time-out. A client that takes less than the minimum delivery rate, or a recording that cannot be read to
// its end, ends the download short (HPW_STREAM_ABORT): the plug-in then closes
// the connection rather than leave the client waiting for bytes that will not come.
#ifndef GATEWAY_RECORDING_STREAM_H
#define GATEWAY_RECORDING_STREAM_H

#include <ProtocolWrapper.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "base/GatewayStream.h"
#include "base/ServerLatch.h"
#include "download/BlockPool.h"
#include "download/DeliveryRate.h"
#include "base/WorkerThread.h"
#include "download/DownloadRange.h"
#include "base/GatewayMetrics.h"
#include "media/MediaLibrary.h"
#include "download/RequestOrigin.h"

class Logger;

// What a stream sends of the body (the stream head, then the file).
struct StreamPart {
    ServedPart part;        // the whole body unless a range was asked for
    bool reported = false;  // the request asked for a range: STREAM_INFO says what is served
    std::string entityTag;
    std::string asked;  // the range as the client asked for it, for the access log
};

struct DownloadSetup {
    uint64_t id = 0;
    std::string devIndex;
    Recording recording;
    RequestOrigin origin;
    int fd = -1;              // the recording's file, which the stream closes
    uint64_t fileLength = 0;  // the file's length when it was opened
    size_t blockSize = 0;
    StreamPart part;
    uint64_t minRate = 0;  // bytes per second the client must take, 0: no minimum
    int minRateSeconds = 30;
    bool loopDelivery = false;  // hand the file to the plug-in's event loop (see above)
};

class RecordingStream : public GatewayStream, public std::enable_shared_from_this<RecordingStream> {
public:
    // Takes over the setup's fd. Every block sent is counted in metrics as it goes; the
    // block the file is read into comes from blocks (of setup.blockSize bytes).
    RecordingStream(DownloadSetup setup, PROTOCOL_WRAPPER::IServerData* data, ServerLatch& server, BlockPool& blocks,
                    GatewayMetrics& metrics, Logger& log);
    ~RecordingStream() override;
    RecordingStream(const RecordingStream&) = delete;
    RecordingStream& operator=(const RecordingStream&) = delete;

    Kind kind() const override { return Kind::kDownload; }
    uint64_t id() const override { return m_setup.id; }
    const DownloadSetup& setup() const { return m_setup; }
    uint64_t fileLength() const { return m_setup.fileLength; }
    uint64_t bytesSent() const { return m_bytesSent; }
    // The bytes of the body this stream sends.
    uint64_t bodyLength() const { return m_slices.headLength + m_slices.fileLength; }
    double secondsOpen() const;

    // Takes the one block buffer the stream reads into; kNoMemory when memory is short.
    int prepare() override;
    // Starts the delivery once: sends the opening blocks at once when the server is known,
    // and starts the thread that sends the rest (it waits for the server to be known).
    int start() override;
    // Asks the delivery to stop and waits for its thread.
    void stop() override;
    // A download does not listen.
    int input(int, const void*, int) override { return -1; }
    // The gateway stops serving: the delivery ends at its next block without
    // waiting here, and ends as stopped, even when the plug-in closing the
    // connection meanwhile makes it look like a client that went away.
    void cutOff();
    // How the delivery ended, and in words for the log; meaningful after stop().
    DownloadOutcome outcome();
    std::string outcomeText();

private:
    // The delivery thread; openingSent: start() has sent STREAM_INFO and STREAM_HEAD already.
    void deliver(bool openingSent);
    // STREAM_INFO then STREAM_HEAD; false when the client is gone.
    bool sendOpening(PROTOCOL_WRAPPER::IServer* server);
    // The file in blocks, then STREAM_END; sets how the delivery ended.
    void deliverFile(PROTOCOL_WRAPPER::IServer* server);
    // One block of the file, in several Sends while the client is slow (see DeliveryRate.h); false
    // when the delivery ended (its outcome is set).
    bool sendFileBlock(PROTOCOL_WRAPPER::IServer* server, size_t length, DeliveryRate& rate);
    // Hands the file over (loop delivery); false when the plug-in refused it, and the blocks must go.
    bool handOver(PROTOCOL_WRAPPER::IServer* server);
    static void onDelivered(void* context, int outcome, uint64_t bytesSent);
    // The plug-in's result of Send (0: taken).
    int sendBlock(PROTOCOL_WRAPPER::IServer* server, int dataType, void* data, size_t length);
    void endShort(PROTOCOL_WRAPPER::IServer* server);
    // Logs why start() refused; the plug-in's code for it.
    int cannotStart();
    void setSendFailure(int result);
    void setOutcome(DownloadOutcome outcome, std::string text);

    const DownloadSetup m_setup;
    PROTOCOL_WRAPPER::IServerData* const m_data;  // the plug-in's session; valid until OnClose
    ServerLatch& m_server;
    GatewayMetrics& m_metrics;
    Logger& m_log;
    const BodySlices m_slices;
    const std::chrono::steady_clock::time_point m_opened;

    BlockPool& m_blocks;
    unsigned char* m_buffer = nullptr;  // a block of m_blocks; used by the delivery thread only, once started
    bool m_slowClient = false;          // the last Send took a second or more: the delivery thread's
    std::atomic<bool> m_stopRequested;
    std::atomic<uint64_t> m_bytesSent;
    std::mutex m_controlLock;  // guards m_thread and m_started; held while joining
    WorkerThread m_thread;
    bool m_started;
    std::mutex m_outcomeLock;  // separate: the delivery thread writes the outcome while stop() joins it
    DownloadOutcome m_outcome = DownloadOutcome::kNotStarted;
    std::string m_outcomeText = "not started";
    bool m_cutOff = false;  // under m_outcomeLock
    // A file the plug-in took: its callback, which stop() waits for, is still owed (under m_outcomeLock).
    bool m_deliveryOwed = false;
    std::condition_variable m_deliveryEnded;
};

#endif  // GATEWAY_RECORDING_STREAM_H
