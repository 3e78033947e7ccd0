#include "app/StreamSink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>

#include "ops/AccessLog.h"
#include "download/DownloadResolver.h"
#include "base/GatewayMetrics.h"
#include "base/Logger.h"
#include "base/RegularFile.h"
#include "base/RestErrors.h"
#include "download/StreamBlocks.h"
#include "talk/TalkDevices.h"

namespace {

const char* text(const char* value)
{
    return value ? value : "";
}

}  // namespace

StreamSink::StreamSink(const MediaCatalog& catalog, size_t blockSize, GatewayMetrics& metrics, AccessLog* accessLog,
                       Logger& log, TalkDevices* talks)
    : m_catalog(catalog),
      m_blockSize(blockSize),
      m_blocks(blockSize, std::max<size_t>(1, kKeptBlockBytes / blockSize)),
      m_metrics(metrics),
      m_accessLog(accessLog),
      m_log(log),
      m_nextId(1),
      m_talks(talks)
{
}

StreamSink::~StreamSink()
{
    closeAll();
}

namespace {

int countOf(const std::map<void*, std::shared_ptr<GatewayStream>>& streams, GatewayStream::Kind kind)
{
    return static_cast<int>(std::count_if(streams.begin(), streams.end(),
                                          [kind](const auto& entry) { return entry.second->kind() == kind; }));
}

}  // namespace

int StreamSink::openStreamCount()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return countOf(m_streams, GatewayStream::Kind::kDownload);
}

int StreamSink::openTalkCount()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return countOf(m_streams, GatewayStream::Kind::kTalk);
}

void StreamSink::closeAll()
{
    std::map<void*, std::shared_ptr<GatewayStream>> streams;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        streams.swap(m_streams);
    }
    // Downloads first, then talks, as the log has always shown them.
    for (const GatewayStream::Kind kind : {GatewayStream::Kind::kDownload, GatewayStream::Kind::kTalk}) {
        for (auto& entry : streams) {
            if (entry.second->kind() == kind) {
                release(entry.second, "left open by the plug-in at shutdown");
            }
        }
    }
}

void StreamSink::cutOffDownloads()
{
    std::lock_guard<std::mutex> guard(m_lock);
    for (auto& entry : m_streams) {
        if (entry.second->kind() == GatewayStream::Kind::kDownload) {
            static_cast<RecordingStream&>(*entry.second).cutOff();
        }
    }
}

int StreamSink::OnOpen(const char* filterUrl, const char* mediaUrl, PROTOCOL_WRAPPER::IServerData* data,
                       void** sessionHandle)
{
    // Nothing may be thrown into the plug-in.
    try {
        return openStream(filterUrl, mediaUrl, data, sessionHandle);
    } catch (const std::bad_alloc&) {
        m_log.logf(kLogError, "OnOpen %s: out of memory", text(mediaUrl));
        return RestError::kNoMemory;
    }
}

int StreamSink::openStream(const char* filterUrl, const char* mediaUrl, PROTOCOL_WRAPPER::IServerData* data,
                           void** sessionHandle)
{
    if (!data || !sessionHandle) {
        m_log.logf(kLogError, "OnOpen %s: called without session data or handle", text(mediaUrl));
        return RestError::kInternalError;
    }
    if (talkChannelOfMediaUrl(text(mediaUrl)) != 0) {
        return openTalk(filterUrl, mediaUrl, data, sessionHandle);
    }
    return openDownload(filterUrl, mediaUrl, data, sessionHandle);
}

