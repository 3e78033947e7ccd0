#include "RawHttpClient.h"

#include <stdlib.h>

#include <algorithm>
#include <cctype>

namespace {
// A chunked body ends with its terminator; the server then waits for the client
// to close, so the reader must not wait for the server.
bool chunkedBodyEnded(const std::string& raw)
{
    size_t headEnd = raw.find("\r\n\r\n");
    if (headEnd == std::string::npos || raw.size() < headEnd + 9) {
        return false;
    }
    RawResponse head = RawHttpClient::parse(raw.substr(0, headEnd + 4), false);
    return head.headers["transfer-encoding"] == "chunked" && raw.compare(raw.size() - 5, 5, "0\r\n\r\n") == 0;
}
}  // namespace

RawResponse RawHttpClient::readResponse(int timeoutMs)
{
    std::string raw;
    for (std::string piece; !(piece = m_client.receiveSome(65536, timeoutMs)).empty();) {
        raw += piece;
        std::string plain;
        if (chunkedBodyEnded(raw) && parse(raw, true).dechunk(plain)) {
            return parse(raw, true);
        }
    }
    return parse(raw, m_client.waitForClose(0));  // closed, or silent for timeoutMs
}

RawResponse RawHttpClient::exchange(const std::string& request, int timeoutMs)
{
    if (!connect() || !sendAll(request)) {
        return RawResponse();
    }
    return readResponse(timeoutMs);
}

std::string RawHttpClient::request(const std::string& method, const std::string& target, const std::string& body,
                                   const std::string& extraHeaders)
{
    std::string text = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extraHeaders;
    if (!body.empty() || method == "POST" || method == "PUT") {
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    return text + "\r\n" + body;
}

RawResponse RawHttpClient::parse(const std::string& raw, bool complete)
{
    RawResponse response;
    response.raw = raw;
    response.complete = complete;
    size_t headEnd = raw.find("\r\n\r\n");
    if (headEnd == std::string::npos) {
        return response;
    }
    size_t lineEnd = raw.find("\r\n");
    response.statusLine = raw.substr(0, lineEnd);
    if (response.statusLine.size() > 9) {
        response.status = atoi(response.statusLine.c_str() + 9);
    }
    size_t position = lineEnd + 2;
    while (position < headEnd) {
        size_t end = raw.find("\r\n", position);
        std::string line = raw.substr(position, end - position);
        size_t colon = line.find(':');
        if (colon != std::string::npos) {
            std::string name = line.substr(0, colon);
            std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
            size_t valueStart = line.find_first_not_of(' ', colon + 1);
            response.headers[name] = valueStart == std::string::npos ? "" : line.substr(valueStart);
        }
        position = end + 2;
    }
    response.body = raw.substr(headEnd + 4);
    return response;
}

bool RawResponse::dechunk(std::string& out) const
{
    out.clear();
    size_t position = 0;
    for (;;) {
        size_t lineEnd = body.find("\r\n", position);
        if (lineEnd == std::string::npos) {
            return false;
        }
        std::string sizeText = body.substr(position, lineEnd - position);
        char* end = nullptr;
        unsigned long size = strtoul(sizeText.c_str(), &end, 16);
        if (sizeText.empty() || *end != '\0') {
            return false;
        }
        position = lineEnd + 2;
        if (size == 0) {
            return body.compare(position, 2, "\r\n") == 0;
        }
        if (position + size + 2 > body.size() || body.compare(position + size, 2, "\r\n") != 0) {
            return false;
        }
        out.append(body, position, size);
        position += size + 2;
    }
}
