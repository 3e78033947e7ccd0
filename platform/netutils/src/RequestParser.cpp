#include "RequestParser.h"

#include "DigestCredentials.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

namespace netutils {

namespace {

int methodCodeOf(unsigned method)
{
    switch (method) {
    case HTTP_GET: return NET_HTTP_METHOD_GET;
    case HTTP_PUT: return NET_HTTP_METHOD_PUT;
    case HTTP_POST: return NET_HTTP_METHOD_POST;
    case HTTP_DELETE: return NET_HTTP_METHOD_DELETE;
    default: return NET_HTTP_METHOD_OTHER;
    }
}

bool equalsIgnoreCase(const std::string& text, const char* other)
{
    return strcasecmp(text.c_str(), other) == 0;
}

void copyCut(char* field, size_t fieldSize, const std::string& value)
{
    const size_t length = std::min(value.size(), fieldSize - 1);
    memcpy(field, value.data(), length);
    field[length] = '\0';
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

}  // namespace

RequestParser::RequestParser()
{
    llhttp_init(&m_parser, HTTP_REQUEST, &settings());
    m_parser.data = this;
}

const llhttp_settings_t& RequestParser::settings()
{
    static const llhttp_settings_t s = [] {
        llhttp_settings_t value;
        llhttp_settings_init(&value);
        value.on_url = &RequestParser::onUrl;
        value.on_version = &RequestParser::onVersion;
        value.on_version_complete = &RequestParser::onVersionComplete;
        value.on_header_field = &RequestParser::onHeaderField;
        value.on_header_field_complete = &RequestParser::onHeaderFieldComplete;
        value.on_header_value = &RequestParser::onHeaderValue;
        value.on_header_value_complete = &RequestParser::onHeaderValueComplete;
        value.on_headers_complete = &RequestParser::onHeadersComplete;
        value.on_body = &RequestParser::onBody;
        value.on_message_complete = &RequestParser::onMessageComplete;
        return value;
    }();
    return s;
}

RequestParser::Result RequestParser::feed(const char* data, size_t length)
{
    if (m_result != Result::Incomplete || length == 0) {
        return m_result;
    }
    if (!m_requestLineDone && scanRequestLine(data, length) != 0) {
        return m_result;
    }
    m_chunk = data;
    m_chunkLength = length;
    const llhttp_errno_t error = llhttp_execute(&m_parser, data, length);
    if (m_result == Result::Incomplete && error == HPE_OK && m_awaitingValue) {
        // The rest of this read lies between a colon and its value: a line break in it folds the value.
        m_breakAfterColon = lineBreakSinceColon(data + length);
    }
    m_chunk = nullptr;
    if (m_result != Result::Incomplete) {
        return m_result;  // decided by a callback: complete, or refused
    }
    if (error != HPE_OK) {
        return m_result = errorResult();
    }
    m_fedBefore += length;
    // A line or a block that is still open is held to the limit as well, so that a client
    // cannot make us buffer it for ever.
    if (!m_requestLineDone && m_fedBefore > kMaxRequestLine + 2) {
        m_result = Result::TooLarge;
    } else if (m_requestLineDone && !m_headersDone && m_fedBefore - m_headerStart > kMaxHeaderBlock) {
        m_result = Result::TooLarge;
    }
    return m_result;
}

RequestParser::Result RequestParser::errorResult() const
{
    // "HTTP/9.9" is a version, only not ours; "HTTP/1.1x" or "HTTP/11.1" is no version at all.
    const bool versionForm =
        m_version.size() == 3 && isDigit(m_version[0]) && m_version[1] == '.' && isDigit(m_version[2]);
    if (llhttp_get_errno(&m_parser) == HPE_INVALID_VERSION && !m_versionComplete && versionForm) {
        return Result::VersionNotSupported;
    }
    return Result::BadRequest;
}

bool RequestParser::takeContinueRequest()
{
    const bool pending = m_continuePending && m_result == Result::Incomplete;
    m_continuePending = false;
    return pending;
}

int RequestParser::stop(Result result)
{
    m_result = result;
    return -1;  // any other result than 0 stops llhttp at once
}

bool RequestParser::lineBreakSinceColon(const char* at) const
{
    if (m_breakAfterColon) {
        return true;
    }
    const size_t from = std::max(m_fieldEnd, m_fedBefore) - m_fedBefore;
    const char* begin = m_chunk + std::min(from, m_chunkLength);
    return begin < at && memchr(begin, '\n', static_cast<size_t>(at - begin)) != nullptr;
}

int RequestParser::scanRequestLine(const char* data, size_t length)
{
    // The line ends at its first LF. llhttp skips empty lines in front of a request, so an
    // LF counts only once the line has begun; those empty lines still count towards the limit.
    // Finding the end in the bytes themselves, rather than at the first header name, also holds
    // a request without header lines to the limit, however its bytes are cut into reads.
    for (size_t i = 0; i < length; ++i) {
        if (data[i] != '\r' && data[i] != '\n') {
            m_requestLineStarted = true;
        } else if (data[i] == '\n' && m_requestLineStarted) {
            return endRequestLine(m_fedBefore + i + 1);
        }
    }
    return 0;
}

int RequestParser::endRequestLine(size_t offset)
{
    m_requestLineDone = true;
    m_headerStart = offset;
    return offset > kMaxRequestLine + 2 ? stop(Result::TooLarge) : 0;
}

int RequestParser::onUrl(llhttp_t* parser, const char* at, size_t length)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    // The owner serves these four methods only: any other is answered by the
    // server at once, before its headers and body, and never reaches the owner.
    if (methodCodeOf(parser->method) == NET_HTTP_METHOD_OTHER) {
        return self->stop(Result::MethodNotAllowed);
    }
    if (self->m_url.size() + length > kMaxRequestLine) {
        return self->stop(Result::TooLarge);
    }
    self->m_url.append(at, length);
    return 0;
}

int RequestParser::onVersion(llhttp_t* parser, const char* at, size_t length)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    // Only its form matters (see errorResult); the request line's limit holds the rest.
    self->m_version.append(at, std::min<size_t>(length, 8));
    return 0;
}

