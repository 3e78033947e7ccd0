#include "download/RecordingStream.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

#include <HttpProtocolWrapper.h>
#include <ext/DeliveryRequest.h>
#include <ext/DownloadSendCodes.h>

#include "base/Logger.h"
#include "base/RestErrors.h"
#include "download/StreamBlocks.h"

RecordingStream::RecordingStream(DownloadSetup setup, PROTOCOL_WRAPPER::IServerData* data, ServerLatch& server,
                                 BlockPool& blocks, GatewayMetrics& metrics, Logger& log)
    : m_setup(std::move(setup)),
      m_data(data),
      m_server(server),
      m_metrics(metrics),
      m_log(log),
      m_slices(sliceBody(m_setup.part.part, kStreamHeadSize, m_setup.fileLength)),
      m_opened(std::chrono::steady_clock::now()),
      m_blocks(blocks),
      m_stopRequested(false),
      m_bytesSent(0),
      m_started(false)
{
}

RecordingStream::~RecordingStream()
{
    stop();
    close(m_setup.fd);
    m_blocks.release(m_buffer);
}

int RecordingStream::prepare()
{
    // With loop delivery no block is held: one is taken only if the plug-in refuses the file.
    if (m_buffer || m_setup.loopDelivery) {
        return 0;
    }
    m_buffer = m_blocks.acquire();
    if (!m_buffer) {
        m_log.logf(kLogError, "stream %llu: no memory for a %zu-byte block", static_cast<unsigned long long>(id()),
                   m_setup.blockSize);
        return RestError::kNoMemory;
    }
    return 0;
}

int RecordingStream::start()
{
    std::lock_guard<std::mutex> guard(m_controlLock);
    if (m_started || (!m_buffer && !m_setup.loopDelivery)) {
        return cannotStart();
    }
    // When the server is known, the two opening blocks (and so the reply's head) go out on
    // the caller's thread: the client's first byte does not wait for a new thread to be
    // scheduled, which on a busy machine takes milliseconds. They are small and meet an
    // empty socket buffer, so the caller is not held up.
    PROTOCOL_WRAPPER::IServer* known = m_server.get();
    if (known && !sendOpening(known)) {
        m_started = true;  // sendOpening set how it ended
        return 0;
    }
    if (known && m_setup.loopDelivery && handOver(known)) {
        m_started = true;  // no thread: the plug-in's loop sends the file
        return 0;
    }
    if (!m_buffer && !(m_buffer = m_blocks.acquire())) {
        setOutcome(DownloadOutcome::kNotStarted, "not started: no memory for a block");
        return RestError::kNoMemory;
    }
    setOutcome(DownloadOutcome::kStopped, "running");
    const bool openingSent = known != nullptr;
    if (!m_thread.start([this, openingSent] { deliver(openingSent); })) {
        setOutcome(DownloadOutcome::kNotStarted, "not started: no thread");
        return cannotStart();
    }
    m_started = true;
    return 0;
}

int RecordingStream::cannotStart()
{
    m_log.logf(kLogError, "stream %llu: delivery cannot start (not prepared, already started or no thread)",
               static_cast<unsigned long long>(id()));
    return RestError::kInternalError;
}

void RecordingStream::stop()
{
    m_stopRequested = true;
    m_server.wake();
    {
        std::lock_guard<std::mutex> guard(m_controlLock);
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    // The plug-in calls back before OnStop; this covers a stop from elsewhere (shutdown's closeAll).
    static constexpr auto kDeliveryEndWait = std::chrono::seconds(30);
    std::unique_lock<std::mutex> lock(m_outcomeLock);
    if (!m_deliveryEnded.wait_for(lock, kDeliveryEndWait, [this] { return !m_deliveryOwed; })) {
        m_log.logf(kLogError, "stream %llu: the plug-in did not say how its delivery ended",
                   static_cast<unsigned long long>(id()));
    }
}

void RecordingStream::cutOff()
{
    {
        // An ending already set stays: the client did go away before the cut.
        std::lock_guard<std::mutex> guard(m_outcomeLock);
        m_cutOff = true;
    }
    m_stopRequested = true;
    m_server.wake();
}

double RecordingStream::secondsOpen() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_opened).count();
}

DownloadOutcome RecordingStream::outcome()
{
    std::lock_guard<std::mutex> guard(m_outcomeLock);
    return m_outcome;
}

std::string RecordingStream::outcomeText()
{
    std::lock_guard<std::mutex> guard(m_outcomeLock);
    return m_outcomeText;
}

void RecordingStream::setOutcome(DownloadOutcome outcome, std::string text)
{
    std::lock_guard<std::mutex> guard(m_outcomeLock);
    if (m_cutOff && (outcome == DownloadOutcome::kClientGone || outcome == DownloadOutcome::kStopped)) {
        outcome = DownloadOutcome::kStopped;
        text = "stopped with the gateway";
    }
    m_outcome = outcome;
    m_outcomeText = std::move(text);
}

