#include "console/PluginClient.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "base/Md5.h"
#include "base/TextHelpers.h"
#include "console/ConsoleSessions.h"

namespace {

constexpr int kCutCheckMs = 100;  // how soon a cut connection notices

std::string trim(const std::string& text)
{
    const size_t first = text.find_first_not_of(" \t");
    const size_t last = text.find_last_not_of(" \t\r");
    return first == std::string::npos ? "" : text.substr(first, last - first + 1);
}

// A parameter of a challenge: key="value" or key=value.
std::string challengeParam(const std::string& challenge, const std::string& key)
{
    size_t position = 0;
    while ((position = challenge.find(key + "=", position)) != std::string::npos) {
        if (position == 0 || challenge[position - 1] == ' ' || challenge[position - 1] == ',') {
            size_t start = position + key.size() + 1;
            if (start < challenge.size() && challenge[start] == '"') {
                const size_t end = challenge.find('"', start + 1);
                return end == std::string::npos ? "" : challenge.substr(start + 1, end - start - 1);
            }
            const size_t end = challenge.find_first_of(", ", start);
            return challenge.substr(start, end == std::string::npos ? std::string::npos : end - start);
        }
        position += key.size();
    }
    return "";
}

}  // namespace

std::string ReplyHead::field(const std::string& name) const
{
    const auto found = fields.find(name);
    return found == fields.end() ? "" : found->second;
}

PluginConnection::~PluginConnection()
{
    if (m_fd >= 0) {
        close(m_fd);
    }
}

bool PluginConnection::wait(short events, int timeoutMs)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!(m_stop && m_stop->load())) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        struct pollfd ready = {m_fd, events, 0};
        const int result = poll(&ready, 1, static_cast<int>(std::min<long long>(left.count(), kCutCheckMs)));
        if (result > 0) {
            return true;
        }
        if (result < 0 && errno != EINTR) {
            return false;
        }
    }
    return false;
}

bool PluginConnection::connect(int port, int timeoutMs, std::string& error)
{
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        error = std::string("socket: ") + strerror(errno);
        return false;
    }
    const int one = 1;
    setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 && errno != EINPROGRESS) {
        error = "port " + std::to_string(port) + ": " + strerror(errno);
        return false;
    }
    int failure = 0;
    socklen_t length = sizeof failure;
    if (!wait(POLLOUT, timeoutMs) || getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &failure, &length) != 0 || failure != 0) {
        error = "port " + std::to_string(port) + ": " + (failure ? strerror(failure) : "no connection in time");
        return false;
    }
    return true;
}

bool PluginConnection::sendAll(const char* data, size_t size, int timeoutMs)
{
    while (size > 0) {
        const ssize_t sent = send(m_fd, data, size, MSG_NOSIGNAL);
        if (sent > 0) {
            data += sent;
            size -= static_cast<size_t>(sent);
        } else if (sent < 0 && (errno == EAGAIN || errno == EINTR)) {
            if (!wait(POLLOUT, timeoutMs)) {
                return false;
            }
        } else {
            return false;
        }
    }
    return true;
}

long PluginConnection::read(char* buffer, size_t size, int timeoutMs)
{
    if (!m_pending.empty()) {
        const size_t taken = std::min(size, m_pending.size());
        memcpy(buffer, m_pending.data(), taken);
        m_pending.erase(0, taken);
        return static_cast<long>(taken);
    }
    for (;;) {
        const ssize_t got = recv(m_fd, buffer, size, 0);
        if (got >= 0) {
            return static_cast<long>(got);
        }
        if ((errno != EAGAIN && errno != EINTR) || !wait(POLLIN, timeoutMs)) {
            return -1;
        }
    }
}

