#include "RequestParser.h"

#include "DigestCredentials.h"

#include <strings.h>

#include <algorithm>
#include <climits>
#include <cstring>

namespace netutils {

namespace {

RequestParser::Result resultOf(http_errno error)
{
    // http-parser's own header limit (80 KiB) lies above ours, but a client can still reach it
    // with white space that our per-line accounting does not see.
    return error == HPE_HEADER_OVERFLOW ? RequestParser::Result::TooLarge : RequestParser::Result::BadRequest;
}

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

}  // namespace

RequestParser::RequestParser()
{
    http_parser_init(&m_parser, HTTP_REQUEST);
    m_parser.data = this;
}

const http_parser_settings& RequestParser::settings()
{
    static const http_parser_settings s = [] {
        http_parser_settings value;
        http_parser_settings_init(&value);
        value.on_url = &RequestParser::onUrl;
        value.on_header_field = &RequestParser::onHeaderField;
        value.on_header_value = &RequestParser::onHeaderValue;
        value.on_headers_complete = &RequestParser::onHeadersComplete;
        value.on_body = &RequestParser::onBody;
        value.on_message_complete = &RequestParser::onMessageComplete;
        return value;
    }();
    return s;
}

RequestParser::Result RequestParser::feed(const char* data, size_t length)
{
    // http-parser reads a zero length as the end of the stream; the socket layer reports that itself.
    if (m_result != Result::Incomplete || length == 0) {
        return m_result;
    }
    if (!m_requestLineDone && scanRequestLine(data, length) != 0) {
        return m_result;
    }
    m_chunk = data;
    const size_t consumed = http_parser_execute(&m_parser, &settings(), data, length);
    m_chunk = nullptr;
    if (m_result != Result::Incomplete) {
        return m_result;  // decided by a callback: complete, or over a limit
    }
    if (HTTP_PARSER_ERRNO(&m_parser) != HPE_OK) {
        return m_result = resultOf(HTTP_PARSER_ERRNO(&m_parser));
    }
    if (consumed != length) {
        return m_result = Result::BadRequest;
    }
    m_fedBefore += consumed;
    // A line or a block that is still open is held to the limit as well, so that a client
    // cannot make us buffer it for ever.
    if (!m_requestLineDone && m_fedBefore > kMaxRequestLine + 2) {
        m_result = Result::TooLarge;
    } else if (m_requestLineDone && !m_headersDone && m_fedBefore - m_headerStart > kMaxHeaderBlock) {
        m_result = Result::TooLarge;
    }
    return m_result;
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
    return -1;  // any non-zero result stops http-parser at once
}

int RequestParser::scanRequestLine(const char* data, size_t length)
{
    // The line ends at its first LF. http-parser skips empty lines in front of a request, so an
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

int RequestParser::onUrl(http_parser* parser, const char* at, size_t length)
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

int RequestParser::onHeaderField(http_parser* parser, const char* at, size_t length)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    const size_t offset = self->streamOffset(at);
    if (offset + length - self->m_headerStart > kMaxHeaderBlock) {
        return self->stop(Result::TooLarge);
    }
    // A name continues over a chunk boundary only when the bytes are adjacent; otherwise this is
    // the next header (an empty value produces no value callback in between).
    if (self->m_headers.empty() || self->m_inHeaderValue || offset != self->m_fieldEnd) {
        self->m_headers.emplace_back();
    }
    self->m_headers.back().first.append(at, length);
    self->m_fieldEnd = offset + length;
    self->m_inHeaderValue = false;
    return 0;
}

int RequestParser::onHeaderValue(http_parser* parser, const char* at, size_t length)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    const size_t offset = self->streamOffset(at);
    if (offset + length - self->m_headerStart > kMaxHeaderBlock) {
        return self->stop(Result::TooLarge);
    }
    std::string& value = self->m_headers.back().second;
    // A second value callback without a name in between is either the rest of a value split
    // over two reads (adjacent) or a folded continuation line, which joins with one space.
    if (self->m_inHeaderValue && offset != self->m_valueEnd && !value.empty()) {
        value.push_back(' ');
    }
    value.append(at, length);
    self->m_valueEnd = offset + length;
    self->m_inHeaderValue = true;
    return 0;
}

int RequestParser::onHeadersComplete(http_parser* parser)
{
    auto* self = static_cast<RequestParser*>(parser->data);
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
    if (!chunked && parser->content_length != ULLONG_MAX && parser->content_length > kMaxBody) {
        return self->stop(Result::TooLarge);  // refuse before the client sends it
    }
    const std::string* expect = self->findHeader("Expect", 6);
    if (expect != nullptr && equalsIgnoreCase(*expect, "100-continue") &&
        (chunked || (parser->content_length != ULLONG_MAX && parser->content_length > 0))) {
        self->m_continuePending = true;
    }
    return 0;
}

int RequestParser::onBody(http_parser* parser, const char* at, size_t length)
{
    auto* self = static_cast<RequestParser*>(parser->data);
    if (self->m_body.size() + length > kMaxBody) {
        return self->stop(Result::TooLarge);  // a chunked body has no announced length to check first
    }
    self->m_body.append(at, length);
    return 0;
}

int RequestParser::onMessageComplete(http_parser* parser)
{
    // Stopping here leaves whatever follows the request unread: one request per connection.
    return static_cast<RequestParser*>(parser->data)->stop(Result::Complete);
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
