// A raw loopback TCP client: sends exact bytes, reads exact bytes. Header-only,
// for the suites that link no support library.
#ifndef TESTS_SUPPORT_TESTCLIENT_H
#define TESTS_SUPPORT_TESTCLIENT_H

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>

namespace nettest {

class TestClient {
public:
    ~TestClient() { close(); }

    // receiveBuffer > 0 shrinks the receive window before connecting (a slow reader).
    bool connectTo(int port, int receiveBuffer = 0)
    {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (receiveBuffer > 0) {
            setsockopt(m_fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
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

#endif
