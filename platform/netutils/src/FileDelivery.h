// A file that the listener's I/O thread writes to a connection as the rest of
// a streamed reply's body, whenever the socket has room.
//
// Nothing is held per connection but the position: with reads, the loop's
// one buffer takes the next piece, and what the socket did not take is read
// again next time (from the page cache); with sendfile the kernel moves the
// bytes itself. Chunked framing is the one the owner's block-by-block replies
// make: the file in chunks of the chunk size, each "<HEX>" CR LF, the bytes,
// CR LF, then "0" CR LF CR LF. The framing owed is kept in a few bytes of its
// own, so a socket that takes half a chunk line loses nothing.
//
// The stall time-out and the minimum rate are checked by the loop at the
// times nextCheck() gives, not per write.
#ifndef NETUTILS_FILEDELIVERY_H
#define NETUTILS_FILEDELIVERY_H

#include "netutils/VQNetUtils.h"

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace netutils {

class FileDelivery {
public:
    using Clock = std::chrono::steady_clock;

    enum class Step {
        Blocked,    // the socket is full (or this wake-up's share is written): wait until it is writable
        Done,       // every byte and the framing are written
        Broken,     // a send failed: the client is gone
        ReadError,  // the file ended early or could not be read
    };

    FileDelivery(int handle, const NET_HTTPSERVER_FILE_PARAM& param, int defaultStallMs);
    // Closes the file unless it was given back.
    ~FileDelivery();
    FileDelivery(const FileDelivery&) = delete;
    FileDelivery& operator=(const FileDelivery&) = delete;

    // The caller keeps the descriptor after all (the file was not taken).
    void giveBack() { m_fd = -1; }
    // bodyLeft: body bytes the reply's head still allows (-1: no bound); a plain file is cut to it.
    void limitBody(int64_t bodyLeft);

    // Writes while the socket takes bytes, up to maxBytes of the file; buffer is the loop's (reads only).
    Step pump(int socketFd, char* buffer, size_t bufferSize, size_t maxBytes, Clock::time_point now);

    // The time limits start counting.
    void start(Clock::time_point now);
    // When check() must look next.
    Clock::time_point nextCheck() const;
    // NET_FILE_SEND_TIMEOUT or NET_FILE_TOO_SLOW when a limit was missed at `now`, else -1 (a window that
    // closed in time opens the next).
    int check(Clock::time_point now);

    // Closes the file, then calls the owner's callback with the outcome; only the first call does.
    void finish(int outcome);

    uint64_t fileBytesSent() const { return m_fileSent; }

private:
    Step pumpOnce(int socketFd, char* buffer, size_t bufferSize, size_t maxBytes);
    Step readAndSend(int socketFd, char* buffer, size_t bufferSize, size_t maxBytes);
    Step sendFramingThenFile(int socketFd, size_t maxBytes);
    // The framing after the current chunk's bytes: CR LF, then the next chunk's line or the last chunk.
    size_t nextFraming(char* out, uint64_t& nextChunk) const;
    void consumeFile(size_t bytes);
    bool done() const { return m_fileLeft == 0 && m_framePos == m_frameLength; }

    const int m_handle;
    int m_fd;
    const uint32_t m_chunkSize;
    const bool m_useSendfile;
    const NET_HTTPSERVER_FILE_CB m_done;
    void* const m_user;
    bool m_finished = false;

    uint64_t m_offset;
    uint64_t m_fileLeft;
    uint64_t m_chunkLeft = 0;  // chunked: file bytes left in the current chunk
    uint64_t m_fileSent = 0;
    char m_frame[24] = {};  // framing owed before the next file bytes
    size_t m_frameLength = 0;
    size_t m_framePos = 0;

    const std::chrono::milliseconds m_stall;
    const uint64_t m_minRate;
    const std::chrono::seconds m_window;
    Clock::time_point m_lastProgress;
    Clock::time_point m_windowStart;
    uint64_t m_windowStartBytes = 0;
};

}  // namespace netutils

#endif