void RecordingStream::deliver(bool openingSent)
{
    PROTOCOL_WRAPPER::IServer* server = m_server.wait([this] { return m_stopRequested.load(); });
    if (!server) {
        setOutcome(DownloadOutcome::kStopped, "stopped before delivery");
    } else if ((openingSent || sendOpening(server)) && !(m_setup.loopDelivery && handOver(server))) {
        deliverFile(server);
    }
}

bool RecordingStream::sendOpening(PROTOCOL_WRAPPER::IServer* server)
{
    const Recording& recording = m_setup.recording;
    auto info = buildStreamInfo(m_setup.fileLength);
    if (m_setup.part.reported) {
        addRangeRecord(info, m_setup.part.part, m_setup.part.entityTag);
    }
    auto head =
        buildStreamHead(m_setup.fileLength, recording.start, recording.end, static_cast<uint32_t>(m_setup.blockSize));
    int result = sendBlock(server, PROTOCOL_WRAPPER::STREAM_INFO, info.data(), info.size());
    // A part that starts past the stream head gets none of it.
    if (result == 0 && m_slices.headLength != 0) {
        result =
            sendBlock(server, PROTOCOL_WRAPPER::STREAM_HEAD, head.data() + m_slices.headOffset, m_slices.headLength);
    }
    if (result != 0) {
        setSendFailure(result);
    }
    return result == 0;
}

void RecordingStream::deliverFile(PROTOCOL_WRAPPER::IServer* server)
{
    uint64_t offset = m_slices.fileOffset;
    const uint64_t end = m_slices.fileOffset + m_slices.fileLength;
    DeliveryRate rate(m_setup.minRate, m_setup.minRateSeconds);
    rate.start(DeliveryRate::Clock::now(), m_bytesSent);
    while (offset < end) {
        if (m_stopRequested) {
            return setOutcome(DownloadOutcome::kStopped, "stopped by the plug-in");
        }
        size_t wanted = static_cast<size_t>(std::min<uint64_t>(m_setup.blockSize, end - offset));
        ssize_t got = pread(m_setup.fd, m_buffer, wanted, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            // The client was promised the full length; it will see a short body.
            std::string reason =
                std::string("recording cannot be read: ") + (got < 0 ? strerror(errno) : "file shrank");
            m_log.logf(kLogError, "stream %llu: %s at byte %llu of %s", static_cast<unsigned long long>(id()),
                       reason.c_str(), static_cast<unsigned long long>(offset), m_setup.recording.path.c_str());
            setOutcome(DownloadOutcome::kReadError, reason);
            return endShort(server);
        }
        if (!sendFileBlock(server, static_cast<size_t>(got), rate)) {
            return;
        }
        offset += static_cast<uint64_t>(got);
    }
    const int result = sendBlock(server, PROTOCOL_WRAPPER::STREAM_END, m_buffer, 0);
    if (result == 0) {
        setOutcome(DownloadOutcome::kComplete, "complete");
    } else {
        setSendFailure(result);
    }
}

bool RecordingStream::sendFileBlock(PROTOCOL_WRAPPER::IServer* server, size_t length, DeliveryRate& rate)
{
    // A block goes in one Send while the client keeps up; while it is slow, in pieces, so that a
    // Send never carries much more than the minimum rate allows per second and the rate is looked
    // at between them, however large the block.
    static constexpr auto kSlowSend = std::chrono::seconds(1);
    size_t done = 0;
    while (done < length) {
        const size_t piece = m_slowClient ? std::min(length - done, rate.slowPieceBytes()) : length - done;
        const auto before = DeliveryRate::Clock::now();
        const int result = sendBlock(server, PROTOCOL_WRAPPER::STREAM_DATA, m_buffer + done, piece);
        if (result != 0) {
            setSendFailure(result);
            return false;
        }
        const auto after = DeliveryRate::Clock::now();
        m_slowClient = rate.enabled() && after - before >= kSlowSend;
        if (rate.tooSlow(after, m_bytesSent)) {
            char reason[128];
            snprintf(reason, sizeof reason, "client too slow: under %llu bytes/s for %d s",
                     static_cast<unsigned long long>(m_setup.minRate), m_setup.minRateSeconds);
            setOutcome(DownloadOutcome::kTooSlow, reason);
            endShort(server);
            return false;
        }
        done += piece;
    }
    return true;
}

void RecordingStream::endShort(PROTOCOL_WRAPPER::IServer* server)
{
    server->Send(m_data, 0, HPW_STREAM_ABORT, m_buffer, 0);
}

