#include "ops/ServiceNotifier.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

// A datagram socket connected to the manager's, so that poll() can tell when
// its queue has room; -1 when there is no such socket.
int connectTo(const std::string& address)
{
    sockaddr_un peer;
    memset(&peer, 0, sizeof peer);
    peer.sun_family = AF_UNIX;
    if (address.empty() || (address[0] != '/' && address[0] != '@') || address.size() >= sizeof peer.sun_path) {
        return -1;
    }
    memcpy(peer.sun_path, address.data(), address.size());
    if (address[0] == '@') {
        peer.sun_path[0] = '\0';  // an abstract name
    }
    const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&peer), length) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

std::string notifySocketOfEnvironment()
{
    const char* address = getenv("NOTIFY_SOCKET");
    return address != nullptr ? address : "";
}

}  // namespace

ServiceNotifier::ServiceNotifier() : ServiceNotifier(notifySocketOfEnvironment())
{
}

ServiceNotifier::ServiceNotifier(const std::string& socketAddress) : m_socket(connectTo(socketAddress))
{
}

ServiceNotifier::~ServiceNotifier()
{
    if (m_socket >= 0) {
        close(m_socket);
    }
}

bool ServiceNotifier::notify(const std::string& state, const std::string& status, int waitMs)
{
    m_lastStatus = status;
    if (m_socket < 0) {
        return false;
    }
    const std::string message = state + "STATUS=" + status;
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        if (send(m_socket, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return true;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
            return false;  // the gateway runs the same with or without a service manager
        }
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        const long elapsedMs = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
        if (elapsedMs >= waitMs) {
            return false;
        }
        pollfd room = {m_socket, POLLOUT, 0};
        poll(&room, 1, static_cast<int>(waitMs - elapsedMs));
    }
}

void ServiceNotifier::ready(const std::string& status)
{
    notify("READY=1\n", status, kStateWaitMs);
}

void ServiceNotifier::reloading()
{
    // The manager's clock, so that it can tell this reload from an earlier one.
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t microseconds = static_cast<uint64_t>(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
    notify("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(microseconds) + "\n",
           "reloading users, devices and recordings", kStateWaitMs);
}

void ServiceNotifier::stopping(const std::string& status)
{
    notify("STOPPING=1\n", status, kStateWaitMs);
}

void ServiceNotifier::status(const std::string& status)
{
    if (status != m_lastStatus) {
        notify("", status, 0);
    }
}
