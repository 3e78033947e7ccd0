// The talk bench's second reference: the same relay as talk_relay.py in C++,
// to show what the kernel's share of the job costs by itself. One thread, one
// epoll set, one timerfd: each packet time it writes one packet to every
// listening link (GET), and it appends what every speaking link (PUT) sends to
// that talk's capture file, one write per read. A link names itself in its
// first line, "GET <channel>\n" or "PUT <channel>\n".
//
//     talk_relay <port> <capture-folder>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

constexpr size_t kPacket = 160;           // 20 ms of PCMU
constexpr long kPeriodNs = 20000000;      // the packet time
constexpr size_t kLongestFirstLine = 64;  // "PUT <channel>\n" and then some

enum class Role { Pending, Listener, Speaker };

struct Link {
    Role role = Role::Pending;
    int capture = -1;
    std::string line;  // the first line so far
};

void watch(int poller, int fd)
{
    struct epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    epoll_ctl(poller, EPOLL_CTL_ADD, fd, &event);
}

void keep(int capture, const char* data, size_t length)
{
    if (capture >= 0 && write(capture, data, length) < 0) {
        perror("talk_relay: capture");
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s <port> <capture-folder>\n", argv[0]);
        return 2;
    }
    const std::string folder = argv[2];
    char audio[kPacket];
    for (size_t i = 0; i < kPacket; ++i) {
        audio[i] = static_cast<char>((i / 40) % 2 ? 0xFF : 0x7F);
    }
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    const int yes = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(atoi(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 512) != 0) {
        perror("talk_relay: listen");
        return 1;
    }
    const int poller = epoll_create1(EPOLL_CLOEXEC);
    const int timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK);
    struct itimerspec period = {};
    period.it_value.tv_nsec = period.it_interval.tv_nsec = kPeriodNs;
    timerfd_settime(timer, 0, &period, nullptr);
    watch(poller, listener);
    watch(poller, timer);

    std::unordered_map<int, Link> links;
    std::vector<int> listeners;
    printf("ready\n");
    fflush(stdout);
    static char buffer[65536];
    struct epoll_event events[256];
    for (;;) {
        const int count = epoll_wait(poller, events, 256, -1);
        for (int i = 0; i < count; ++i) {
            const int fd = events[i].data.fd;
            if (fd == listener) {
                for (int link; (link = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK)) >= 0;) {
                    links[link] = Link{};
                    watch(poller, link);
                }
                continue;
            }
            if (fd == timer) {
                uint64_t expirations = 0;
                if (read(timer, &expirations, sizeof expirations) > 0) {
                    // A listener that does not read loses the packet, as with the gateway.
                    for (int to : listeners) {
                        send(to, audio, kPacket, MSG_NOSIGNAL | MSG_DONTWAIT);
                    }
                }
                continue;
            }
            Link& link = links[fd];
            const ssize_t got = recv(fd, buffer, sizeof buffer, 0);
            if (got < 0) {
                continue;
            }
            if (link.role == Role::Pending && got > 0) {
                link.line.append(buffer, static_cast<size_t>(got));
            }
            const size_t end = link.line.find('\n');
            const bool lineTooLong =
                link.role == Role::Pending && end == std::string::npos && link.line.size() > kLongestFirstLine;
            if (got == 0 || lineTooLong) {
                if (link.capture >= 0) {
                    close(link.capture);
                }
                listeners.erase(std::remove(listeners.begin(), listeners.end(), fd), listeners.end());
                links.erase(fd);
                close(fd);
                continue;
            }
            if (link.role == Role::Speaker) {
                keep(link.capture, buffer, static_cast<size_t>(got));
            } else if (link.role == Role::Pending) {
                if (end == std::string::npos) {
                    continue;
                }
                const std::string head = link.line.substr(0, end);
                if (head.compare(0, 4, "GET ") == 0) {
                    link.role = Role::Listener;
                    listeners.push_back(fd);
                } else {
                    link.role = Role::Speaker;
                    // Only the number names the file: a link's text never becomes a path of its own.
                    const int channel = atoi(head.c_str() + std::min(head.size(), head.find(' ') + 1));
                    const std::string path = folder + "/ch" + std::to_string(channel) + ".raw";
                    link.capture = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
                    keep(link.capture, link.line.data() + end + 1, link.line.size() - end - 1);
                }
                link.line.clear();
            }
        }
    }
}
