// One accepted connection, shared by the listener's I/O thread, the handle
// table and any owner call in progress.
//
// Ownership: the I/O thread holds a reference while the socket is in its epoll
// set, the handle table while the owner knows the handle, and Reply, SetParam
// and GetParamV2 for the length of the call. The socket is closed only when the
// last reference goes, so no thread ever writes to a descriptor number that was
// closed and reused under it. Ending a connection shuts the socket down
// instead, which wakes a Reply waiting for it to drain.
#ifndef NETUTILS_CONNECTION_H
#define NETUTILS_CONNECTION_H

#include "ReplyStage.h"
#include "RequestParser.h"

#include <sys/uio.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

namespace netutils {

class FileDelivery;
class LoopMailbox;

class Connection {
public:
    // Why a connection ended; the first reason wins.
    enum class End : int {
        Open = 0,
        Completed,     // the reply reached the length its head announced
        ClientGone,    // the client closed or reset the connection
        Broken,        // a send failed, or the head could not be sent in time
        Closed,        // the owner released the handle and let the written bytes drain
        Aborted,       // the owner released the handle without draining
        ListenerGone,  // the listener was destroyed
    };

    Connection(int fd, uint64_t id, int sendTimeoutMs, std::shared_ptr<LoopMailbox> mailbox);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    int fd() const { return m_fd; }
    uint64_t id() const { return m_id; }
    int sendTimeoutMs() const { return m_sendTimeoutMs; }

    // I/O thread, before the handle is published; read-only for everyone afterwards.
    void adoptRequest(std::unique_ptr<RequestParser> request) { m_request = std::move(request); }
    const RequestParser& request() const { return *m_request; }

    // Owner calls, from any thread. Each returns NET_ERR_NONE or the error to record.
    int stage(int kind, const char* name, int nameLength, const void* value, int valueLength);
    int reply(int& bodyBytesWritten);
    void close(bool flush);
    // Resets the connection; the handle stays the owner's.
    void abort() { endAndNotify(End::Aborted); }
    // From now on the body is the I/O thread's to write (Reply is refused). bodyLeft: what the head still
    // allows, -1 when it announced no length.
    int beginFile(int64_t& bodyLeft);
    // Hands the file to the I/O thread; false (the file still the caller's) once the listener has stopped.
    bool postFile(std::unique_ptr<FileDelivery>& file);

    // Ends the connection (first caller only: returns whether this call did).
    bool end(End reason);
    bool isEnded() const { return m_end.load() != static_cast<int>(End::Open); }
    End endReason() const { return static_cast<End>(m_end.load()); }
    // An owner handed a file over (it may still be on its way to the I/O thread).
    bool fileTaken() const { return m_fileTaken.load(); }
    bool isClosedByOwner() const { return m_closedByOwner.load(); }

private:
    enum class SendStatus { Done, TimedOut, Broken, Ended };
    struct SendResult {
        SendStatus status;
        size_t headLeft;   // bytes of the head not yet sent
        size_t bodyBytes;  // body bytes sent
    };

    SendResult sendAll(iovec* iov, int count, size_t headLength, int timeoutMs);
    // Ends the connection from an owner's call and tells the I/O thread.
    void endAndNotify(End reason);

    const int m_fd;
    const uint64_t m_id;
    const int m_sendTimeoutMs;  // the listener's default
    const std::shared_ptr<LoopMailbox> m_mailbox;
    std::unique_ptr<RequestParser> m_request;

    std::atomic<int> m_end{static_cast<int>(End::Open)};
    std::atomic<bool> m_closedByOwner{false};

    // Guards the staged items and the reply progress below. Held for the whole of a Reply:
    // it belongs to this connection alone, and Close never takes it (Close must interrupt
    // a Reply, not wait for it).
    std::mutex m_replyMutex;
    ReplyStage m_stage;
    std::string m_head;
    bool m_headSent = false;
    int64_t m_announcedLength = ReplyStage::kUnknownLength;
    int64_t m_bodySent = 0;
    std::atomic<bool> m_fileTaken{false};  // the I/O thread writes the rest of the body
};

}  // namespace netutils

#endif
