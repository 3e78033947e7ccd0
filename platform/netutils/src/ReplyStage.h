// The items an owner stages for its next reply, and the head they make.
//
// Body pieces are referenced, not copied: they point into the owner's buffer
// until the reply that writes them returns. Headers are copied (they are small)
// into one buffer that keeps its capacity, so that staging a body block and
// replying allocate nothing once a connection has sent its head.
#ifndef NETUTILS_REPLYSTAGE_H
#define NETUTILS_REPLYSTAGE_H

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace netutils {

// Reason phrase of a status code, "" for codes without a standard one.
const char* reasonPhrase(int status);

class ReplyStage {
public:
    static constexpr int kMaxBodyPieces = 8;
    static constexpr int64_t kUnknownLength = -1;

    ReplyStage() { m_headers.reserve(256); }

    // Each returns false for a value the reply cannot carry.
    bool setStatus(int status);
    bool addHeader(const char* name, size_t nameLength, const char* value, size_t valueLength);
    bool addBody(const void* data, size_t length);
    void setSendTimeout(int milliseconds) { m_sendTimeoutMs = milliseconds; }
    void setStreamed() { m_streamed = true; }

    // Forgets every staged item; buffers keep their capacity.
    void clear();

    // -1 when no time-out was staged.
    int sendTimeout() const { return m_sendTimeoutMs; }
    size_t bodyLength() const { return m_bodyLength; }
    int bodyPieceCount() const { return m_pieceCount; }
    const iovec& bodyPiece(int index) const { return m_pieces[index]; }

    // Status line, the staged headers in staging order, "Connection: close", and a
    // Content-Length of the staged body unless the length is the owner's to give.
    void buildHead(std::string& out) const;
    // Body length the head announces: the computed or staged Content-Length, or
    // kUnknownLength for a chunked or streamed body that ends with the connection.
    int64_t announcedLength() const;

private:
    int m_status = 200;
    std::string m_headers;  // "Name: value\r\n" lines
    bool m_contentLengthStaged = false;
    int64_t m_stagedContentLength = kUnknownLength;  // kUnknownLength when not a plain number
    bool m_transferEncodingStaged = false;
    bool m_streamed = false;
    int m_sendTimeoutMs = -1;
    iovec m_pieces[kMaxBodyPieces] = {};
    int m_pieceCount = 0;
    size_t m_bodyLength = 0;
};

}  // namespace netutils

#endif
