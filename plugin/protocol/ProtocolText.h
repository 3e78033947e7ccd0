// The message text that the filter chain speaks, shared by requests and
// responses:
//   first line CRLF, header lines "Name: value" CRLF, an empty line CRLF, body.
// A header value is also split into attributes at ";" and "=".
#ifndef HTTPWRAPPER_PROTOCOL_PROTOCOLTEXT_H
#define HTTPWRAPPER_PROTOCOL_PROTOCOLTEXT_H

#include <string>

#include "protocol/ProtocolCommon.h"

namespace HttpWrapper {

// Finds the header terminator in the zero-terminated text, takes the bytes
// behind it (up to length) as the body, appends the header lines as heads and
// returns the first line. False, with nothing changed, when there is no
// terminator. Malformed lines are skipped.
bool ParseMessageText(const char* text, int length, CProtocolCommon& common, std::string& firstLine);

// Writes a message into a caller's buffer. Every piece is formatted at the
// current position and the position advances by the piece's full length, so
// the position always counts the bytes of the whole message even when the
// buffer is too small; nothing is ever written past the buffer's end.
class CMessageTextWriter {
public:
    CMessageTextWriter(char* buffer, int size);

    void Format(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // Writes every head, the empty line and the body (when it fits), and
    // returns the length of the whole message, body included.
    int FinishMessage(CProtocolCommon& common);

private:
    void WriteHead(PROTOCOL_FILTER::IProtocolHead* head);

    char* m_pBuffer;
    long long m_llSize;
    long long m_llPosition;
};

}  // namespace HttpWrapper

#endif  // HTTPWRAPPER_PROTOCOL_PROTOCOLTEXT_H
