// A raw loopback TCP client: sends exact bytes, reads exact bytes; and on it an
// HTTP client for tests that check exact framing. Header-only, for the suites
// that link no support library.
#ifndef TESTS_SUPPORT_TESTCLIENT_H
#define TESTS_SUPPORT_TESTCLIENT_H

#include <arpa/inet.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>

namespace nettest {

class TestClient {
public:
    ~TestClient() { close(); }

    // receiveBuffer > 0 shrinks the receive window before connecting (a slow reader); source: another
    // loopback address to come from (127.0.0.2, ...), as a second client host would.
    bool connectTo(int port, int receiveBuffer = 0, const char* source = nullptr)
    {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (receiveBuffer > 0) {
            setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
        }
        if (source != nullptr) {
            sockaddr_in local{};
            local.sin_family = AF_INET;
            if (inet_pton(AF_INET, source, &local.sin_addr) != 1 ||
                bind(m_fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
                return false;
            }
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
    }

    bool send(const std::string& bytes)
    {
        for (size_t done = 0; done < bytes.size();) {
            const ssize_t sent = ::send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            done += static_cast<size_t>(sent);
        }
        return true;
    }

    // Up to `limit` bytes; "" on end, error or when nothing came within timeoutMs.
    std::string receiveSome(size_t limit, int timeoutMs)
    {
        pollfd readable{m_fd, POLLIN, 0};
        std::string bytes(limit, '\0');
        const ssize_t got = poll(&readable, 1, timeoutMs) > 0 ? recv(m_fd, &bytes[0], limit, 0) : 0;
        bytes.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return bytes;
    }

    // Everything until the server closes, or until nothing came for timeoutMs.
    std::string receiveAll(int timeoutMs, size_t limit = SIZE_MAX)
    {
        std::string bytes;
        while (bytes.size() < limit) {
            const std::string piece = receiveSome(std::min<size_t>(limit - bytes.size(), 65536), timeoutMs);
            if (piece.empty()) {
                break;
            }
            bytes += piece;
        }
        return bytes;
    }

    // True when the server closed within timeoutMs (what arrives meanwhile is dropped).
    bool waitForClose(int timeoutMs)
    {
        char sink[65536];
        for (pollfd readable{m_fd, POLLIN, 0}; poll(&readable, 1, timeoutMs) > 0;) {
            if (recv(m_fd, sink, sizeof(sink), 0) <= 0) {
                return true;
            }
        }
        return false;
    }

    // resetting: close as a client that vanishes does, with a reset.
    void close(bool resetting = false)
    {
        if (m_fd >= 0 && resetting) {
            const linger abortive = {1, 0};
            setsockopt(m_fd, SOL_SOCKET, SO_LINGER, &abortive, sizeof(abortive));
        }
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = -1;
    }

private:
    int m_fd = -1;
};

}  // namespace nettest

struct RawResponse {
    bool complete = false;  // the server closed, or a chunked body ended
    std::string raw;        // every byte received
    int status = 0;
    std::string body;  // as sent (chunked bodies still framed)

    // The value of a header of the head (name in lower case), "" when absent.
    std::string header(const std::string& name) const
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
};

class RawHttpClient : public nettest::TestClient {
public:
    explicit RawHttpClient(int port) : m_port(port) {}

    // Sends the request on a new connection.
    bool start(const std::string& request) { return close(), connectTo(m_port) && send(request); }

    // Sends the request and reads until the server closes, a chunked body ends
    // (the server then waits for the client to close), or timeoutMs pass
    // without a byte.
    RawResponse exchange(const std::string& request, int timeoutMs = 5000)
    {
        RawResponse response;
        if (!start(request)) {
            return response;
        }
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

private:
    int m_port;
};

#endif  // TESTS_SUPPORT_TESTCLIENT_H
