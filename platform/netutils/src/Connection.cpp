#include "Connection.h"

#include "LoopMailbox.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <optional>
#include <cstring>

namespace netutils {

namespace {

using Clock = std::chrono::steady_clock;

// A Reply waiting for the socket to drain wakes at least this often to see whether the
// connection was ended meanwhile (shutdown(2) normally wakes it at once).
constexpr int kWaitSliceMs = 100;

int readInt32(const void* value, int valueLength, int32_t& out)
{
    if (value == nullptr || valueLength < static_cast<int>(sizeof(int32_t))) {
        return NET_ERR_PARAM;
    }
    memcpy(&out, value, sizeof(out));
    return NET_ERR_NONE;
}

// Moves the vector past `sent` bytes.
void advance(iovec* iov, int& first, int count, size_t sent)
{
    while (first < count && sent >= iov[first].iov_len) {
        sent -= iov[first].iov_len;
        ++first;
    }
    if (first < count) {
        iov[first].iov_base = static_cast<char*>(iov[first].iov_base) + sent;
        iov[first].iov_len -= sent;
    }
}

}  // namespace

Connection::Connection(int fd, uint64_t id, int sendTimeoutMs, std::shared_ptr<LoopMailbox> mailbox)
    : m_fd(fd), m_id(id), m_sendTimeoutMs(sendTimeoutMs), m_mailbox(std::move(mailbox))
{
}

Connection::~Connection()
{
    ::close(m_fd);
}

bool Connection::end(End reason)
{
    int open = static_cast<int>(End::Open);
    if (!m_end.compare_exchange_strong(open, static_cast<int>(reason))) {
        return false;
    }
    switch (reason) {
    case End::Completed:
    case End::Closed:
        // The FIN follows the bytes already queued, so the client receives the whole reply.
        shutdown(m_fd, SHUT_WR);
        break;
    case End::Aborted: {
        // With a zero linger time the last close resets the connection and drops what is queued.
        const linger abortive = {1, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof(abortive));
        shutdown(m_fd, SHUT_RDWR);
        break;
    }
    default: shutdown(m_fd, SHUT_RDWR); break;
    }
    return true;
}

void Connection::endAndNotify(End reason)
{
    if (end(reason)) {
        m_mailbox->post(m_id, reason);
    }
}

void Connection::close(bool flush)
{
    m_closedByOwner.store(true);
    endAndNotify(flush ? End::Closed : End::Aborted);
}

int Connection::stage(int kind, const char* name, int nameLength, const void* value, int valueLength)
{
    std::lock_guard<std::mutex> lock(m_replyMutex);
    if (isEnded()) {
        return NET_ERR_CLOSED;
    }
    switch (kind) {
    case NET_HTTPSERVER_PARAM_STATUS: {
        int32_t status = 0;
        const int error = readInt32(value, valueLength, status);
        if (error != NET_ERR_NONE) {
            return error;
        }
        return m_stage.setStatus(status) ? NET_ERR_NONE : NET_ERR_PARAM;
    }
    case NET_HTTPSERVER_PARAM_BODY:
        if (valueLength < 0 || (value == nullptr && valueLength > 0)) {
            return NET_ERR_PARAM;
        }
        return m_stage.addBody(value, static_cast<size_t>(valueLength)) ? NET_ERR_NONE : NET_ERR_PARAM;
    case NET_HTTPSERVER_PARAM_SEND_TIMEOUT: {
        int32_t milliseconds = 0;
        const int error = readInt32(value, valueLength, milliseconds);
        if (error != NET_ERR_NONE || milliseconds < 0) {
            return NET_ERR_PARAM;
        }
        m_stage.setSendTimeout(milliseconds);  // 0: write what the socket takes now, never wait
        return NET_ERR_NONE;
    }
    case NET_HTTPSERVER_PARAM_STREAM: m_stage.setStreamed(); return NET_ERR_NONE;
    case NET_HTTPSERVER_PARAM_HEADER:
        if (name == nullptr || nameLength <= 0 || valueLength < 0 || (value == nullptr && valueLength > 0)) {
            return NET_ERR_PARAM;
        }
        return m_stage.addHeader(name, static_cast<size_t>(nameLength),
                                 valueLength > 0 ? static_cast<const char*>(value) : "",
                                 static_cast<size_t>(valueLength))
                   ? NET_ERR_NONE
                   : NET_ERR_PARAM;
    default: return NET_ERR_PARAM;
    }
}

int Connection::reply(int& bodyBytesWritten)
{
    bodyBytesWritten = 0;
    std::lock_guard<std::mutex> lock(m_replyMutex);
    if (isEnded()) {
        m_stage.clear();
        return NET_ERR_CLOSED;
    }
    if (m_fileTaken) {
        m_stage.clear();
        return NET_ERR_BUSY;  // two writers would interleave their bytes
    }
    const int timeoutMs = m_stage.sendTimeout() >= 0 ? m_stage.sendTimeout() : m_sendTimeoutMs;

    // Head and body leave in one sendmsg, so a one-shot reply is one system call. The body
    // pieces point into the owner's buffers: nothing is copied or allocated per block.
    iovec iov[1 + ReplyStage::kMaxBodyPieces];
    int count = 0;
    size_t headLength = 0;
    if (!m_headSent) {
        m_stage.buildHead(m_head);
        m_announcedLength = m_stage.announcedLength();
        m_headSent = true;
        iov[count++] = iovec{&m_head[0], m_head.size()};
        headLength = m_head.size();
    }
    // Bytes beyond the announced length would be read by the client as the start of something
    // else; they are not written, and the shorter count tells the owner so.
    size_t budget = m_stage.bodyLength();
    if (m_announcedLength != ReplyStage::kUnknownLength) {
        budget = std::min(budget, static_cast<size_t>(m_announcedLength - m_bodySent));
    }
    for (int i = 0; i < m_stage.bodyPieceCount() && budget > 0; ++i) {
        iovec piece = m_stage.bodyPiece(i);
        piece.iov_len = std::min(piece.iov_len, budget);
        budget -= piece.iov_len;
        iov[count++] = piece;
    }
    m_stage.clear();

    const SendResult result = sendAll(iov, count, headLength, timeoutMs);
    m_bodySent += static_cast<int64_t>(result.bodyBytes);
    switch (result.status) {
    case SendStatus::Ended: return NET_ERR_CLOSED;
    case SendStatus::Broken: endAndNotify(End::Broken); return NET_ERR_CLOSED;
    case SendStatus::TimedOut:
        if (result.headLeft > 0) {
            // A head cut short leaves the client nothing it could use.
            endAndNotify(End::Broken);
            return NET_ERR_CLOSED;
        }
        break;
    case SendStatus::Done: break;
    }
    if (m_announcedLength != ReplyStage::kUnknownLength && m_bodySent == m_announcedLength) {
        endAndNotify(End::Completed);
    }
    bodyBytesWritten = static_cast<int>(result.bodyBytes);
    return NET_ERR_NONE;
}

bool Connection::postFile(std::unique_ptr<FileDelivery>& file)
{
    return m_mailbox->postFile(m_id, file);
}

int Connection::beginFile(int64_t& bodyLeft)
{
    std::lock_guard<std::mutex> lock(m_replyMutex);
    if (isEnded()) {
        return NET_ERR_CLOSED;
    }
    if (m_fileTaken) {
        return NET_ERR_BUSY;
    }
    if (!m_headSent) {
        return NET_ERR_PARAM;  // the file is a body: its head comes first, from the owner
    }
    m_fileTaken = true;
    bodyLeft = m_announcedLength == ReplyStage::kUnknownLength ? -1 : m_announcedLength - m_bodySent;
    return NET_ERR_NONE;
}

Connection::SendResult Connection::sendAll(iovec* iov, int count, size_t headLength, int timeoutMs)
{
    SendResult result{SendStatus::Done, headLength, 0};
    // While the head is going out the time-out bounds the whole head; afterwards it bounds
    // the time in which the socket accepted nothing. The clock is read only when a wait
    // begins, not per block: most blocks leave in one sendmsg.
    const auto timeout = std::chrono::milliseconds(timeoutMs);
    std::optional<Clock::time_point> deadline;
    if (headLength > 0) {
        deadline = Clock::now() + timeout;
    }
    int first = 0;
    while (first < count) {
        if (isEnded()) {
            result.status = SendStatus::Ended;
            return result;
        }
        msghdr message{};
        message.msg_iov = iov + first;
        message.msg_iovlen = static_cast<size_t>(count - first);
        const ssize_t sent = sendmsg(m_fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            const size_t fromHead = std::min(static_cast<size_t>(sent), result.headLeft);
            result.headLeft -= fromHead;
            result.bodyBytes += static_cast<size_t>(sent) - fromHead;
            advance(iov, first, count, static_cast<size_t>(sent));
            if (result.headLeft == 0) {
                deadline.reset();
            }
            if (first >= count) {
                break;
            }
            // A short write means the socket's buffer is full: wait for room rather than
            // make a sendmsg that can only fail with EAGAIN.
        } else if (sent < 0 && errno == EINTR) {
            continue;
        } else if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            result.status = SendStatus::Broken;
            return result;
        }
        const Clock::time_point now = Clock::now();
        if (!deadline) {
            deadline = now + timeout;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - now).count();
        if (left <= 0) {
            result.status = SendStatus::TimedOut;
            return result;
        }
        pollfd writable{m_fd, POLLOUT, 0};
        // A hang-up or an error shows in the next sendmsg, so poll's own result needs no check.
        poll(&writable, 1, static_cast<int>(std::min<long long>(left, kWaitSliceMs)));
    }
    return result;
}

}  // namespace netutils