void RecordingStream::setSendFailure(int result)
{
    if (result == HPW_SEND_TIMEOUT) {
        setOutcome(DownloadOutcome::kSendTimeout, "client took nothing for the send time-out");
    } else {
        setOutcome(DownloadOutcome::kClientGone, "client went away");
    }
}

bool RecordingStream::handOver(PROTOCOL_WRAPPER::IServer* server)
{
    // The callback holds the stream: it may come after StreamSink let go of it.
    std::shared_ptr<RecordingStream> self = weak_from_this().lock();
    if (!self) {
        return false;
    }
    auto* holder = new std::shared_ptr<RecordingStream>(std::move(self));
    PROTOCOL_WRAPPER::DeliveryRequest request{};
    request.size = sizeof request;
    request.fd = m_setup.fd;
    request.offset = m_slices.fileOffset;
    request.length = m_slices.fileLength;
    request.blockSize = static_cast<uint32_t>(m_setup.blockSize);
    request.minRate = static_cast<uint32_t>(std::min<uint64_t>(m_setup.minRate, UINT32_MAX));
    request.minRateSeconds = static_cast<uint32_t>(m_setup.minRate != 0 ? m_setup.minRateSeconds : 0);
    request.onDone = &RecordingStream::onDelivered;
    request.context = holder;
    {
        // Owed before the request: the callback may come before SendMSG returns.
        std::lock_guard<std::mutex> guard(m_outcomeLock);
        m_deliveryOwed = true;
    }
    const int answer = server->SendMSG(m_data, PROTOCOL_WRAPPER::MSG_DELIVER_FILE, &request, sizeof request);
    if (answer != 0) {
        m_log.logf(kLogDebug, "stream %llu: the plug-in refused the file (%d); sending blocks",
                   static_cast<unsigned long long>(id()), answer);
        delete holder;
        std::lock_guard<std::mutex> guard(m_outcomeLock);
        m_deliveryOwed = false;
        return false;
    }
    return true;
}

void RecordingStream::onDelivered(void* context, int outcome, uint64_t bytesSent)
{
    auto* holder = static_cast<std::shared_ptr<RecordingStream>*>(context);
    std::shared_ptr<RecordingStream> stream = std::move(*holder);
    delete holder;
    const DownloadSetup& setup = stream->m_setup;
    stream->m_bytesSent += bytesSent;
    stream->m_metrics.addSentBytes(bytesSent);
    char text[128];
    switch (outcome) {
    case PROTOCOL_WRAPPER::DELIVERY_COMPLETE: stream->setOutcome(DownloadOutcome::kComplete, "complete"); break;
    case PROTOCOL_WRAPPER::DELIVERY_CLIENT_GONE:
        stream->setOutcome(DownloadOutcome::kClientGone, "client went away");
        break;
    case PROTOCOL_WRAPPER::DELIVERY_SEND_TIMEOUT:
        stream->setOutcome(DownloadOutcome::kSendTimeout, "client took nothing for the send time-out");
        break;
    case PROTOCOL_WRAPPER::DELIVERY_TOO_SLOW:
        snprintf(text, sizeof text, "client too slow: under %llu bytes/s for %d s",
                 static_cast<unsigned long long>(setup.minRate), setup.minRateSeconds);
        stream->setOutcome(DownloadOutcome::kTooSlow, text);
        break;
    case PROTOCOL_WRAPPER::DELIVERY_READ_ERROR:
        stream->m_log.logf(kLogError, "stream %llu: recording cannot be read: file shrank, after %llu bytes of %s",
                           static_cast<unsigned long long>(stream->id()), static_cast<unsigned long long>(bytesSent),
                           setup.recording.path.c_str());
        stream->setOutcome(DownloadOutcome::kReadError, "recording cannot be read: file shrank");
        break;
    default: stream->setOutcome(DownloadOutcome::kStopped, "stopped by the plug-in"); break;
    }
    std::lock_guard<std::mutex> guard(stream->m_outcomeLock);
    stream->m_deliveryOwed = false;
    stream->m_deliveryEnded.notify_all();
}

int RecordingStream::sendBlock(PROTOCOL_WRAPPER::IServer* server, int dataType, void* data, size_t length)
{
    const int result = server->Send(m_data, 0, dataType, data, static_cast<int>(length));
    if (result != 0) {
        m_log.logf(kLogDebug, "stream %llu: Send of type %d returned %d", static_cast<unsigned long long>(id()),
                   dataType, result);
        return result;
    }
    if (dataType == PROTOCOL_WRAPPER::STREAM_DATA || dataType == PROTOCOL_WRAPPER::STREAM_HEAD) {
        m_bytesSent += length;
        m_metrics.addSentBytes(length);
    }
    return 0;
}
