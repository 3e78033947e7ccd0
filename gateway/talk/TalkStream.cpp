#include "talk/TalkStream.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include <ext/StreamBlockLayout.h>

#include "base/GatewayMetrics.h"
#include "base/Logger.h"
#include "base/RestErrors.h"

namespace {

// What a client may say ahead of the device's clock: a burst after a stall of its network.
constexpr std::chrono::seconds kSpeakingSlack(2);

}  // namespace

TalkStream::TalkStream(TalkStreamSetup setup, PROTOCOL_WRAPPER::IServerData* data, ServerLatch& server,
                       TalkPacer& pacer, GatewayMetrics& metrics, Logger& log)
    : m_setup(std::move(setup)),
      m_data(data),
      m_server(server),
      m_pacer(pacer),
      m_metrics(metrics),
      m_log(log),
      m_opened(std::chrono::steady_clock::now()),
      m_budget(m_setup.codec->bytesPerSecond, kSpeakingSlack)
{
}

double TalkStream::secondsOpen() const
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_opened).count();
}

TalkStream::~TalkStream()
{
    stop();
}

int TalkStream::prepare()
{
    if (m_setup.capturePath.empty()) {
        return 0;
    }
    std::string error;
    std::lock_guard<std::mutex> guard(m_captureLock);
    if (!m_capture.open(m_setup.capturePath, m_setup.codec->wavFormatTag, error)) {
        m_log.logf(kLogError, "talk %llu: capture file refused: %s", static_cast<unsigned long long>(m_setup.id),
                   error.c_str());
        return RestError::kInternalError;
    }
    return 0;
}

int TalkStream::start()
{
    std::lock_guard<std::mutex> guard(m_controlLock);
    if (m_started || m_stopRequested) {
        return RestError::kInternalError;
    }
    m_started = true;
    // The codec is announced before the plug-in answers the open: a client that
    // speaks at once must find its audio cut into the codec's packets.
    PROTOCOL_WRAPPER::IServer* known = m_server.get();
    if (known != nullptr) {
        announceCodec(known);
    }
    const auto period =
        std::chrono::microseconds(1000000LL * m_setup.codec->packetBytes / m_setup.codec->bytesPerSecond);
    return m_pacer.add(this, period, [this] { sendPacket(); }) ? 0 : RestError::kInternalError;
}

void TalkStream::announceCodec(PROTOCOL_WRAPPER::IServer* server)
{
    char header[StreamBlock::kInfoSize] = {};
    StreamBlock::writeCodecName(header, m_setup.codec->name);
    server->Send(m_data, 0, PROTOCOL_WRAPPER::STREAM_INFO, header, sizeof header);
    m_codecAnnounced = true;
}

void TalkStream::stop()
{
    {
        std::lock_guard<std::mutex> guard(m_controlLock);
        m_stopRequested = true;
    }
    // No start follows the request, and no packet follows the removal.
    m_pacer.remove(this);
    std::lock_guard<std::mutex> guard(m_captureLock);
    if (!m_capture.close() && !m_captureFailed) {
        m_captureFailed = true;
        m_log.logf(kLogError,
                   "talk %llu: %s: its sizes could not be brought up to date (%s); players stop a second short",
                   static_cast<unsigned long long>(m_setup.id), m_capture.path().c_str(), strerror(errno));
    }
    // A talk in which the client said nothing (it only listened, or its link
    // was refused) keeps no file: an empty capture reads like a lost recording.
    if (!m_captureDropped && !m_capture.path().empty() && m_capture.bytes() == 0) {
        m_captureDropped = true;
        unlink(m_capture.path().c_str());
    }
}

void TalkStream::sendPacket()
{
    // A talk opened before CreateServer returned is heard once the server is known.
    PROTOCOL_WRAPPER::IServer* server = m_server.get();
    if (server == nullptr) {
        return;
    }
    if (!m_codecAnnounced) {
        announceCodec(server);
    }
    // Live audio at the codec's pace, looped; a packet nobody listens to is lost,
    // as a microphone's would be.
    const std::string& audio = *m_setup.audio;
    const size_t packet = m_block.size();
    for (size_t filled = 0; filled < packet;) {
        const size_t piece = std::min(packet - filled, audio.size() - m_offset);
        memcpy(&m_block[filled], audio.data() + m_offset, piece);
        filled += piece;
        m_offset = (m_offset + piece) % audio.size();
    }
    if (server->Send(m_data, 0, PROTOCOL_WRAPPER::STREAM_DATA, &m_block[0], static_cast<int>(packet)) == 0) {
        m_bytesToClient += packet;
        m_metrics.addTalkBytesToClient(packet);
    }
}

int TalkStream::input(int dataType, const void* data, int length)
{
    if (dataType != PROTOCOL_WRAPPER::STREAM_DATA || data == nullptr || length <= 0) {
        return 0;
    }
    m_bytesFromClient += static_cast<uint64_t>(length);
    m_metrics.addTalkBytesFromClient(static_cast<uint64_t>(length));
    std::lock_guard<std::mutex> guard(m_captureLock);
    if (m_setup.capturePath.empty() || m_captureFailed) {
        return 0;
    }
    const uint64_t droppedBefore = m_budget.dropped();
    const size_t kept = m_budget.admit(static_cast<size_t>(length), std::chrono::steady_clock::now());
    if (droppedBefore == 0 && m_budget.dropped() != 0) {
        m_log.logf(kLogWarn,
                   "talk %llu: the client speaks faster than %s's %d bytes a second; what comes early is not kept",
                   static_cast<unsigned long long>(m_setup.id), m_setup.codec->name, m_setup.codec->bytesPerSecond);
    }
    if (kept != 0 && !m_capture.append(data, kept)) {
        m_captureFailed = true;
        m_log.logf(kLogError, "talk %llu: %s cannot grow: %s; the rest of the talk is not kept",
                   static_cast<unsigned long long>(m_setup.id), m_capture.path().c_str(), strerror(errno));
    }
    return 0;
}

std::string TalkStream::summary(const char* outcome)
{
    const double seconds = secondsOpen();
    bool kept = false;
    uint64_t early = 0;
    {
        std::lock_guard<std::mutex> guard(m_captureLock);
        kept = !m_setup.capturePath.empty() && !m_captureDropped;
        early = m_budget.dropped();
    }
    char earlyNote[64] = "";
    if (early != 0) {
        snprintf(earlyNote, sizeof earlyNote, " (%llu said too early, not kept)",
                 static_cast<unsigned long long>(early));
    }
    char line[512];
    snprintf(line, sizeof line,
             "talk %llu closed: device %s channel %d client \"%s\" user \"%s\" codec %s, %.1f s, %llu bytes to the "
             "client, %llu bytes from the client%s%s%s, %s",
             static_cast<unsigned long long>(m_setup.id), m_setup.devIndex.c_str(), m_setup.channel,
             m_setup.client.c_str(), m_setup.user.c_str(), m_setup.codec->name, seconds,
             static_cast<unsigned long long>(m_bytesToClient.load()),
             static_cast<unsigned long long>(m_bytesFromClient.load()), earlyNote, kept ? " kept in " : "",
             kept ? m_setup.capturePath.c_str() : "", outcome);
    return line;
}
