#include "RecordingStream.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "Logger.h"
#include "StreamBlocks.h"

RecordingStream::RecordingStream(uint64_t id, const Recording& recording, int fd, uint64_t fileLength,
                                 PROTOCOL_WRAPPER::IServerData* data, size_t blockSize, Logger& log,
                                 const StreamPart& part)
    : m_id(id),
      m_recording(recording),
      m_fd(fd),
      m_fileLength(fileLength),
      m_data(data),
      m_blockSize(blockSize),
      m_log(log),
      m_part(part),
      m_slices(sliceBody(part.part, kStreamHeadSize, fileLength)),
      m_stopRequested(false),
      m_bytesSent(0),
      m_started(false),
      m_outcome("not started")
{
}

RecordingStream::~RecordingStream()
{
    stop();
    close(m_fd);
    if (m_buffer) {
        munmap(m_buffer, m_blockSize);
    }
}

bool RecordingStream::prepare()
{
    if (m_buffer) {
        return true;
    }
    // Mapped straight from the system rather than taken from malloc: the allocator kept
    // freed blocks of this size in its per-thread arenas, so after each burst of downloads
    // the process held on to tens of megabytes more. An unmapped block is gone.
    void* block = mmap(nullptr, m_blockSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) {
        return false;
    }
    m_buffer = static_cast<unsigned char*>(block);
    return true;
}

bool RecordingStream::start(const std::atomic<PROTOCOL_WRAPPER::IServer*>& server)
{
    std::lock_guard<std::mutex> guard(m_controlLock);
    if (m_started || !m_buffer) {
        return false;
    }
    // When the server is known, the two opening blocks (and so the reply's head) go out on
    // the caller's thread: the client's first byte does not wait for a new thread to be
    // scheduled, which on a busy machine takes milliseconds. They are small and meet an
    // empty socket buffer, so the caller is not held up.
    PROTOCOL_WRAPPER::IServer* known = server.load();
    if (known && !sendOpening(known)) {
        std::lock_guard<std::mutex> outcomeGuard(m_outcomeLock);
        m_outcome = "client went away";
        m_started = true;
        return true;
    }
    {
        std::lock_guard<std::mutex> outcomeGuard(m_outcomeLock);
        m_outcome = "running";
    }
    try {
        m_thread = std::thread(&RecordingStream::deliver, this, &server, known != nullptr);
    } catch (const std::system_error&) {
        std::lock_guard<std::mutex> outcomeGuard(m_outcomeLock);
        m_outcome = "not started: no thread";
        return false;
    }
    m_started = true;
    return true;
}

void RecordingStream::stop()
{
    m_stopRequested = true;
    std::lock_guard<std::mutex> guard(m_controlLock);
    if (m_thread.joinable()) {
        m_thread.join();
    }
}

std::string RecordingStream::outcome()
{
    std::lock_guard<std::mutex> guard(m_outcomeLock);
    return m_outcome;
}

void RecordingStream::deliver(const std::atomic<PROTOCOL_WRAPPER::IServer*>* serverSlot, bool openingSent)
{
    // A request can reach the plug-in before CreateServer has returned the server to us.
    PROTOCOL_WRAPPER::IServer* server = serverSlot->load();
    while (!server && !m_stopRequested) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        server = serverSlot->load();
    }
    std::string outcome = "stopped before delivery";
    if (server) {
        outcome = openingSent || sendOpening(server) ? deliverFile(server) : "client went away";
    }
    std::lock_guard<std::mutex> guard(m_outcomeLock);
    m_outcome = outcome;
}

bool RecordingStream::sendOpening(PROTOCOL_WRAPPER::IServer* server)
{
    auto info = buildStreamInfo(m_fileLength);
    if (m_part.reported) {
        addRangeRecord(info, m_part.part, m_part.entityTag);
    }
    auto head = buildStreamHead(m_fileLength, m_recording.start, m_recording.end, static_cast<uint32_t>(m_blockSize));
    // A part that starts past the stream head gets none of it.
    return sendBlock(server, PROTOCOL_WRAPPER::STREAM_INFO, info.data(), info.size()) &&
           (m_slices.headLength == 0 ||
            sendBlock(server, PROTOCOL_WRAPPER::STREAM_HEAD, head.data() + m_slices.headOffset, m_slices.headLength));
}

std::string RecordingStream::deliverFile(PROTOCOL_WRAPPER::IServer* server)
{
    uint64_t offset = m_slices.fileOffset;
    const uint64_t end = m_slices.fileOffset + m_slices.fileLength;
    while (offset < end) {
        if (m_stopRequested) {
            return "stopped by the plug-in";
        }
        size_t wanted = static_cast<size_t>(std::min<uint64_t>(m_blockSize, end - offset));
        ssize_t got = pread(m_fd, m_buffer, wanted, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            // The client was promised the full length; it will see a short body.
            std::string reason =
                std::string("recording cannot be read: ") + (got < 0 ? strerror(errno) : "file shrank");
            m_log.logf(kLogError, "stream %llu: %s at byte %llu of %s", static_cast<unsigned long long>(m_id),
                       reason.c_str(), static_cast<unsigned long long>(offset), m_recording.path.c_str());
            return reason;
        }
        if (!sendBlock(server, PROTOCOL_WRAPPER::STREAM_DATA, m_buffer, static_cast<size_t>(got))) {
            return "client went away";
        }
        offset += static_cast<uint64_t>(got);
    }
    return sendBlock(server, PROTOCOL_WRAPPER::STREAM_END, m_buffer, 0) ? "complete" : "client went away";
}

bool RecordingStream::sendBlock(PROTOCOL_WRAPPER::IServer* server, int dataType, void* data, size_t length)
{
    int result = server->Send(m_data, 0, dataType, data, static_cast<int>(length));
    if (result != 0) {
        m_log.logf(kLogDebug, "stream %llu: Send of type %d returned %d", static_cast<unsigned long long>(m_id),
                   dataType, result);
        return false;
    }
    if (dataType == PROTOCOL_WRAPPER::STREAM_DATA || dataType == PROTOCOL_WRAPPER::STREAM_HEAD) {
        m_bytesSent += length;
    }
    return true;
}