int StreamSink::openDownload(const char* filterUrl, const char* mediaUrl, PROTOCOL_WRAPPER::IServerData* data,
                             void** sessionHandle)
{
    // Held while the stream is set up: a reload may replace the library meanwhile.
    const std::shared_ptr<const MediaLibrary> library = m_catalog.current();
    const DeviceMedia* device = nullptr;
    std::string rangeHead;
    const Recording* recording = findByMediaUrl(*library, text(mediaUrl), &rangeHead, &device);
    if (!recording) {
        m_log.logf(kLogError, "OnOpen: \"%s\" names no recording", text(mediaUrl));
        return RestError::kInternalError;
    }
    // The name is a plain file name, and the file itself must be there: never
    // a link that leads out of the device folder, nor a FIFO that would hold
    // this thread in open().
    std::string problem;
    const int fd = openRegularFile(recording->path, FileLinks::kRefused, problem);
    struct stat info;
    if (fd < 0 || fstat(fd, &info) != 0) {
        m_log.logf(kLogError, "OnOpen: %s", fd < 0 ? problem.c_str() : strerror(errno));
        if (fd >= 0) {
            close(fd);
        }
        return RestError::kNoRecord;
    }
    DownloadSetup setup;
    setup.id = m_nextId++;
    setup.devIndex = device->device.devIndex;
    setup.recording = *recording;
    setup.origin = originOfFilterUrl(text(filterUrl));
    setup.fd = fd;
    setup.fileLength = static_cast<uint64_t>(info.st_size);
    setup.blockSize = m_blockSize;
    setup.minRate = m_minRate;
    setup.minRateSeconds = m_minRateSeconds;
    setup.loopDelivery = m_loopDelivery;
    if (setup.fileLength != recording->size) {
        m_log.logf(kLogWarn, "%s changed since it was indexed: %llu bytes now, %llu indexed", recording->path.c_str(),
                   static_cast<unsigned long long>(setup.fileLength), static_cast<unsigned long long>(recording->size));
    }
    // A range is resolved against the file as it was opened, the version its tag names.
    std::string rangeNote;
    DownloadRange range;
    if (!rangeHead.empty() && parseDownloadRange(rangeHead, range)) {
        const uint64_t bodyLength = setup.fileLength + kStreamHeadSize;
        const auto head =
            buildStreamHead(setup.fileLength, recording->start, recording->end, static_cast<uint32_t>(m_blockSize));
        const int64_t modifiedNs = static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
        setup.part.entityTag = entityTagOf(setup.fileLength, modifiedNs, head.data(), head.size());
        setup.part.part = resolveRange(range, bodyLength, setup.part.entityTag);
        setup.part.reported = true;
        setup.part.asked = rangeHead.substr(0, rangeHead.find(';'));
        rangeNote = ", range " + rangeHead + ": " + describeServed(setup.part.part, bodyLength);
    } else if (!rangeHead.empty()) {
        m_log.logf(kLogWarn, "%s: range \"%s\" is not one the plug-in writes; the whole body is sent",
                   recording->path.c_str(), rangeHead.c_str());
    }
    auto stream = std::make_shared<RecordingStream>(std::move(setup), data, m_server, m_blocks, m_metrics, m_log);
    add(stream, sessionHandle);
    m_metrics.downloadStarted();
    m_log.logf(kLogInfo, "stream %llu opened: %s (%llu bytes)%s for %s", static_cast<unsigned long long>(stream->id()),
               recording->path.c_str(), static_cast<unsigned long long>(stream->fileLength()), rangeNote.c_str(),
               text(filterUrl));
    return 0;
}

int StreamSink::openTalk(const char* filterUrl, const char* mediaUrl, PROTOCOL_WRAPPER::IServerData* data,
                         void** sessionHandle)
{
    const int channel = talkChannelOfMediaUrl(text(mediaUrl));
    // Held while the talk is set up: a reload may replace the set meanwhile.
    const std::shared_ptr<const TalkDeviceSet> devices = m_talks != nullptr ? m_talks->current() : nullptr;
    const TalkDevice* device = devices != nullptr ? devices->byChannel(channel) : nullptr;
    if (device == nullptr) {
        m_log.logf(kLogError, "OnOpen: \"%s\" names no talking device", text(mediaUrl));
        return RestError::kInternalError;
    }
    // The talk belongs to whoever opened it: the open the filter accepted for
    // this key, which must be waiting.
    TalkKey key;
    TalkRequester requester;
    if (!talkKeyOfDescribe(text(filterUrl), key) || key.first != channel || !m_talks->owners().opened(key, requester)) {
        m_log.logf(kLogError, "OnOpen: no open request waits for the talk \"%s\"", text(filterUrl));
        return RestError::kInternalError;
    }
    TalkStreamSetup setup;
    setup.id = m_nextId++;
    setup.devIndex = device->devIndex;
    setup.channel = channel;
    setup.httpPort = key.second;
    setup.client = requester.client;
    setup.user = requester.user;
    setup.codec = device->codec;
    setup.audio = device->audio;
    if (!device->captureFolder.empty()) {
        char stamp[32];
        time_t now = time(nullptr);
        struct tm utc;
        strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", gmtime_r(&now, &utc));
        setup.capturePath = device->captureFolder + "/talk-ch" + std::to_string(channel) + "-" + stamp + "-" +
                            std::to_string(setup.id) + device->codec->rawExtension;
    }
    add(std::make_shared<TalkStream>(setup, data, m_server, m_pacer, m_metrics, m_log), sessionHandle);
    m_metrics.talkStarted();
    m_log.logf(kLogInfo, "talk %llu opened: device %s channel %d client \"%s\" user \"%s\" codec %s%s%s",
               static_cast<unsigned long long>(setup.id), setup.devIndex.c_str(), channel, setup.client.c_str(),
               setup.user.c_str(), setup.codec->name, setup.capturePath.empty() ? "" : ", keeping it in ",
               setup.capturePath.c_str());
    return 0;
}

