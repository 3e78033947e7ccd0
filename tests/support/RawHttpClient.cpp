#include "RawHttpClient.h"

#include <stdlib.h>

#include <algorithm>
#include <cctype>

std::string RawResponse::header(const std::string& name) const
{
    std::string head = raw.substr(0, raw.find("\r\n\r\n") + 2);
    std::transform(head.begin(), head.end(), head.begin(), [](unsigned char c) { return std::tolower(c); });
    size_t start = head.find("\r\n" + name + ":");
    if (start == std::string::npos) {
        return "";
    }
    start = raw.find_first_not_of(' ', start + name.size() + 3);
    return raw.substr(start, raw.find("\r\n", start) - start);
}

RawResponse RawHttpClient::exchange(const std::string& request, int timeoutMs)
{
    RawResponse response;
    if (!start(request)) {
        return response;
    }
    // A chunked body ends with its terminator; the server then waits for the
    // client to close, so the reader must not wait for the server.
    for (std::string piece; !response.complete && !(piece = receiveSome(65536, timeoutMs)).empty();) {
        response.raw += piece;
        response.complete = response.raw.size() > 7 &&
                            response.raw.compare(response.raw.size() - 7, 7, "\r\n0\r\n\r\n") == 0 &&
                            response.header("transfer-encoding") == "chunked";
    }
    response.complete = response.complete || waitForClose(0);  // closed, or silent for timeoutMs
    size_t headEnd = response.raw.find("\r\n\r\n");
    if (headEnd != std::string::npos) {
        response.status = atoi(response.raw.c_str() + 9);
        response.body = response.raw.substr(headEnd + 4);
    }
    return response;
}
