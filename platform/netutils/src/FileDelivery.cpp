#include "FileDelivery.h"

#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace netutils {

namespace {

constexpr int kDefaultRateWindowSeconds = 30;
const char kLastChunk[] = "0\r\n\r\n";

// Upper-case hexadecimal digits, no leading zeros, as the owner's chunk lines have them.
size_t writeHex(uint64_t value, char* out)
{
    static const char kDigits[] = "0123456789ABCDEF";
    char reversed[16];
    size_t count = 0;
    do {
        reversed[count++] = kDigits[value & 0xF];
        value >>= 4;
    } while (value != 0);
    for (size_t i = 0; i < count; ++i) {
        out[i] = reversed[count - 1 - i];
    }
    return count;
}

size_t chunkLine(uint64_t chunk, char* out)
{
    if (chunk == 0) {
        memcpy(out, kLastChunk, sizeof(kLastChunk) - 1);
        return sizeof(kLastChunk) - 1;
    }
    size_t length = writeHex(chunk, out);
    out[length++] = '\r';
    out[length++] = '\n';
    return length;
}

bool wouldBlock()
{
    return errno == EAGAIN || errno == EWOULDBLOCK;
}

}  // namespace

FileDelivery::FileDelivery(int handle, const NET_HTTPSERVER_FILE_PARAM& param, int defaultStallMs)
    : m_handle(handle),
      m_fd(param.iFd),
      m_chunkSize(param.dwChunkSize),
      m_useSendfile((param.dwFlags & NET_FILE_FLAG_SENDFILE) != 0),
      m_done(param.fnDone),
      m_user(param.pUser),
      m_offset(static_cast<uint64_t>(param.llOffset)),
      m_fileLeft(static_cast<uint64_t>(param.llLength)),
      m_stall(param.dwStallTimeoutMs != 0 ? static_cast<int>(std::min<uint32_t>(param.dwStallTimeoutMs, INT32_MAX))
                                          : defaultStallMs),
      m_minRate(param.dwMinRate),
      m_window(param.dwMinRateSeconds != 0 ? param.dwMinRateSeconds : kDefaultRateWindowSeconds)
{
    if (m_chunkSize != 0) {
        m_chunkLeft = std::min<uint64_t>(m_chunkSize, m_fileLeft);
        m_frameLength = chunkLine(m_chunkLeft, m_frame);
    }
}

void FileDelivery::limitBody(int64_t bodyLeft)
{
    // Bytes past the length the head announced would be read as the start of something else.
    if (m_chunkSize == 0 && bodyLeft >= 0) {
        m_fileLeft = std::min<uint64_t>(m_fileLeft, static_cast<uint64_t>(bodyLeft));
    }
}

FileDelivery::~FileDelivery()
{
    if (m_fd >= 0) {
        ::close(m_fd);
    }
}

void FileDelivery::finish(int outcome)
{
    if (m_finished) {
        return;
    }
    m_finished = true;
    // Closed first: an owner counting its descriptors when told finds this one gone.
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
    m_done(m_handle, outcome, m_fileSent, m_user);
}

void FileDelivery::start(Clock::time_point now)
{
    m_lastProgress = now;
    m_windowStart = now;
    m_windowStartBytes = m_fileSent;
}

FileDelivery::Clock::time_point FileDelivery::nextCheck() const
{
    Clock::time_point next = m_lastProgress + m_stall;
    if (m_minRate != 0) {
        next = std::min(next, m_windowStart + m_window);
    }
    return next;
}

int FileDelivery::check(Clock::time_point now)
{
    if (now - m_lastProgress >= m_stall) {
        return NET_FILE_SEND_TIMEOUT;
    }
    if (m_minRate != 0 && now - m_windowStart >= m_window) {
        const uint64_t taken = m_fileSent - m_windowStartBytes;
        if (taken < m_minRate * static_cast<uint64_t>(m_window.count())) {
            return NET_FILE_TOO_SLOW;
        }
        m_windowStart += m_window;
        m_windowStartBytes = m_fileSent;
    }
    return -1;
}

FileDelivery::Step FileDelivery::pump(int socketFd, char* buffer, size_t bufferSize, size_t maxBytes,
                                      Clock::time_point now)
{
    const uint64_t before = m_fileSent;
    const size_t framingBefore = m_framePos;
    Step step = Step::Blocked;
    while (!done()) {
        const uint64_t sentNow = m_fileSent - before;
        if (sentNow >= maxBytes) {
            break;  // the other connections' turn; the socket is still writable, so the loop comes back
        }
        step = pumpOnce(socketFd, buffer, bufferSize, static_cast<size_t>(maxBytes - sentNow));
        if (step != Step::Done) {
            break;
        }
        step = Step::Blocked;
    }
    if (m_fileSent != before || m_framePos != framingBefore) {
        m_lastProgress = now;
    }
    if (step == Step::Blocked && done()) {
        return Step::Done;
    }
    return step;
}

// One system call's worth (two with sendfile and framing owed). Done here means "wrote what it tried".
FileDelivery::Step FileDelivery::pumpOnce(int socketFd, char* buffer, size_t bufferSize, size_t maxBytes)
{
    return m_useSendfile ? sendFramingThenFile(socketFd, maxBytes)
                         : readAndSend(socketFd, buffer, bufferSize, maxBytes);
}

