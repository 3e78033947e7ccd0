// Readiness of many sockets, for a thread that watches connections without a
// buffer or a thread for each: an edge-triggered epoll set.
#include "zrt/zrt.h"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int descriptorOf(void* poller)
{
    return static_cast<int>(reinterpret_cast<intptr_t>(poller)) - 1;
}

}  // namespace

extern "C" {

int ZRT_Peek(int sock, char* buf, int len)
{
    if (buf == nullptr || len <= 0) {
        errno = EINVAL;
        return -1;
    }
    for (;;) {
        ssize_t got = recv(sock, buf, static_cast<size_t>(len), MSG_PEEK | MSG_DONTWAIT);
        if (got >= 0) {
            return static_cast<int>(got);
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

int ZRT_GetMaxFds(void)
{
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return -1;
    }
    return limit.rlim_cur > static_cast<rlim_t>(INT32_MAX) ? INT32_MAX : static_cast<int>(limit.rlim_cur);
}

void* ZRT_Poller_Create(void)
{
    int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0) {
        return nullptr;
    }
    // Offset by one, so that descriptor 0 is not a null poller.
    return reinterpret_cast<void*>(static_cast<intptr_t>(fd) + 1);
}

ZRT_INT32 ZRT_Poller_Destroy(void* poller)
{
    if (poller == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return close(descriptorOf(poller)) == 0 || errno == EINTR ? 0 : -1;
}

ZRT_INT32 ZRT_Poller_Add(void* poller, int sock, ZRT_UINT64 key)
{
    if (poller == nullptr) {
        errno = EINVAL;
        return -1;
    }
    struct epoll_event event = {};
    event.events = EPOLLIN | EPOLLRDHUP | EPOLLET;
    event.data.u64 = key;
    return epoll_ctl(descriptorOf(poller), EPOLL_CTL_ADD, sock, &event) == 0 ? 0 : -1;
}

ZRT_INT32 ZRT_Poller_Remove(void* poller, int sock)
{
    if (poller == nullptr) {
        errno = EINVAL;
        return -1;
    }
    return epoll_ctl(descriptorOf(poller), EPOLL_CTL_DEL, sock, nullptr) == 0 ? 0 : -1;
}

int ZRT_Poller_Wait(void* poller, ZRT_UINT64* keys, int max, ZRT_UINT32 timeoutMs)
{
    if (poller == nullptr || keys == nullptr || max <= 0) {
        errno = EINVAL;
        return -1;
    }
    constexpr int kBatch = 64;
    struct epoll_event events[kBatch];
    const int wait = timeoutMs == 0xFFFFFFFFu ? -1 : static_cast<int>(timeoutMs > INT32_MAX ? INT32_MAX : timeoutMs);
    for (;;) {
        int count = epoll_wait(descriptorOf(poller), events, max < kBatch ? max : kBatch, wait);
        if (count >= 0) {
            for (int i = 0; i < count; ++i) {
                keys[i] = events[i].data.u64;
            }
            return count;
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

}  // extern "C"
