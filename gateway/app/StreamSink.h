// The gateway's server sink: the plug-in opens, starts, stops and closes
// downloads and talks here, naming each by the handle OnOpen gave it. The
// plug-in calls OnStop and then OnClose from one of its worker threads when a
// download or a talk ends or its client goes away; after OnClose returns no
// Send for it follows. What a talk's client says comes in through OnInputData.
#ifndef GATEWAY_STREAM_SINK_H
#define GATEWAY_STREAM_SINK_H

#include <ProtocolWrapper.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include "base/GatewayStream.h"
#include "base/ServerLatch.h"
#include "download/BlockPool.h"
#include "download/RecordingStream.h"
#include "media/MediaCatalog.h"
#include "talk/TalkPacer.h"
#include "talk/TalkStream.h"

class AccessLog;
class GatewayMetrics;
class Logger;
class TalkDevices;

class StreamSink : public PROTOCOL_WRAPPER::IServerSink {
public:
    // Every download and talk is counted in metrics and, when ended, written to
    // the access log (none: not written). talks: the talking devices; without
    // them no talk opens.
    StreamSink(const MediaCatalog& catalog, size_t blockSize, GatewayMetrics& metrics, AccessLog* accessLog,
               Logger& log, TalkDevices* talks = nullptr);
    ~StreamSink() override;

    // Downloads opened from now on end when their client takes less than bytesPerSecond over
    // each window of seconds (0: no minimum, the default).
    void setMinimumRate(uint64_t bytesPerSecond, int seconds)
    {
        m_minRate = bytesPerSecond;
        m_minRateSeconds = seconds;
    }
    // Downloads opened from now on hand their file to the plug-in's event loop (RecordingStream.h).
    void setLoopDelivery(bool loop) { m_loopDelivery = loop; }
    // The server that CreateServer returned; deliveries wait for it.
    void attachServer(PROTOCOL_WRAPPER::IServer* server) { m_server.set(server); }
    int openStreamCount();
    int openTalkCount();
    // Stops and releases every stream the plug-in left open; for shutdown.
    void closeAll();
    // The server is about to stop: running downloads end as stopped (RecordingStream::cutOff).
    void cutOffDownloads();

    int OnOpen(const char* filterUrl, const char* mediaUrl, PROTOCOL_WRAPPER::IServerData* data,
               void** sessionHandle) override;
    int OnClose(void* sessionHandle) override;
    int pushStream(void* sessionHandle) override;
    int OnStart(void* sessionHandle, int reserved) override;
    int OnStop(void* sessionHandle, int reserved) override;
    int OnInputData(void* sessionHandle, int index, int dataType, void* data, int length) override;

private:
    int openStream(const char* filterUrl, const char* mediaUrl, PROTOCOL_WRAPPER::IServerData* data,
                   void** sessionHandle);
    int openDownload(const char* filterUrl, const char* mediaUrl, PROTOCOL_WRAPPER::IServerData* data,
                     void** sessionHandle);
    int openTalk(const char* filterUrl, const char* mediaUrl, PROTOCOL_WRAPPER::IServerData* data,
                 void** sessionHandle);
    void add(const std::shared_ptr<GatewayStream>& stream, void** sessionHandle);
    // The stream of a handle; null (and logged when operation is given) for one it does not know.
    std::shared_ptr<GatewayStream> find(void* sessionHandle, const char* operation);
    // Stops the stream and writes its end to metrics, the log and the access log.
    void release(const std::shared_ptr<GatewayStream>& stream, const char* why);
    void releaseDownload(RecordingStream& stream, const char* why);
    void logAccess(RecordingStream& stream);
    void releaseTalk(TalkStream& talk, const char* outcome);

    const MediaCatalog& m_catalog;
    const size_t m_blockSize;
    // Blocks of ended downloads kept for the next ones, up to this many bytes:
    // a burst of downloads maps the rest again, and unmaps it at its end.
    static constexpr size_t kKeptBlockBytes = 8 * 1024 * 1024;
    BlockPool m_blocks;
    GatewayMetrics& m_metrics;
    AccessLog* m_accessLog;
    Logger& m_log;
    ServerLatch m_server;
    std::atomic<uint64_t> m_nextId;
    // Paces every talk's device audio; declared before the streams, which leave it when they end.
    TalkPacer m_pacer;
    // Streams by handle. Shared, so an OnStop on one thread and an OnClose on
    // another never leave a thread joining a deleted stream.
    std::mutex m_lock;
    std::map<void*, std::shared_ptr<GatewayStream>> m_streams;
    TalkDevices* m_talks;
    uint64_t m_minRate = 0;  // set before the server starts
    int m_minRateSeconds = 30;
    bool m_loopDelivery = false;  // set before the server starts
};

#endif  // GATEWAY_STREAM_SINK_H