void FileDelivery::consumeFile(size_t bytes)
{
    m_offset += bytes;
    m_fileLeft -= bytes;
    m_fileSent += bytes;
    if (m_chunkSize != 0) {
        m_chunkLeft -= bytes;
    }
}

size_t FileDelivery::nextFraming(char* out, uint64_t& nextChunk) const
{
    nextChunk = std::min<uint64_t>(m_chunkSize, m_fileLeft - m_chunkLeft);
    out[0] = '\r';
    out[1] = '\n';
    return 2 + chunkLine(nextChunk, out + 2);
}

FileDelivery::Step FileDelivery::readAndSend(int socketFd, char* buffer, size_t bufferSize, size_t maxBytes)
{
    iovec iov[3];
    int count = 0;
    const size_t frameLeft = m_frameLength - m_framePos;
    if (frameLeft != 0) {
        iov[count++] = iovec{m_frame + m_framePos, frameLeft};
    }
    size_t got = 0;
    if (m_fileLeft != 0) {
        uint64_t want = std::min<uint64_t>({bufferSize, maxBytes, m_chunkSize != 0 ? m_chunkLeft : m_fileLeft});
        ssize_t read;
        do {
            read = pread(m_fd, buffer, static_cast<size_t>(want), static_cast<off_t>(m_offset));
        } while (read < 0 && errno == EINTR);
        if (read <= 0) {
            return Step::ReadError;
        }
        got = static_cast<size_t>(read);
        iov[count++] = iovec{buffer, got};
    }
    // The chunk's end and the next line ride along when this read finishes the chunk.
    char trailer[sizeof(m_frame)];
    size_t trailerLength = 0;
    uint64_t nextChunk = 0;
    if (m_chunkSize != 0 && m_fileLeft != 0 && got == m_chunkLeft) {
        trailerLength = nextFraming(trailer, nextChunk);
        iov[count++] = iovec{trailer, trailerLength};
    }
    msghdr message{};
    message.msg_iov = iov;
    message.msg_iovlen = static_cast<size_t>(count);
    ssize_t sent;
    do {
        sent = sendmsg(socketFd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        return wouldBlock() ? Step::Blocked : Step::Broken;
    }
    size_t rest = static_cast<size_t>(sent);
    const size_t fromFrame = std::min(rest, frameLeft);
    m_framePos += fromFrame;
    rest -= fromFrame;
    const size_t fromFile = std::min(rest, got);
    consumeFile(fromFile);
    rest -= fromFile;
    if (trailerLength != 0 && m_chunkLeft == 0) {
        memcpy(m_frame, trailer, trailerLength);
        m_frameLength = trailerLength;
        m_framePos = rest;
        m_chunkLeft = nextChunk;
    }
    // Short: the socket is full, and another call could only fail with EAGAIN.
    const size_t offered = frameLeft + got + trailerLength;
    return static_cast<size_t>(sent) < offered ? Step::Blocked : Step::Done;
}

FileDelivery::Step FileDelivery::sendFramingThenFile(int socketFd, size_t maxBytes)
{
    const size_t frameLeft = m_frameLength - m_framePos;
    if (frameLeft != 0) {
        // MSG_MORE: the chunk line leaves in one segment with the bytes that follow it.
        const int more = m_fileLeft != 0 ? MSG_MORE : 0;
        ssize_t sent;
        do {
            sent = send(socketFd, m_frame + m_framePos, frameLeft, MSG_NOSIGNAL | MSG_DONTWAIT | more);
        } while (sent < 0 && errno == EINTR);
        if (sent < 0) {
            return wouldBlock() ? Step::Blocked : Step::Broken;
        }
        m_framePos += static_cast<size_t>(sent);
        if (static_cast<size_t>(sent) < frameLeft) {
            return Step::Blocked;
        }
    }
    if (m_fileLeft == 0) {
        return Step::Done;
    }
    const uint64_t want = std::min<uint64_t>(maxBytes, m_chunkSize != 0 ? m_chunkLeft : m_fileLeft);
    off_t offset = static_cast<off_t>(m_offset);
    ssize_t sent;
    do {
        sent = sendfile(socketFd, m_fd, &offset, static_cast<size_t>(want));
    } while (sent < 0 && errno == EINTR);
    if (sent < 0) {
        // sendfile reports a failed read of the file as EIO and friends, a failed socket as EPIPE or ECONNRESET.
        if (wouldBlock()) {
            return Step::Blocked;
        }
        return errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN ? Step::Broken : Step::ReadError;
    }
    if (sent == 0) {
        return Step::ReadError;  // the file is shorter than promised
    }
    consumeFile(static_cast<size_t>(sent));
    if (m_chunkSize != 0 && m_chunkLeft == 0) {
        uint64_t nextChunk = 0;
        m_frameLength = nextFraming(m_frame, nextChunk);
        m_framePos = 0;
        m_chunkLeft = nextChunk;
    }
    return static_cast<uint64_t>(sent) < want ? Step::Blocked : Step::Done;
}

}  // namespace netutils
