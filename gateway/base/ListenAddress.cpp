#include "base/ListenAddress.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

bool parseListenAddress(const std::string& text, ListenAddress& address, std::string& error)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        error = "\"" + text + "\" is not host:port (e.g. 127.0.0.1:9464 or [::1]:9464)";
        return false;
    }
    std::string host = text.substr(0, colon);
    const std::string port = text.substr(colon + 1);
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (bracketed) {
        host = host.substr(1, host.size() - 2);
    }
    unsigned char binary[sizeof(struct in6_addr)];
    const bool valid =
        bracketed ? inet_pton(AF_INET6, host.c_str(), binary) == 1 : inet_pton(AF_INET, host.c_str(), binary) == 1;
    if (!valid) {
        error = "\"" + text + "\": \"" + host + "\" is not an IPv4 address or a bracketed IPv6 address";
        return false;
    }
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
        std::stoi(port) < 1 || std::stoi(port) > 65535) {
        error = "\"" + text + "\": the port must be a number from 1 to 65535";
        return false;
    }
    address.host = host;
    address.port = std::stoi(port);
    return true;
}

bool isLoopbackAddress(const std::string& host)
{
    struct in_addr v4;
    struct in6_addr v6;
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    return inet_pton(AF_INET6, host.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

std::string whyCannotListen(const ListenAddress& address)
{
    const bool v6 = address.host.find(':') != std::string::npos;
    int probe = socket(v6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (probe < 0) {
        return strerror(errno);
    }
    int on = 1;
    setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    struct sockaddr_storage storage;
    memset(&storage, 0, sizeof storage);
    socklen_t length = 0;
    if (v6) {
        auto* in6 = reinterpret_cast<struct sockaddr_in6*>(&storage);
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(static_cast<uint16_t>(address.port));
        inet_pton(AF_INET6, address.host.c_str(), &in6->sin6_addr);
        length = sizeof *in6;
    } else {
        auto* in4 = reinterpret_cast<struct sockaddr_in*>(&storage);
        in4->sin_family = AF_INET;
        in4->sin_port = htons(static_cast<uint16_t>(address.port));
        inet_pton(AF_INET, address.host.c_str(), &in4->sin_addr);
        length = sizeof *in4;
    }
    std::string reason;
    if (bind(probe, reinterpret_cast<struct sockaddr*>(&storage), length) != 0 || listen(probe, 1) != 0) {
        reason = strerror(errno);
    }
    close(probe);
    return reason;
}