int RequestParser::onVersionComplete(llhttp_t* parser)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    self->m_versionComplete = true;
    if (parser->http_major != 1 || parser->http_minor > 1) {
        return self->stop(Result::VersionNotSupported);  // HTTP/2.0, which llhttp's grammar allows
    }
    return 0;
}

int RequestParser::onHeaderField(llhttp_t* parser, const char* at, size_t length)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    const size_t offset = self->streamOffset(at);
    if (offset + length - self->m_headerStart > kMaxHeaderBlock) {
        return self->stop(Result::TooLarge);
    }
    if (!self->m_inHeaderField) {
        self->m_headers.emplace_back();
        self->m_inHeaderField = true;
    }
    self->m_headers.back().first.append(at, length);
    self->m_fieldEnd = offset + length;
    return 0;
}

int RequestParser::onHeaderFieldComplete(llhttp_t* parser)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    self->m_inHeaderField = false;
    self->m_inHeaderValue = false;
    self->m_awaitingValue = true;
    self->m_breakAfterColon = false;
    return 0;
}

int RequestParser::onHeaderValue(llhttp_t* parser, const char* at, size_t length)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    const size_t offset = self->streamOffset(at);
    if (offset + length - self->m_headerStart > kMaxHeaderBlock) {
        return self->stop(Result::TooLarge);
    }
    if (length == 0) {
        return 0;  // an empty value, reported once llhttp has seen that no folded line follows
    }
    // A folded line (obs-fold) continues a value on the next line: llhttp joins it, but a proxy in
    // front may not, and would then read another header than we do. A value split over two reads
    // arrives in adjacent pieces; a fold leaves a line break between them, or between colon and value.
    const bool folded = self->m_awaitingValue ? self->lineBreakSinceColon(at) : offset != self->m_valueEnd;
    if (folded) {
        return self->stop(Result::BadRequest);
    }
    self->m_awaitingValue = false;
    self->m_inHeaderValue = true;
    self->m_headers.back().second.append(at, length);
    self->m_valueEnd = offset + length;
    return 0;
}

int RequestParser::onHeaderValueComplete(llhttp_t* parser)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    self->m_awaitingValue = false;
    self->m_inHeaderValue = false;
    // Blanks before a value are no part of it (llhttp skips them), nor those after it.
    std::string& value = self->m_headers.back().second;
    const size_t last = value.find_last_not_of(" \t");
    value.erase(last == std::string::npos ? 0 : last + 1);
    return 0;
}

int RequestParser::onHeadersComplete(llhttp_t* parser)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    if (!self->m_versionComplete) {
        return self->stop(Result::BadRequest);  // "GET /path": an HTTP/0.9 request line
    }
    if (!self->m_headers.empty()) {
        // The last line's CR LF and the empty line close the block; they come without a callback.
        const size_t blockEnd = std::max(self->m_fieldEnd + 1, self->m_valueEnd) + 4;
        if (blockEnd - self->m_headerStart > kMaxHeaderBlock) {
            return self->stop(Result::TooLarge);
        }
    }
    self->m_headersDone = true;
    self->m_methodCode = methodCodeOf(parser->method);
    const bool chunked = (parser->flags & F_CHUNKED) != 0;
    const bool hasLength = (parser->flags & F_CONTENT_LENGTH) != 0;
    if (hasLength && parser->content_length > kMaxBody) {
        return self->stop(Result::TooLarge);  // refuse before the client sends it
    }
    const std::string* expect = self->findHeader("Expect", 6);
    if (expect != nullptr && equalsIgnoreCase(*expect, "100-continue") &&
        (chunked || (hasLength && parser->content_length > 0))) {
        self->m_continuePending = true;
    }
    return 0;
}

int RequestParser::onBody(llhttp_t* parser, const char* at, size_t length)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    if (self->m_body.size() + length > kMaxBody) {
        return self->stop(Result::TooLarge);  // a chunked body has no announced length to check first
    }
    self->m_body.append(at, length);
    return 0;
}

int RequestParser::onMessageComplete(llhttp_t* parser)
{
    // Pausing here leaves whatever follows the request unread: one request per connection.
    static_cast<RequestParser*>(parser->data)->m_result = Result::Complete;
    return HPE_PAUSED;
}

const std::string* RequestParser::findHeader(const char* name, size_t nameLength) const
{
    for (const auto& header : m_headers) {
        if (header.first.size() == nameLength && strncasecmp(header.first.data(), name, nameLength) == 0) {
            return &header.second;
        }
    }
    return nullptr;
}

void RequestParser::fillRequestParam(NET_HTTPSERVER_REQUEST_PARAM& block) const
{
    memset(&block, 0, sizeof(block));
    copyCut(block.szUrl, sizeof(block.szUrl), m_url);
    block.iMethod = m_methodCode;
    const std::string* authorization = findHeader("Authorization", 13);
    if (authorization != nullptr) {
        parseDigestCredentials(*authorization, block);
    }
}

}  // namespace netutils
