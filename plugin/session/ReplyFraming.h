// How a streamed reply's bytes are framed on the wire, apart from moving them:
// the head's headers, what goes before and after each media block, and what
// ends the body. The session's send path only moves bytes; every framing rule
// of a download lives here.
//
// A download's body is the gateway's 40-byte stream head followed by the media
// file, so the announced length is the file's length plus 40. With a length,
// blocks go out as they are; without one (a download that names neither a
// recording nor a size), each block is one chunk: its length in upper-case
// hexadecimal, CR LF, the bytes, CR LF, and the body ends with "0\r\n\r\n".
//
// A download whose client asked for a range (never a chunked one) gets its
// head from what the gateway reports it serves (session/ByteRange.h); blocks
// then go out bare, as with a length.
#ifndef HTTPWRAPPER_SESSION_REPLYFRAMING_H
#define HTTPWRAPPER_SESSION_REPLYFRAMING_H

#include <string>
#include <utility>
#include <vector>

#include <ext/StreamBlockLayout.h>

#include "session/ByteRange.h"

namespace HttpWrapper {

class CReplyFraming {
public:
    typedef std::vector<std::pair<std::string, std::string>> Headers;

    // The bytes the gateway sends before the media file.
    static const unsigned long long kStreamHeadLength = StreamBlock::kHeadSize;

    void setChunked(bool chunked) { m_bChunked = chunked; }
    bool isChunked() const { return m_bChunked; }
    // The body's length for a media file of fileLength bytes.
    static unsigned long long announcedLength(unsigned long long fileLength) { return fileLength + kStreamHeadLength; }

    // The headers of the 200 head of a body of bodyLength bytes, in the order
    // they are staged.
    Headers head(unsigned long long bodyLength) const;
    // The status and headers of the head of a ranged download: 206 for a part,
    // 416 when nothing of the body is in range, 200 with the whole body when
    // the client's validator was stale. Only requests with Range get here, so
    // only their replies announce Accept-Ranges and the tag.
    static int rangedStatus(const CServedRange& served);
    static Headers rangedHead(const CServedRange& served, unsigned long long bodyLength);
    // What precedes and follows one block of `length` bytes (empty with a length).
    std::string blockPrefix(int length) const;
    std::string blockSuffix() const;
    // What ends the body (empty with a length).
    std::string end() const;

    // Upper-case hexadecimal digits of a positive value, no leading zeros; 0 or
    // a negative value gives an empty string (a chunk line of an empty block
    // is then a bare CR LF, as the gateway has always seen it; Q15).
    static std::string decToHex(int value);

private:
    bool m_bChunked = false;  // set before the gateway's delivery starts, read by it
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_SESSION_REPLYFRAMING_H