void StreamSink::add(const std::shared_ptr<GatewayStream>& stream, void** sessionHandle)
{
    std::lock_guard<std::mutex> guard(m_lock);
    m_streams[stream.get()] = stream;
    *sessionHandle = stream.get();
}

std::shared_ptr<GatewayStream> StreamSink::find(void* sessionHandle, const char* operation)
{
    std::lock_guard<std::mutex> guard(m_lock);
    auto found = m_streams.find(sessionHandle);
    if (found == m_streams.end()) {
        if (operation != nullptr) {
            m_log.logf(kLogWarn, "%s of unknown stream handle %p", operation, sessionHandle);
        }
        return nullptr;
    }
    return found->second;
}

int StreamSink::OnClose(void* sessionHandle)
{
    std::shared_ptr<GatewayStream> stream;
    {
        std::lock_guard<std::mutex> guard(m_lock);
        auto found = m_streams.find(sessionHandle);
        if (found != m_streams.end()) {
            stream = found->second;
            m_streams.erase(found);
        }
    }
    if (!stream) {
        m_log.logf(kLogWarn, "OnClose of unknown stream handle %p", sessionHandle);
        return -1;
    }
    release(stream, "closed");
    return 0;
}

int StreamSink::pushStream(void* sessionHandle)
{
    std::shared_ptr<GatewayStream> stream = find(sessionHandle, "pushStream");
    return stream ? stream->prepare() : RestError::kInternalError;
}

int StreamSink::OnStart(void* sessionHandle, int reserved)
{
    std::shared_ptr<GatewayStream> stream = find(sessionHandle, "OnStart");
    return stream ? stream->start() : RestError::kInternalError;
}

int StreamSink::OnStop(void* sessionHandle, int reserved)
{
    std::shared_ptr<GatewayStream> stream = find(sessionHandle, "OnStop");
    if (!stream) {
        return -1;
    }
    stream->stop();
    return 0;
}

int StreamSink::OnInputData(void* sessionHandle, int index, int dataType, void* data, int length)
{
    // Only talks hear: what their client says, one codec packet at a time.
    std::shared_ptr<GatewayStream> stream = find(sessionHandle, nullptr);
    return stream ? stream->input(dataType, data, length) : -1;
}

void StreamSink::release(const std::shared_ptr<GatewayStream>& stream, const char* why)
{
    stream->stop();
    if (stream->kind() == GatewayStream::Kind::kTalk) {
        releaseTalk(static_cast<TalkStream&>(*stream), why);
    } else {
        releaseDownload(static_cast<RecordingStream&>(*stream), why);
    }
}

void StreamSink::releaseDownload(RecordingStream& stream, const char* why)
{
    m_metrics.downloadFinished(stream.outcome(), stream.secondsOpen());
    m_log.logf(kLogInfo, "stream %llu %s: %s, %llu of %llu bytes sent", static_cast<unsigned long long>(stream.id()),
               why, stream.outcomeText().c_str(), static_cast<unsigned long long>(stream.bytesSent()),
               static_cast<unsigned long long>(stream.bodyLength()));
    logAccess(stream);
}

void StreamSink::releaseTalk(TalkStream& talk, const char* outcome)
{
    if (m_talks != nullptr) {
        m_talks->owners().ended(TalkKey(talk.setup().channel, talk.setup().httpPort));
    }
    const double seconds = talk.secondsOpen();
    m_metrics.talkFinished(seconds);
    m_log.logf(kLogInfo, "%s", talk.summary(outcome).c_str());
    if (m_accessLog != nullptr) {
        const TalkStreamSetup& setup = talk.setup();
        AccessEntry entry;
        entry.time = std::chrono::system_clock::now();
        entry.kind = "talk";
        entry.client = setup.client;
        entry.user = setup.user;
        entry.device = setup.devIndex;
        entry.channel = setup.channel;
        entry.bytesSent = talk.bytesToClient();
        entry.bytesReceived = talk.bytesFromClient();
        entry.seconds = seconds;
        entry.outcome = strcmp(outcome, "closed") == 0 ? "closed" : "shutdown";
        m_accessLog->record(std::move(entry));
    }
}

void StreamSink::logAccess(RecordingStream& stream)
{
    if (m_accessLog == nullptr) {
        return;
    }
    const DownloadSetup& setup = stream.setup();
    AccessEntry entry;
    entry.time = std::chrono::system_clock::now();
    entry.kind = "download";
    entry.client = setup.origin.client;
    entry.user = setup.origin.user;
    entry.device = setup.devIndex;
    entry.recording = setup.recording.name;
    entry.range = setup.part.asked;
    entry.bytesSent = stream.bytesSent();
    entry.seconds = stream.secondsOpen();
    entry.outcome = downloadOutcomeName(stream.outcome());
    m_accessLog->record(std::move(entry));
}