bool PluginConnection::readHead(ReplyHead& head, int timeoutMs, std::string& error)
{
    std::string text;
    size_t end;
    char buffer[4096];
    while ((end = text.find("\r\n\r\n")) == std::string::npos) {
        if (text.size() > kMaxHeadBytes) {
            error = "the reply's head is too long";
            return false;
        }
        const long got = read(buffer, sizeof buffer, timeoutMs);
        if (got <= 0) {
            error = got == 0 ? "the plug-in closed the connection" : "no reply in time";
            return false;
        }
        text.append(buffer, static_cast<size_t>(got));
    }
    m_pending = text.substr(end + 4);
    text.resize(end);
    head = ReplyHead();
    size_t lineEnd = text.find("\r\n");
    const std::string statusLine = text.substr(0, lineEnd);
    if (statusLine.compare(0, 5, "HTTP/") != 0 || statusLine.size() < 12) {
        error = "not an HTTP reply";
        return false;
    }
    head.status = atoi(statusLine.c_str() + 9);
    while (lineEnd != std::string::npos) {
        const size_t start = lineEnd + 2;
        lineEnd = text.find("\r\n", start);
        const std::string line = text.substr(start, lineEnd == std::string::npos ? std::string::npos : lineEnd - start);
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            head.fields[lowerCase(line.substr(0, colon))] = trim(line.substr(colon + 1));
        }
    }
    return true;
}

std::string digestAnswer(const std::string& challenge, const std::string& method, const std::string& uri,
                         const std::string& user, const std::string& password)
{
    const std::string realm = challengeParam(challenge, "realm");
    const std::string nonce = challengeParam(challenge, "nonce");
    const std::string cnonce = newSessionToken().substr(0, 16);
    const std::string nc = "00000001";
    const std::string ha1 = md5Hex(user + ":" + realm + ":" + password);
    const std::string ha2 = md5Hex(method + ":" + uri);
    const std::string response = md5Hex(ha1 + ":" + nonce + ":" + nc + ":" + cnonce + ":auth:" + ha2);
    std::string answer = "Digest username=\"" + user + "\", realm=\"" + realm + "\", nonce=\"" + nonce + "\", uri=\"" +
                         uri + "\", qop=auth, nc=" + nc + ", cnonce=\"" + cnonce + "\", response=\"" + response + "\"";
    const std::string opaque = challengeParam(challenge, "opaque");
    if (!opaque.empty()) {
        answer += ", opaque=\"" + opaque + "\"";
    }
    return answer;
}

namespace {

constexpr int kConnectMs = 3000;
constexpr int kReplyMs = 10000;

bool sendRequest(int port, int hostPort, const std::string& method, const std::string& target, const std::string& heads,
                 const std::string& body, PluginConnection& connection, ReplyHead& head, std::string& error)
{
    const std::string request = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(hostPort) +
                                "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + heads + "\r\n" + body;
    if (!connection.connect(port, kConnectMs, error)) {
        return false;
    }
    if (!connection.sendAll(request, kReplyMs)) {
        error = "the request could not be sent";
        return false;
    }
    return connection.readHead(head, kReplyMs, error);
}

}  // namespace

bool pluginRequest(int port, int hostPort, const std::string& method, const std::string& target,
                   const std::string& extraHeads, const std::string& body, const PluginCredentials& credentials,
                   PluginConnection& connection, ReplyHead& head, std::string& error)
{
    std::string challenge;
    {
        PluginConnection bare(connection.stopFlag());
        ReplyHead first;
        if (!sendRequest(port, hostPort, method, target, extraHeads, body, bare, first, error)) {
            return false;
        }
        challenge = first.field("www-authenticate");
        if (first.status != 401 || challenge.compare(0, 7, "Digest ") != 0) {
            error = "the plug-in answered " + std::to_string(first.status) + " without a Digest challenge";
            return false;
        }
    }
    const std::string authorization =
        "Authorization: " + digestAnswer(challenge, method, target, credentials.user, credentials.password) + "\r\n";
    return sendRequest(port, hostPort, method, target, extraHeads + authorization, body, connection, head, error);
}
