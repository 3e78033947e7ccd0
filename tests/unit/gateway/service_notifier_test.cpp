// The service manager's notifications: the datagrams a Type=notify unit reads,
// and a manager that stops reading never holding the gateway up.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstring>
#include <string>

#include "ops/ServiceNotifier.h"

namespace {

// The manager's end: a datagram socket bound to address ("@..." abstract).
class ManagerSocket {
public:
    explicit ManagerSocket(const std::string& address)
    {
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un own;
        memset(&own, 0, sizeof own);
        own.sun_family = AF_UNIX;
        memcpy(own.sun_path, address.data(), address.size());
        own.sun_path[0] = address[0] == '@' ? '\0' : own.sun_path[0];
        EXPECT_EQ(bind(m_fd, reinterpret_cast<sockaddr*>(&own),
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size())),
                  0);
    }
    ~ManagerSocket() { close(m_fd); }

    std::string next()
    {
        char buffer[512];
        const ssize_t got = recv(m_fd, buffer, sizeof buffer, MSG_DONTWAIT);
        return got > 0 ? std::string(buffer, static_cast<size_t>(got)) : std::string();
    }

private:
    int m_fd = -1;
};

std::string abstractName()
{
    return "@media-gateway-notify-test-" + std::to_string(getpid());
}

}  // namespace

TEST(ServiceNotifier, SendsStatesAndChangedStatusLines)
{
    const std::string address = abstractName();
    ManagerSocket manager(address);
    ServiceNotifier notifier(address);
    notifier.ready("ready on 8080");
    notifier.status("ready on 8080");  // unchanged: not sent again
    notifier.status("2 downloads");
    notifier.stopping("stopping");
    EXPECT_EQ(manager.next(), "READY=1\nSTATUS=ready on 8080");
    EXPECT_EQ(manager.next(), "STATUS=2 downloads");
    EXPECT_EQ(manager.next(), "STOPPING=1\nSTATUS=stopping");
    EXPECT_EQ(manager.next(), "");
}

TEST(ServiceNotifier, AManagerThatStopsReadingDoesNotHoldTheGatewayUp)
{
    const std::string address = abstractName();
    ManagerSocket manager(address);
    ServiceNotifier notifier(address);
    // Fill the manager's queue: status lines that find no room are dropped at once.
    const auto start = std::chrono::steady_clock::now();
    for (int line = 0; line < 2000; ++line) {
        notifier.status("line " + std::to_string(line));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    // A state change waits a bounded time for room, then gives up.
    const auto stopAt = std::chrono::steady_clock::now();
    notifier.stopping("stopping");
    const auto waited = std::chrono::steady_clock::now() - stopAt;
    EXPECT_GE(waited, std::chrono::milliseconds(ServiceNotifier::kStateWaitMs - 50));
    EXPECT_LT(waited, std::chrono::milliseconds(ServiceNotifier::kStateWaitMs + 1000));
    EXPECT_EQ(manager.next(), "STATUS=line 0");
}

TEST(ServiceNotifier, WithoutAManagerEveryCallDoesNothing)
{
    for (const char* address : {"", "relative/path", "@no-such-manager-socket-for-this-test"}) {
        ServiceNotifier notifier{std::string(address)};
        const auto start = std::chrono::steady_clock::now();
        notifier.ready("ready");
        notifier.stopping("stopping");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100)) << address;
    }
}
