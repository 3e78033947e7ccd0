#include "RawHttpClient.h"

#include <stdlib.h>

#include <algorithm>
#include <cctype>

namespace {

RawResponse parse(const std::string& raw, bool complete)
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
    response.status = response.statusLine.size() > 9 ? atoi(response.statusLine.c_str() + 9) : 0;
    for (size_t position = lineEnd + 2, end; position < headEnd; position = end + 2) {
        end = raw.find("\r\n", position);
        std::string line = raw.substr(position, end - position);
        size_t colon = line.find(':');
        if (colon != std::string::npos) {
            std::string name = line.substr(0, colon);
            std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
            size_t valueStart = line.find_first_not_of(' ', colon + 1);
            response.headers[name] = valueStart == std::string::npos ? "" : line.substr(valueStart);
        }
    }
    response.body = raw.substr(headEnd + 4);
    return response;
}

// A chunked body ends with its terminator; the server then waits for the
// client to close, so the reader must not wait for the server.
bool chunkedBodyEnded(const RawResponse& response)
{
    if (response.headers.count("transfer-encoding") == 0) {
        return false;
    }
    const std::string& body = response.body;
    for (size_t position = 0;;) {
        size_t lineEnd = body.find("\r\n", position);
        if (lineEnd == std::string::npos) {
            return false;
        }
        unsigned long size = strtoul(body.c_str() + position, nullptr, 16);
        position = lineEnd + 2 + size + 2;
        if (size == 0) {
            return position == body.size();
        }
    }
}

}  // namespace

RawResponse RawHttpClient::exchange(const std::string& request, int timeoutMs)
{
    if (!start(request)) {
        return RawResponse();
    }
    std::string raw;
    for (std::string piece; !(piece = receiveSome(65536, timeoutMs)).empty();) {
        raw += piece;
        RawResponse response = parse(raw, true);
        if (chunkedBodyEnded(response)) {
            return response;
        }
    }
    return parse(raw, waitForClose(0));  // closed, or silent for timeoutMs
}
