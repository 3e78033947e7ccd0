#include "ReplyStage.h"

#include <strings.h>

#include <climits>
#include <cstdio>
#include <cstring>

namespace netutils {

namespace {

bool sameName(const char* name, size_t nameLength, const char* known)
{
    return strlen(known) == nameLength && strncasecmp(name, known, nameLength) == 0;
}

// CR and LF would let a value end the head early; NUL has no place in a header either.
bool isSafeText(const char* text, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        if (text[i] == '\r' || text[i] == '\n' || text[i] == '\0') {
            return false;
        }
    }
    return true;
}

bool isTokenText(const char* text, size_t length)
{
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c <= ' ' || c >= 0x7F || c == ':') {
            return false;
        }
    }
    return length > 0;
}

// Decimal digits between optional white space; kUnknownLength otherwise.
int64_t parseLength(const char* text, size_t length)
{
    size_t i = 0;
    while (i < length && (text[i] == ' ' || text[i] == '\t')) {
        ++i;
    }
    int64_t value = 0;
    size_t digits = 0;
    for (; i < length && text[i] >= '0' && text[i] <= '9'; ++i, ++digits) {
        if (value > (INT64_MAX - 9) / 10) {
            return ReplyStage::kUnknownLength;
        }
        value = value * 10 + (text[i] - '0');
    }
    while (i < length && (text[i] == ' ' || text[i] == '\t')) {
        ++i;
    }
    return (digits > 0 && i == length) ? value : ReplyStage::kUnknownLength;
}

}  // namespace

namespace {

struct Reason {
    int status;
    const char* phrase;
};

// The reason phrases of every status line this library writes. They are the
// ones the plug-in's own status texts use, so a client sees one wording
// whichever of the two wrote the line.
const Reason kReasons[] = {
    {100, "Continue"},
    {101, "Switching Protocols"},
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {203, "Non-Authoritative Information"},
    {204, "No Content"},
    {205, "Reset Content"},
    {206, "Partial Content"},
    {300, "Multiple Choices"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {305, "Use Proxy"},
    {307, "Temporary Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {402, "Payment Required"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {407, "Proxy Authentication Required"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Request Entity Too Large"},
    {414, "Request-URI Too Long"},
    {415, "Unsupported Media Type"},
    {416, "Requested Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
    {509, "Bandwidth Limit Exceeded"},
};

}  // namespace

const char* reasonPhrase(int status)
{
    for (const Reason& reason : kReasons) {
        if (reason.status == status) {
            return reason.phrase;
        }
    }
    return "";  // an empty reason phrase is valid HTTP
}

bool ReplyStage::setStatus(int status)
{
    if (status < 100 || status > 999) {
        return false;
    }
    m_status = status;
    return true;
}

bool ReplyStage::addHeader(const char* name, size_t nameLength, const char* value, size_t valueLength)
{
    if (!isTokenText(name, nameLength) || !isSafeText(value, valueLength)) {
        return false;
    }
    // The server closes every connection after its reply and says so itself; a second,
    // contradicting Connection header would only confuse the client.
    if (sameName(name, nameLength, "Connection")) {
        return true;
    }
    if (sameName(name, nameLength, "Content-Length")) {
        m_contentLengthStaged = true;
        m_stagedContentLength = parseLength(value, valueLength);
    } else if (sameName(name, nameLength, "Transfer-Encoding")) {
        m_transferEncodingStaged = true;
    }
    m_headers.append(name, nameLength).append(": ").append(value, valueLength).append("\r\n");
    return true;
}

bool ReplyStage::addBody(const void* data, size_t length)
{
    if (length == 0) {
        return true;
    }
    // Reply reports the bytes written as an int.
    if (m_pieceCount == kMaxBodyPieces || length > static_cast<size_t>(INT_MAX) - m_bodyLength) {
        return false;
    }
    m_pieces[m_pieceCount].iov_base = const_cast<void*>(data);
    m_pieces[m_pieceCount].iov_len = length;
    ++m_pieceCount;
    m_bodyLength += length;
    return true;
}

void ReplyStage::clear()
{
    m_status = 200;
    m_headers.clear();
    m_contentLengthStaged = false;
    m_stagedContentLength = kUnknownLength;
    m_transferEncodingStaged = false;
    m_streamed = false;
    m_sendTimeoutMs = -1;
    m_pieceCount = 0;
    m_bodyLength = 0;
}

void ReplyStage::buildHead(std::string& out) const
{
    char line[64];
    snprintf(line, sizeof(line), "HTTP/1.1 %d %s\r\n", m_status, reasonPhrase(m_status));
    out.assign(line);
    out.append(m_headers);
    out.append("Connection: close\r\n");
    if (!m_contentLengthStaged && !m_transferEncodingStaged && !m_streamed) {
        snprintf(line, sizeof(line), "Content-Length: %zu\r\n", m_bodyLength);
        out.append(line);
    }
    out.append("\r\n");
}

int64_t ReplyStage::announcedLength() const
{
    // A chunked body has its own framing and ends with the connection, whatever else was staged.
    if (m_transferEncodingStaged) {
        return kUnknownLength;
    }
    if (m_contentLengthStaged) {
        return m_stagedContentLength;
    }
    return m_streamed ? kUnknownLength : static_cast<int64_t>(m_bodyLength);
}

}  // namespace netutils
