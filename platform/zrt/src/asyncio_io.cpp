// The reads and writes of the completion queue. Each function works through the
// head of one of a socket's lists until the list is empty or the socket would
// block; the caller holds the handle's lock, so the poller thread and a posting
// thread never work on one socket at the same time.
#include "asyncio_internal.h"

#include <errno.h>
#include <sys/socket.h>

namespace zrt_aio {

namespace {

// One write attempt for the rest of op. Returns the bytes written, or -1 with errno.
ssize_t writeSome(AsyncHandle* handle, AsyncOp* op)
{
    const char* data = op->buffer + op->transferred;
    size_t remaining = static_cast<size_t>(op->length - op->transferred);
    // MSG_NOSIGNAL: a peer that went away gives EPIPE to the owner, whether or
    // not the host ignores SIGPIPE.
    if (op->hasTo) {
        return sendto(handle->sock, data, remaining, MSG_NOSIGNAL, reinterpret_cast<const struct sockaddr*>(&op->to),
                      sizeof op->to);
    }
    return send(handle->sock, data, remaining, MSG_NOSIGNAL);
}

ssize_t readOnce(AsyncHandle* handle, AsyncOp* op)
{
    if (op->from == nullptr) {
        return recv(handle->sock, op->buffer, static_cast<size_t>(op->length), 0);
    }
    ZRT_ADDR_T peer{};
    socklen_t length = sizeof peer;
    ssize_t got = recvfrom(handle->sock, op->buffer, static_cast<size_t>(op->length), 0,
                           reinterpret_cast<struct sockaddr*>(&peer), &length);
    // A connected stream socket reports no address; leave the caller's alone then.
    if (got >= 0 && length > 0) {
        *op->from = peer;
    }
    return got;
}

bool wouldBlock(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK;
}

}  // namespace

void driveSends(AsyncHandle* handle)
{
    while (AsyncOp* op = handle->sends.front()) {
        if (op->transferred < op->length) {
            ssize_t written = writeSome(handle, op);
            if (written < 0) {
                int error = errno;
                if (error == EINTR) {
                    continue;
                }
                if (wouldBlock(error)) {
                    return;  // the next writable edge resumes here
                }
                handle->sends.pop();
                completeLocked(handle, op, static_cast<unsigned long>(error),
                               static_cast<unsigned long>(op->transferred));
                continue;
            }
            op->transferred += static_cast<int>(written);
            // A stream write may be short and is continued from where it
            // stopped; a datagram goes out in one piece.
            if (handle->stream && op->transferred < op->length) {
                continue;
            }
        }
        handle->sends.pop();
        completeLocked(handle, op, 0, static_cast<unsigned long>(op->transferred));
    }
}

void driveRecvs(AsyncHandle* handle)
{
    while (AsyncOp* op = handle->recvs.front()) {
        ssize_t got = readOnce(handle, op);
        if (got < 0) {
            int error = errno;
            if (error == EINTR) {
                continue;
            }
            if (wouldBlock(error)) {
                handle->mayHaveInput = false;
                return;
            }
            handle->recvs.pop();
            completeLocked(handle, op, static_cast<unsigned long>(error), 0);
            continue;
        }
        // 0 on a stream socket: the peer closed; every later receive sees the same. A stream read shorter than
        // its buffer emptied the socket: the next receive waits for the next edge rather than trying a read
        // bound to fail (a talk's packet each 20 ms would cost two reads each).
        if (handle->stream && got > 0 && got < op->length) {
            handle->mayHaveInput = false;
        }
        handle->recvs.pop();
        completeLocked(handle, op, 0, static_cast<unsigned long>(got));
    }
}

}  // namespace zrt_aio
